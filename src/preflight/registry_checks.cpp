#include "preflight/registry_checks.h"

#include <array>
#include <string_view>
#include <utility>

#include "core/text.h"
#include "platform/system.h"
#include "log/tool_log.h"
#include "state/update_record.h"

namespace preflight {
namespace {

using platform::Hive;
namespace regtype = platform::regtype;

constexpr const wchar_t* kChecksKey = L"\\Agent\\PreflightChecks\\";
constexpr std::size_t kMaxCheckValueBytes = 8192;

constexpr std::array<std::pair<std::wstring_view, std::wstring_view>, 5> kShortRootNames{{
    {L"HKEY_LOCAL_MACHINE", L"HKLM"},
    {L"HKEY_CURRENT_USER", L"HCU"},
    {L"HKEY_CLASSES_ROOT", L"HCR"},
    {L"HKEY_CURRENT_CONFIG", L"HCC"},
    {L"HKEY_USERS", L"HU"},
}};

// clang-format off
constexpr const wchar_t* kWindowsUpdateRebootRequired =
    L"HKEY_LOCAL_MACHINE\\Software\\Microsoft\\Windows\\CurrentVersion\\WindowsUpdate\\Auto Update\\RebootRequired";
constexpr const wchar_t* kServicingRebootPending =
    L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Component Based Servicing\\RebootPending";
// clang-format on
constexpr const wchar_t* kCurrentNeedReboot = L"HKLM\\SOFTWARE\\Quorvane\\NeedReboot";
constexpr const wchar_t* kLegacyNeedReboot = L"HKLM\\SOFTWARE\\Tessix, Inc.\\NeedReboot";

std::wstring CheckValueText(const platform::RegistryValue& value) {
    switch (value.type) {
        case regtype::kDword:
        case regtype::kQword:
        case regtype::kSz:
        case regtype::kExpandSz:
            if (auto text = RegistryValueText(value)) return *text;
            break;
        default:
            break;
    }
    return core::WideFromUtf16Bytes(value.data);
}

std::wstring Lookup(const RegistryValueMap& check, const wchar_t* name) {
    const auto it = check.find(name);
    return it == check.end() ? std::wstring() : it->second;
}

// The check's values under the current root, whatever root listed it.
RegistryValueMap ReadCheck(const std::wstring& name) {
    const RegistryPath parts = SplitRegistryPath(CurrentProductRoot() + kChecksKey + name + L"\\");
    std::vector<platform::NamedRegistryValue> raw;
    if (!parts.hive || platform::RegistryEnumValues(*parts.hive, parts.key, false, raw) !=
                           platform::status::kSuccess)
        return {};
    return CheckValues(raw);
}

std::wstring UpToFirstNul(std::wstring text) {
    const auto nul = text.find(L'\0');
    if (nul != std::wstring::npos) text.resize(nul);
    return text;
}

}  // namespace

bool KeyExists(const std::wstring& keyPath) {
    // Long forms first, each written exactly so and followed by its backslash.
    for (const bool longForm : {true, false}) {
        for (const RegistryRootName& root : kRegistryRootNames) {
            const std::wstring prefix =
                std::wstring(longForm ? root.longName : root.shortName) + L"\\";
            if (keyPath.starts_with(prefix))
                return platform::RegistryOpenKeyForRead(root.hive, keyPath.substr(prefix.size())) ==
                       platform::status::kSuccess;
        }
    }
    return false;
}

std::wstring ShortenRootNames(std::wstring keyPath) {
    for (const auto& [longName, shortName] : kShortRootNames) {
        for (auto at = keyPath.find(longName); at != std::wstring::npos;
             at = keyPath.find(longName, at + shortName.size()))
            keyPath.replace(at, longName.size(), shortName);
    }
    return keyPath;
}

RegistryValueMap CheckValues(const std::vector<platform::NamedRegistryValue>& values) {
    RegistryValueMap check;
    for (const auto& [rawName, value] : values) {
        std::wstring name = core::Trim(rawName);
        if (name.empty() || value.data.empty() || value.data.size() >= kMaxCheckValueBytes)
            continue;
        check[std::move(name)] = CheckValueText(value);
    }
    return check;
}

PreflightActionSet performRegistryBasedChecks() {
    static const wchar_t* const kFunction = L"App::performRegistryBasedChecks";
    PreflightActionSet actions;
    // The list comes from the current root for an upgrade from the former product and from the
    // legacy root otherwise, while the values always come from the current root. Existing check
    // definitions rely on this split; keep it.
    const std::wstring listRoot =
        ActiveUpdateRecord().legacyUpgradeDetected ? CurrentProductRoot() : LegacyProductRoot();
    for (const std::wstring& listed : RegEnumSubkeys(listRoot + kChecksKey)) {
        const std::wstring name = core::Trim(listed);
        LogF(L"%s: processing preflight check key [%s]", kFunction, name);
        const RegistryValueMap check = ReadCheck(name);
        const std::wstring keyPath = Lookup(check, L"KeyPath");
        if (keyPath.empty() || !KeyExists(keyPath)) {
            LogF(L"%s: preflight check, unable to read keypath for check: [%s], no action",
                 kFunction, name);
            continue;
        }
        // The value match is only consulted when no key-present action is given.
        const std::wstring keyPresentAction = Lookup(check, L"KeyPresentAction");
        const std::wstring action = keyPresentAction.empty()
                                        ? getValueMatchAction(check)
                                        : getPreflightCheckAction(keyPresentAction);
        LogF(L"%s: preflight check [%s], action [%s] is added", kFunction, name, action);
        actions.insert(action);
    }
    return actions;
}

std::wstring getPreflightCheckAction(std::wstring action) {
    static const wchar_t* const kFunction = L"App::getPreflightCheckAction";
    // Compared as the words are stored: text after an embedded NUL (binary or multi-string data)
    // does not count.
    action = UpToFirstNul(std::move(action));
    if (action.empty()) return kActionNone;
    if (platform::EqualsIgnoreCase(action, kActionReboot))
        return kActionReboot;
    if (platform::EqualsIgnoreCase(action, kActionError)) return kActionError;
    // A word we do not know never fails the run.
    LogF(L"%s: invalid action [%s]", kFunction, action);
    return kActionNone;
}

std::wstring getValueMatchAction(const RegistryValueMap& check) {
    static const wchar_t* const kFunction = L"App::getValueMatchAction";
    const std::wstring keyPath = Lookup(check, L"KeyPath");
    const std::wstring matchAction = Lookup(check, L"ValueMatchAction");
    if (matchAction.empty()) {
        LogF(L"%s: no value match action defined", kFunction);
        return kActionNone;
    }
    const std::wstring valueName = Lookup(check, L"ValueName");
    const std::wstring expected = Lookup(check, L"ExpectedValue");
    const std::wstring actual =
        RegReadString(ShortenRootNames(keyPath) + L"\\" + valueName, L"");
    // An empty expectation never matches, not even an empty or missing value.
    if (expected.empty() || !platform::EqualsIgnoreCase(expected, actual))
        return kActionNone;
    LogF(L"%s: preflight check [%s], value matches, adding an action [%s] to process", kFunction,
         keyPath, matchAction);
    return getPreflightCheckAction(matchAction);
}

bool isRebootPending() {
    static const wchar_t* const kFunction = L"App::isRebootPending";
    LogF(L"%s: checking registry keys for reboot pending", kFunction);
    if (KeyExists(kWindowsUpdateRebootRequired)) {
        LogF(L"%s: Windows Auto Update Reboot is pending", kFunction);
        return true;
    }
    if (KeyExists(kServicingRebootPending)) {
        LogF(L"%s: Windows Component Based Servicing (CBS) Reboot is pending", kFunction);
        return true;
    }
    // Our own marker counts only with components named in it; otherwise the former product's
    // marker decides.
    const std::wstring current = kCurrentNeedReboot;
    if (KeyExists(current)) {
        const std::wstring components = RegReadString(current + L"\\Components", L"");
        if (!components.empty()) {
            LogF(L"%s: Quorvane components <%s> need a reboot", kFunction, components);
            return true;
        }
    }
    const std::wstring legacy = kLegacyNeedReboot;
    if (!KeyExists(legacy)) return false;
    const std::wstring components = RegReadString(legacy + L"\\Components", L"");
    if (components.empty()) return false;
    LogF(L"%s: Tessix components <%s> need a reboot", kFunction, components);
    return true;
}

}  // namespace preflight
