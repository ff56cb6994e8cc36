#include "platform/registry.h"

#include <windows.h>

#include "platform/win32/handles.h"

namespace platform {
namespace {

using win32::UniqueRegistryKey;

HKEY HiveHandle(Hive hive) {
    switch (hive) {
        case Hive::LocalMachine: return HKEY_LOCAL_MACHINE;
        case Hive::CurrentUser: return HKEY_CURRENT_USER;
        case Hive::ClassesRoot: return HKEY_CLASSES_ROOT;
        case Hive::CurrentConfig: return HKEY_CURRENT_CONFIG;
        case Hive::Users: return HKEY_USERS;
    }
    return nullptr;
}

REGSAM WithView(REGSAM access, bool view32) { return view32 ? (access | KEY_WOW64_32KEY) : access; }

std::uint32_t OpenKey(Hive hive, const std::wstring& key, REGSAM access, bool view32,
                      UniqueRegistryKey& out) {
    return static_cast<std::uint32_t>(
        ::RegOpenKeyExW(HiveHandle(hive), key.c_str(), 0, WithView(access, view32), out.put()));
}

// RegQueryValueExW with a buffer grown to the size the value reports (it may grow meanwhile).
std::uint32_t QueryValue(HKEY key, const wchar_t* name, RegistryValue& out) {
    DWORD type = 0;
    DWORD size = 0;
    LSTATUS status = ::RegQueryValueExW(key, name, nullptr, &type, nullptr, &size);
    for (int attempt = 0; attempt < 8 && (status == ERROR_SUCCESS || status == ERROR_MORE_DATA);
         ++attempt) {
        out.data.resize(size);
        status = ::RegQueryValueExW(key, name, nullptr, &type, size ? out.data.data() : nullptr,
                                    &size);
        if (status == ERROR_SUCCESS) {
            out.data.resize(size);
            out.type = type;
            return ERROR_SUCCESS;
        }
    }
    out.data.clear();
    return static_cast<std::uint32_t>(status);
}

}  // namespace

std::uint32_t RegistryQueryValue(Hive hive, const std::wstring& key, const std::wstring& name,
                                 bool view32, RegistryValue& out) {
    UniqueRegistryKey handle;
    if (auto status = OpenKey(hive, key, KEY_QUERY_VALUE, view32, handle)) return status;
    return QueryValue(handle.get(), name.c_str(), out);
}

std::uint32_t RegistrySetValue(Hive hive, const std::wstring& key, const std::wstring& name,
                               const RegistryValue& value, bool view32, bool volatileKey) {
    UniqueRegistryKey handle;
    const DWORD options = volatileKey ? REG_OPTION_VOLATILE : REG_OPTION_NON_VOLATILE;
    LSTATUS status = ::RegCreateKeyExW(HiveHandle(hive), key.c_str(), 0, nullptr, options,
                                       WithView(KEY_WRITE, view32), nullptr, handle.put(), nullptr);
    if (status != ERROR_SUCCESS) return static_cast<std::uint32_t>(status);
    status = ::RegSetValueExW(handle.get(), name.c_str(), 0, value.type,
                              value.data.empty() ? nullptr : value.data.data(),
                              static_cast<DWORD>(value.data.size()));
    return static_cast<std::uint32_t>(status);
}

std::uint32_t RegistryCreateKey(Hive hive, const std::wstring& key, bool view32) {
    UniqueRegistryKey handle;
    return static_cast<std::uint32_t>(::RegCreateKeyExW(HiveHandle(hive), key.c_str(), 0, nullptr,
                                                        REG_OPTION_NON_VOLATILE,
                                                        WithView(KEY_QUERY_VALUE, view32), nullptr,
                                                        handle.put(), nullptr));
}

std::uint32_t RegistryDeleteValue(Hive hive, const std::wstring& key, const std::wstring& name,
                                  bool view32, bool& keyOpened) {
    UniqueRegistryKey handle;
    keyOpened = false;
    if (auto status = OpenKey(hive, key, KEY_SET_VALUE, view32, handle)) return status;
    keyOpened = true;
    return static_cast<std::uint32_t>(::RegDeleteValueW(handle.get(), name.c_str()));
}

std::uint32_t RegistryEnumSubkeys(Hive hive, const std::wstring& key, bool view32,
                                  std::vector<std::wstring>& out) {
    out.clear();
    UniqueRegistryKey handle;
    if (auto status = OpenKey(hive, key, KEY_READ, view32, handle)) return status;
    for (DWORD index = 0;; ++index) {
        wchar_t name[256];  // key names are at most 255 characters
        DWORD length = static_cast<DWORD>(std::size(name));
        const LSTATUS status =
            ::RegEnumKeyExW(handle.get(), index, name, &length, nullptr, nullptr, nullptr, nullptr);
        if (status == ERROR_NO_MORE_ITEMS) return ERROR_SUCCESS;
        if (status != ERROR_SUCCESS) return static_cast<std::uint32_t>(status);
        out.emplace_back(name, length);
    }
}

std::uint32_t RegistryEnumValues(Hive hive, const std::wstring& key, bool view32,
                                 std::vector<NamedRegistryValue>& out) {
    out.clear();
    UniqueRegistryKey handle;
    if (auto status = OpenKey(hive, key, KEY_READ, view32, handle)) return status;
    for (DWORD index = 0;; ++index) {
        wchar_t name[16384];  // value names are at most 16383 characters
        DWORD length = static_cast<DWORD>(std::size(name));
        const LSTATUS status = ::RegEnumValueW(handle.get(), index, name, &length, nullptr,
                                               nullptr, nullptr, nullptr);
        if (status == ERROR_NO_MORE_ITEMS) return ERROR_SUCCESS;
        if (status != ERROR_SUCCESS) return static_cast<std::uint32_t>(status);
        RegistryValue value;
        const std::wstring valueName(name, length);
        // A value removed between the enumeration and the read is skipped, not fatal.
        if (QueryValue(handle.get(), valueName.c_str(), value) == ERROR_SUCCESS)
            out.emplace_back(valueName, std::move(value));
    }
}

std::uint32_t RegistryOpenKey(Hive hive, const std::wstring& key, bool view32) {
    UniqueRegistryKey userHive;
    HKEY parent = HiveHandle(hive);
    if (hive == Hive::CurrentUser) {
        if (auto status = ::RegOpenCurrentUser(KEY_QUERY_VALUE, userHive.put()))
            return static_cast<std::uint32_t>(status);
        parent = userHive.get();
    }
    UniqueRegistryKey handle;
    return static_cast<std::uint32_t>(::RegOpenKeyExW(
        parent, key.c_str(), 0, WithView(KEY_QUERY_VALUE, view32), handle.put()));
}

std::uint32_t RegistryOpenKeyForRead(Hive hive, const std::wstring& key) {
    UniqueRegistryKey handle;
    return OpenKey(hive, key, KEY_READ, false, handle);
}

std::wstring ExpandEnvironment(const std::wstring& text) {
    std::wstring out(text.size() + 64, L'\0');
    for (int attempt = 0; attempt < 4; ++attempt) {
        const DWORD needed =
            ::ExpandEnvironmentStringsW(text.c_str(), out.data(), static_cast<DWORD>(out.size()));
        if (needed == 0) return text;
        if (needed <= out.size()) {
            out.resize(needed - 1);  // without the terminator
            return out;
        }
        out.resize(needed);
    }
    return text;
}

}  // namespace platform
