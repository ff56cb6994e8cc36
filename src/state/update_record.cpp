#include "state/update_record.h"

#include <array>
#include <optional>

#include "core/property_bag.h"
#include "core/text.h"
#include "platform/system.h"
#include "log/tool_log.h"
#include "state/policy_config.h"
#include "state/registry.h"

namespace {

// Index = state id; 0 is the invalid state and has no name.
constexpr std::array<const wchar_t*, 7> kStateNames{L"",        L"READY",    L"DOWNLOAD", L"WAIT",
                                                    L"NOLOGON", L"UPDATING", L"DONE"};

std::wstring UpdateKeyPath(const UpdateRecord& record) {
    const std::wstring root =
        record.legacyUpgradeDetected ? LegacyProductRoot() : CurrentProductRoot();
    return root + kUpdateKeysPath + record.keyId;
}

std::wstring UpdateSettingPath(const wchar_t* name) {
    return CurrentProductRoot() + kUpdateKeysPath + name;
}

// A multi-string as a list; empty pieces (doubled or trailing separators) are dropped.
std::vector<std::wstring> SplitMultiString(const std::wstring& text) {
    std::vector<std::wstring> pieces;
    for (auto& piece : core::Split(text, L'\0'))
        if (!piece.empty()) pieces.push_back(std::move(piece));
    return pieces;
}

// What a NUL-terminated print of the value shows; keeps NULs of multi-strings out of the log.
std::wstring UpToFirstNul(const std::wstring& text) {
    return text.substr(0, text.find(L'\0'));
}

std::vector<std::wstring> ThumbprintsOf(const CORE::PropertyBag& bag) {
    std::vector<std::wstring> thumbprints;
    if (!bag.HasItems()) return thumbprints;
    std::wstring value;
    for (std::size_t position = bag.FindNextItem(L"THUMBPRINT", value, 0); position != 0;
         position = bag.FindNextItem(L"THUMBPRINT", value, position))
        thumbprints.push_back(value);
    return thumbprints;
}

// One start-up setting: the parsed value, or the default with a line naming the bad text.
template <typename Int>
Int ReadNumberSetting(const wchar_t* name, Int defaultValue,
                      bool (*parse)(std::wstring_view, Int&)) {
    const std::wstring defaultText = std::to_wstring(defaultValue);
    const std::wstring text =
        CORE::ReadStringWithLegacyFallback(UpdateSettingPath(name), defaultText);
    Int value = defaultValue;
    if (parse(core::Trim(text), value)) return value;
    LogF(L"%s: invalid %s value '%s', using the default %s", L"ReadRetrySettings", name, text,
         defaultText);
    return defaultValue;
}

}  // namespace

UpdateRecord& ActiveUpdateRecord() {
    static UpdateRecord record;
    return record;
}

void ResetUpdateRecordForTesting() {
    ActiveUpdateRecord() = UpdateRecord{};
}

bool UtilGetActiveUpdate() {
    static constexpr const wchar_t* kFunction = L"UtilGetActiveUpdate";
    UpdateRecord& record = ActiveUpdateRecord();

    // An update under the former product's root is an upgrade from it and always wins.
    std::vector<std::wstring> keys = RegEnumSubkeys(LegacyProductRoot() + kUpdateKeysPath);
    record.legacyUpgradeDetected = !keys.empty();
    if (record.legacyUpgradeDetected) {
        LogF(L"%s: Tessix to Quorvane agent upgrade detected", kFunction);
    } else {
        LogF(L"%s: No Tessix active updates", kFunction);
        LogF(L"%s: Check for Quorvane active updates", kFunction);
        keys = RegEnumSubkeys(CurrentProductRoot() + kUpdateKeysPath);
        if (keys.empty()) {
            LogF(L"%s: No Quorvane active updates", kFunction);
            record.keyId.clear();
            return false;
        }
    }
    // The service creates one key per update; should there be more, the registry's order decides.
    record.keyId = keys.front();
    LogF(L"%s: Update key: %s", kFunction, record.keyId);
    return true;
}

bool UtilGetRegistry() {
    static constexpr const wchar_t* kFunction = L"UtilGetRegistry";
    UpdateRecord& record = ActiveUpdateRecord();
    static_cast<UpdateKeyValues&>(record) = UpdateKeyValues{};
    if (record.keyId.empty()) return false;

    const RegistryValueMap values = RegReadAllValues(UpdateKeyPath(record));
    if (values.empty()) {
        LogF(record.legacyUpgradeDetected ? L"%s: Tessix Update key: %s empty key"
                                          : L"%s: Quorvane Update key: %s empty key",
             kFunction, record.keyId);
        return false;
    }
    for (const auto& [name, text] : values)
        LogF(L"Update key: %s %s = %s", record.keyId, name, UpToFirstNul(text));

    auto find = [&values](const wchar_t* name) -> std::optional<std::wstring> {
        const auto it = values.find(name);
        if (it == values.end()) return std::nullopt;
        return it->second;
    };
    auto copy = [&find](const wchar_t* name, std::wstring& field) {
        if (auto text = find(name)) field = std::move(*text);
    };

    if (auto state = find(L"STATE")) record.state = UtilStateId(*state);
    copy(L"AGENT", record.agent);
    copy(L"VERSION", record.version);

    record.urls = SplitMultiString(find(L"URL").value_or(L""));
    LogF(L"%s: URL length: %d [%s]", kFunction, static_cast<int>(record.urls.size()),
         core::Join(record.urls, L","));
    record.proxies = SplitMultiString(find(L"PROXY").value_or(L""));
    LogF(L"%s: Proxy length: %d [%s]", kFunction, static_cast<int>(record.proxies.size()),
         core::Join(record.proxies, L","));

    copy(L"PACURL", record.pacUrl);
    copy(L"ARCH", record.arch);
    if (record.agent.empty() || record.urls.empty()) {
        LogF(L"%s: required parameter empty", kFunction);
        return false;
    }

    // Malformed metadata leaves the bag empty (logged with the parser's reason): no thumbprints,
    // no failure.
    CORE::PropertyBag bag;
    copy(L"METADATA", record.metadata);
    if (!record.metadata.empty()) {
        if (bag.Parse(record.metadata, true))
            LogF(L"%s: matadata XML string loaded", kFunction);
        else
            LogF(L"PropertyBag Parse failed: %s", bag.ParseError());
    }

    copy(L"CHECKSUM", record.checksum);
    copy(L"FILESIZE", record.fileSize);
    copy(L"CERTTYPE", record.certType);
    record.thumbprints = ThumbprintsOf(bag);

    copy(L"OPTIONS", record.options);
    copy(L"RESULT", record.result);
    copy(L"FILENAME", record.fileName);
    copy(L"PACKAGEFILENAME", record.packageFileName);
    copy(L"RELATIVEFOLDERPATH", record.relativeFolderPath);
    if (auto retry = find(L"RETRY"); !retry || !core::ParseInt32(core::Trim(*retry), record.retry))
        record.retry = 0;
    return true;
}

bool Util_GetUpdateState(UpdateProperties& properties) {
    static constexpr const wchar_t* kFunction = L"Util_GetUpdateState";
    if (!UtilGetActiveUpdate()) return false;
    const UpdateRecord& record = ActiveUpdateRecord();
    if (!UtilGetRegistry()) {
        LogF(L"%s: Update key: %s Registry failure", kFunction, record.keyId);
        return false;
    }
    // Only an update that names its installer has to say which kind of agent installs it.
    if (!record.fileName.empty() && !platform::EqualsIgnoreCase(record.agent, L"OREL") &&
        !platform::EqualsIgnoreCase(record.agent, L"OTHER")) {
        LogF(L"%s: Update key: %s invalid agent: %s", kFunction, record.keyId, record.agent);
        return false;
    }
    properties[L"AGENT"] = record.agent;
    properties[L"VERSION"] = record.version;
    properties[L"ARCH"] = record.arch;
    properties[L"OPTIONS"] = record.options;
    properties[L"FILENAME"] = record.fileName;
    return true;
}

int UtilStateId(const std::wstring& name) {
    for (std::size_t id = update_state::kReady; id < kStateNames.size(); ++id)
        if (platform::EqualsIgnoreCase(name, kStateNames[id])) return static_cast<int>(id);
    LogF(L"%s: invalid state: %s", L"UtilStateId", name);
    return update_state::kInvalid;
}

std::wstring stateStr(int id) {
    if (id < update_state::kReady || id > update_state::kDone) {
        LogF(L"%s: invalid state: %d", L"stateStr", id);
        return {};
    }
    return kStateNames[static_cast<std::size_t>(id)];
}

bool ReadPreflightCheckComplete() {
    // The tool's own progress flag, not a setting: read where it is written, without policy.
    const UpdateRecord& record = ActiveUpdateRecord();
    if (record.keyId.empty()) return false;
    return ParseBoolText(RegReadString(
        CurrentProductRoot() + kUpdateKeysPath + record.keyId + L"\\PreflightCheckComplete", L"0"));
}

bool ReadUpdateEnabled() {
    return ParseBoolText(CORE::ReadStringWithLegacyFallback(UpdateSettingPath(L"Enabled"), L"1"));
}

void ReadRetrySettings() {
    UpdateRecord& record = ActiveUpdateRecord();
    record.maxRetry = ReadNumberSetting<std::int32_t>(
        L"MAXDOWNLOADANDUPGRADERETRY", kDefaultMaxDownloadAndUpgradeRetry, &core::ParseInt32);
    record.retryWaitMs = ReadNumberSetting<std::uint32_t>(
        L"RetryWaitPeriod", kDefaultRetryWaitPeriodMs, &core::ParseUint32);
}
