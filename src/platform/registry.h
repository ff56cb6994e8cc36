#pragma once
// Registry primitives: raw values with their types and bytes, nothing interpreted here.
// Every function returns a Windows error code (0 = ERROR_SUCCESS) and never throws.
// view32 selects the 32-bit registry view (KEY_WOW64_32KEY).
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace platform {

enum class Hive { LocalMachine, CurrentUser, ClassesRoot, CurrentConfig, Users };

namespace regtype {
constexpr std::uint32_t kNone = 0;
constexpr std::uint32_t kSz = 1;
constexpr std::uint32_t kExpandSz = 2;
constexpr std::uint32_t kBinary = 3;
constexpr std::uint32_t kDword = 4;
constexpr std::uint32_t kMultiSz = 7;
constexpr std::uint32_t kQword = 11;
}  // namespace regtype

namespace status {
constexpr std::uint32_t kSuccess = 0;
constexpr std::uint32_t kFileNotFound = 2;
constexpr std::uint32_t kPathNotFound = 3;
constexpr std::uint32_t kAccessDenied = 5;
constexpr std::uint32_t kInvalidParameter = 87;
constexpr std::uint32_t kAlreadyExists = 183;
}  // namespace status

struct RegistryValue {
    std::uint32_t type = regtype::kNone;
    std::vector<std::uint8_t> data;  // string types: UTF-16LE, as stored
};

using NamedRegistryValue = std::pair<std::wstring, RegistryValue>;

// Opens the key for KEY_QUERY_VALUE and reads one value.
std::uint32_t RegistryQueryValue(Hive hive, const std::wstring& key, const std::wstring& name,
                                 bool view32, RegistryValue& out);

// Creates or opens the key for KEY_WRITE (volatile when asked: it vanishes at restart) and sets
// the value.
std::uint32_t RegistrySetValue(Hive hive, const std::wstring& key, const std::wstring& name,
                               const RegistryValue& value, bool view32, bool volatileKey);

// Creates the key (and every missing key above it) unless it exists, non-volatile.
std::uint32_t RegistryCreateKey(Hive hive, const std::wstring& key, bool view32);

// Opens the key for KEY_SET_VALUE and deletes the value. keyOpened tells the two failures apart.
std::uint32_t RegistryDeleteValue(Hive hive, const std::wstring& key, const std::wstring& name,
                                  bool view32, bool& keyOpened);

// Subkey names and values in the order the system enumerates them (KEY_READ).
std::uint32_t RegistryEnumSubkeys(Hive hive, const std::wstring& key, bool view32,
                                  std::vector<std::wstring>& out);
std::uint32_t RegistryEnumValues(Hive hive, const std::wstring& key, bool view32,
                                 std::vector<NamedRegistryValue>& out);

// Whether the key opens (KEY_QUERY_VALUE). For CurrentUser the calling user's own hive is used
// (RegOpenCurrentUser), so that impersonation is honoured.
std::uint32_t RegistryOpenKey(Hive hive, const std::wstring& key, bool view32);

// Whether the key opens for KEY_READ under the hive's predefined handle as it is (no per-user hive
// lookup, no WOW64 flag); the key is closed again at once.
std::uint32_t RegistryOpenKeyForRead(Hive hive, const std::wstring& key);

// %VAR% expansion for REG_EXPAND_SZ values.
std::wstring ExpandEnvironment(const std::wstring& text);

}  // namespace platform
