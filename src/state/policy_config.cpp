#include "state/policy_config.h"

#include <map>

#include "core/text.h"
#include "platform/registry.h"
#include "platform/system.h"
#include "state/registry.h"

namespace CORE {
namespace {

using platform::Hive;

// A value of a type that makes no text (binary data) is not a setting; the next place is tried.
constexpr std::uint32_t kErrorUnsupportedType = 1630;

// Current component name (lower case, first component under kCurrentProductPath) -> where the
// former product kept that component's policies, under kLegacyPoliciesVendorPath. Only components
// whose settings are read through ReadWithLegacyFallback need a row; add one line per component.
// The function-local static is built once, thread-safely, and never changed afterwards.
const std::map<std::wstring, std::wstring>& LegacyComponentMap() {
    static const std::map<std::wstring, std::wstring> map{
        {L"agent", L"Tessix KDX\\Agent"},
    };
    return map;
}

// Joins two key paths with one backslash. Unlike file paths, '/' is a legal character in a key
// name, so it is left alone.
std::wstring JoinKey(std::wstring_view left, std::wstring_view right) {
    std::wstring joined(left);
    if (right.empty()) return joined;
    const bool hasSeparator = (!joined.empty() && joined.back() == L'\\') ||
                              right.front() == L'\\' || right.front() == L'/';
    if (!joined.empty() && !hasSeparator) joined += L'\\';
    joined += right;
    return joined;
}

// The text of one value; the registry status otherwise.
std::uint32_t QueryText(Hive hive, const std::wstring& key, const std::wstring& name, bool view32,
                        std::wstring& text) {
    platform::RegistryValue raw;
    const std::uint32_t status = platform::RegistryQueryValue(hive, key, name, view32, raw);
    if (status != platform::status::kSuccess) return status;
    auto converted = RegistryValueText(raw);
    if (!converted) return kErrorUnsupportedType;
    text = std::move(*converted);
    return platform::status::kSuccess;
}

}  // namespace

std::wstring PathHead(std::wstring_view path) {
    return std::wstring(path.substr(0, path.find(L'\\')));
}

std::wstring PathTail(std::wstring_view path) {
    const auto separator = path.find(L'\\');
    return separator == std::wstring_view::npos ? std::wstring()
                                                : std::wstring(path.substr(separator + 1));
}

std::wstring PolicyPath(std::wstring_view keyPath) {
    return JoinKey(PathHead(keyPath) + L"\\Policies", PathTail(keyPath));
}

std::wstring LegacyPolicyPath(std::wstring_view keyPath) {
    const std::size_t prefixLength = kCurrentProductPath.size();
    // Whole components only: "Software\Quorvane\LumenarX" is another product's key.
    if (keyPath.size() < prefixLength ||
        !platform::EqualsIgnoreCase(std::wstring(keyPath.substr(0, prefixLength)),
                                    std::wstring(kCurrentProductPath)) ||
        (keyPath.size() > prefixLength && keyPath[prefixLength] != L'\\'))
        return {};

    const std::wstring_view remainder =
        keyPath.size() > prefixLength ? keyPath.substr(prefixLength + 1) : std::wstring_view();
    if (remainder.empty()) return JoinKey(kLegacyPoliciesVendorPath, kLegacyProductSubkey);

    // Rows are keyed in lower case, so the lookup itself can be exact.
    const auto row = LegacyComponentMap().find(core::ToLower(PathHead(remainder)));
    if (row == LegacyComponentMap().end()) return {};
    return JoinKey(JoinKey(kLegacyPoliciesVendorPath, row->second), PathTail(remainder));
}

bool IsFallbackToLegacyGPOEnabled() {
    std::wstring setting =
        RegReadString(L"HKLM\\Software\\Policies\\Quorvane\\Lumenar\\FallbackToLegacyGPO", L"");
    if (setting.empty())
        setting = RegReadString(L"HKLM\\Software\\Quorvane\\Lumenar\\FallbackToLegacyGPO", L"true");
    return ParseBoolText(setting);
}

std::uint32_t ReadWithLegacyFallback(const std::wstring& path, std::wstring& value, bool view32,
                                     std::wstring* place) {
    value.clear();
    if (place) place->clear();

    const RegistryPath parts = SplitRegistryPath(path);
    if (!parts.hive) {
        platform::SetLastError(platform::status::kPathNotFound);
        return platform::status::kPathNotFound;
    }
    const Hive hive = *parts.hive;

    std::uint32_t status = platform::status::kFileNotFound;
    auto found = [&](Hive where, const std::wstring& key) {
        status = QueryText(where, key, parts.value, view32, value);
        if (status != platform::status::kSuccess) {
            value.clear();
            return false;
        }
        if (place) *place = JoinKey(JoinKey(RootName(where), key), parts.value);
        return true;
    };

    const std::wstring policy = PolicyPath(parts.key);
    if (found(hive, policy)) return status;

    // The switch is only consulted when the current policy does not decide.
    const std::wstring legacy =
        IsFallbackToLegacyGPOEnabled() ? LegacyPolicyPath(parts.key) : std::wstring();
    if (!legacy.empty() && found(hive, legacy)) return status;

    // Machine-wide policy applies to every user.
    const bool user = hive == Hive::CurrentUser;
    if (user && found(Hive::LocalMachine, policy)) return status;
    if (user && !legacy.empty() && found(Hive::LocalMachine, legacy)) return status;

    if (found(hive, parts.key)) return status;
    if (user && found(Hive::LocalMachine, parts.key)) return status;

    platform::SetLastError(status);
    return status;
}

std::wstring ReadStringWithLegacyFallback(const std::wstring& path,
                                          const std::wstring& defaultText) {
    std::wstring value;
    if (ReadWithLegacyFallback(path, value) != platform::status::kSuccess) return defaultText;
    return value;
}

}  // namespace CORE
