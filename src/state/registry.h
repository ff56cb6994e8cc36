#pragma once
// Registry access helpers. Every registry location in the tool is one wide path:
//   ROOT\key\path\ValueName
// ROOT is one of HKLM, HKCU, HKCR, HKCC, HKU (any case; the long HKEY_ names are refused);
// the key path is the text between the first and the last backslash, the value name the text after
// the last one. An empty value name ("HKLM\Software\X\") names the key's default value.
// Failures are reported by the result only: readers give their default, writers false.
#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/text.h"
#include "platform/registry.h"

// The registry's roots, each with its long name and the short one paths write. The one table of
// root names: the path helpers here and the preflight checks' key paths read it.
struct RegistryRootName {
    platform::Hive hive;
    const wchar_t* longName;
    const wchar_t* shortName;
};
inline constexpr std::array<RegistryRootName, 5> kRegistryRootNames{{
    {platform::Hive::LocalMachine, L"HKEY_LOCAL_MACHINE", L"HKLM"},
    {platform::Hive::CurrentUser, L"HKEY_CURRENT_USER", L"HKCU"},
    {platform::Hive::ClassesRoot, L"HKEY_CLASSES_ROOT", L"HKCR"},
    {platform::Hive::CurrentConfig, L"HKEY_CURRENT_CONFIG", L"HKCC"},
    {platform::Hive::Users, L"HKEY_USERS", L"HKU"},
}};

struct RegistryPath {
    std::optional<platform::Hive> hive;  // none: unknown root, the operation fails
    std::wstring key;
    std::wstring value;
};

RegistryPath SplitRegistryPath(const std::wstring& path);

// The short root name of a hive ("HKLM", "HKCU", ...), as paths write it.
std::wstring RootName(platform::Hive hive);

// "HKLM\Software\Quorvane\Lumenar" and "HKLM\Software\Tessix, Inc.\Tessix KDX".
std::wstring CurrentProductRoot();
std::wstring LegacyProductRoot();

// True for "true", "yes", "on" (any case) or a decimal integer other than 0.
bool ParseBoolText(const std::wstring& text);

// The text of a raw value as every reader gives it: REG_DWORD and REG_QWORD become decimal text,
// REG_EXPAND_SZ is expanded, REG_SZ is cut at its first NUL, REG_MULTI_SZ keeps its NUL
// separators (trailing terminators removed). nullopt for other types and for short data.
std::optional<std::wstring> RegistryValueText(const platform::RegistryValue& value);

// The value converted by RegistryValueText. Other types, a missing key or value, or an unknown
// root give the default.
std::wstring RegReadString(const std::wstring& path, const std::wstring& defaultText = L"",
                           bool view32 = false);

struct RegReadResult {
    std::wstring text;
    std::int32_t type = -1;  // the registry type, -1 when missing or unreadable
};
constexpr std::int32_t kAnyRegistryType = -1;
// Like RegReadString, but also tells the type; a value of another type than acceptedType counts
// as missing unless acceptedType is kAnyRegistryType.
RegReadResult RegReadValue(const std::wstring& path, std::int32_t acceptedType = kAnyRegistryType,
                           bool view32 = false);

// REG_DWORD / REG_QWORD: the text must be a decimal integer of that width (signed or unsigned);
// every other type is written as REG_SZ with its terminator.
bool RegWriteValue(const std::wstring& path, const std::wstring& text, std::uint32_t type,
                   bool view32 = false);

// REG_SZ in a key created volatile: gone after the next restart of the machine.
bool RegWriteVolatileString(const std::wstring& path, const std::wstring& text);

// These two take a key path (root included), not a value path.
std::vector<std::wstring> RegEnumSubkeys(const std::wstring& keyPath, bool view32 = false);
using RegistryValueMap = std::map<std::wstring, std::wstring, core::NoCaseLess>;
RegistryValueMap RegReadAllValues(const std::wstring& keyPath, bool view32 = false);

// hive must be LocalMachine or CurrentUser; keyPath has no root. Returns whether the key opens and
// the short root name of the hive ("HKLM" or "HKCU").
std::pair<bool, std::wstring> RegKeyExistsInMachineOrUser(platform::Hive hive,
                                                          const std::wstring& keyPath);

// True when the value is gone afterwards, including when it or its key never existed.
bool Util_DeleteRegistryIfExists(const std::wstring& path);
