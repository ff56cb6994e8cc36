#pragma once
// Redirects HKEY_LOCAL_MACHINE to a fresh key under HKEY_CURRENT_USER for one test, so that tests
// neither need nor touch the machine's real keys and cannot collide with each other. The key is not
// volatile: the system refuses non-volatile children under a volatile key, and the tool writes both.
#include <windows.h>

#include <string>

class HklmOverride {
public:
    HklmOverride() {
        static int counter = 0;
        name_ = L"Software\\UpdatetoolTests\\" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
                std::to_wstring(++counter);
        ::RegCreateKeyExW(HKEY_CURRENT_USER, name_.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                          KEY_ALL_ACCESS, nullptr, &key_, nullptr);
        ::RegOverridePredefKey(HKEY_LOCAL_MACHINE, key_);
    }
    ~HklmOverride() {
        ::RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
        ::RegCloseKey(key_);
        ::RegDeleteTreeW(HKEY_CURRENT_USER, name_.c_str());
    }
    HklmOverride(const HklmOverride&) = delete;
    HklmOverride& operator=(const HklmOverride&) = delete;

    bool valid() const { return key_ != nullptr; }

private:
    std::wstring name_;
    HKEY key_ = nullptr;
};
