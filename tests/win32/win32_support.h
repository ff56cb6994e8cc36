#pragma once
// What the adapter tests share: a private HKEY_LOCAL_MACHINE and a scratch folder per test, each
// undone at the end so that tests neither touch the machine nor collide with each other.
#include <windows.h>

#include <filesystem>
#include <string>

#include "platform/files.h"

// A unique name for this test: the process id and a counter.
inline std::wstring TestName(const wchar_t* prefix) {
    static int counter = 0;
    return prefix + std::to_wstring(::GetCurrentProcessId()) + L"-" + std::to_wstring(++counter);
}

// Redirects HKEY_LOCAL_MACHINE to a fresh key under HKEY_CURRENT_USER. The key is not volatile:
// the system refuses non-volatile children under a volatile key, and the tool writes both.
class HklmOverride {
public:
    HklmOverride() : name_(TestName(L"Software\\UpdatetoolTests\\")) {
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

// A fresh folder in the temp folder, removed with its content at the end.
class ScratchFolder {
public:
    ScratchFolder() {
        platform::GetTempFolder(path_);
        path_ += TestName(L"updatetool-test-");
        ::CreateDirectoryW(path_.c_str(), nullptr);
    }
    ~ScratchFolder() {
        std::error_code ignored;  // a file held for the process's life stays behind
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    std::wstring operator[](const std::wstring& name) const { return path_ + L"\\" + name; }
    const std::wstring& path() const { return path_; }

private:
    std::wstring path_;
};
