#include "state/state_transitions.h"

#include <cstdint>

#include "core/preflight_error_name.h"
#include "platform/clock.h"
#include "platform/registry.h"
#include "log/tool_log.h"
#include "state/downloaded_package.h"
#include "state/registry.h"
#include "state/update_record.h"

namespace {

constexpr const wchar_t* kResultOk = L"OK";
constexpr const wchar_t* kResultProgress = L"PROGRESS";
constexpr const wchar_t* kResultFailure = L"FAILURE";
constexpr const wchar_t* kResultInvalid = L"INVALID";

std::wstring UpdateValuePath(const std::wstring& root, const std::wstring& keyId,
                             const wchar_t* value) {
    return root + kUpdateKeysPath + keyId + L"\\" + value;
}

void CleanWorkspace() {
    if (!UtilCleanupWorkspace()) LogF(L"%s: cleanup failed", L"Util_UpdateDone");
}

void ApplyPreflightResult(UpdateRecord& record, RunResult rc, bool legacyWorkflow) {
    record.state = update_state::kDone;
    switch (rc) {
        case run_result::kPreflightUpdateInProgress:
        case run_result::kPreflightInsufficientDisk:
        case run_result::kPreflightFailed:
            record.result = L"PREFLIGHTCHECK_FAILURE";
            record.errorCode = Util_PreflightErrorName(rc);
            break;
        case run_result::kPreflightReboot:
            if (UtilTryAgain(kPreflightRebootRetryLimit)) {
                record.result = L"PREFLIGHTCHECK_INPROGRESS";
                record.state = update_state::kReady;
                record.forceReboot = true;
            } else {
                record.result = L"PREFLIGHTCHECK_FAILURE";
                record.errorCode = Util_PreflightErrorName(rc);
                record.retry = 0;
            }
            break;
        default:  // passed
            record.retry = 0;
            if (legacyWorkflow) {
                record.result = kResultOk;
                LogF(L"%s: preflightcheck check is done, legacy workflow is in use so updating "
                     L"state to READY",
                     L"Util_UpdateDone");
                record.state = update_state::kReady;
            } else {
                record.result = L"PREFLIGHTCHECK_OK";
            }
            Util_UpdatePreflightCheckCompleteReg(true);
            break;
    }
}

// True when the outcome ends the package's use, so that the workspace is to be cleaned.
bool ApplyInstallResult(UpdateRecord& record, RunResult rc) {
    LogF(L"%s: agent update result: %s", L"Util_UpdateDone", RunResultName(rc));
    switch (rc) {
        case run_result::kNoAgent:
            record.result = kResultOk;
            return true;
        case run_result::kFailure:
        case run_result::kLaunch:
            record.result = kResultFailure;
            return true;
        case run_result::kIncompatible:
            record.result = kResultInvalid;
            break;
        default:
            // Anything else (success included) leaves the update in progress behind a restart.
            if (UtilTryAgain(record.maxRetry)) {
                record.result = kResultProgress;
                record.forceReboot = true;
                LogF(L"%s: FORCE REBOOT", L"Util_UpdateDone");
            } else {
                record.result = kResultFailure;
            }
            break;
    }
    return false;
}

void ApplyDownloadResult(UpdateRecord& record) {
    if (record.result == kResultOk) return;
    if (UtilTryAgain(record.maxRetry)) {
        LogF(L"%s: wait for %d mins", L"Util_UpdateDone",
             static_cast<int>(record.retryWaitMs / 60000u));
        platform::SleepMilliseconds(record.retryWaitMs);
        LogF(L"%s: done waiting", L"Util_UpdateDone");
        record.state = update_state::kReady;
        record.result = kResultProgress;
    } else if (record.result == kResultFailure) {
        LogF(L"%s: Download failure crossed download retry limit", L"Util_UpdateDone");
        record.state = update_state::kDone;
    }
}

// Stores the record under one root, in the fixed order, stopping at the first failure.
bool WriteStateUnder(const std::wstring& root, const wchar_t* function) {
    UpdateRecord& record = ActiveUpdateRecord();
    if (record.keyId.empty() || !UtilGetActiveUpdate()) return false;

    if (record.forceReboot &&
        !RegWriteVolatileString(root + kNeedRebootMarkerPath, L"1")) {
        LogF(L"%s: failed to update NeedReboot in registry", function);
        return false;
    }

    struct Field {
        const wchar_t* value;
        std::wstring text;
        const wchar_t* failure;
    };
    const Field fields[] = {
        {L"STATE", stateStr(record.state), L"%s: Update key: %s failed to update Registry. state: %s"},
        {L"RESULT", record.result, L"%s: Update key: %s failed to update Registry. Result: %s"},
        {L"FILENAME", record.fileName, L"%s: Update key: %s failed to update Registry. filename: %s"},
        {L"ERRORCODE", record.errorCode, L"%s: Update key: %s failed to update Registry. filename: %s"},
        {L"ERRORDESC", record.errorDesc, L"%s: Update key: %s failed to update Registry. filename: %s"},
        {L"RETRY", std::to_wstring(record.retry), L"%s: Update key: %s failed to update Registry. retry: %s"},
    };
    for (const Field& field : fields) {
        if (!RegWriteValue(UpdateValuePath(root, record.keyId, field.value), field.text,
                           platform::regtype::kSz)) {
            LogF(field.failure, function, record.keyId, field.text);
            return false;
        }
    }
    return true;
}

}  // namespace

bool UtilTryAgain(std::int32_t limit) {
    UpdateRecord& record = ActiveUpdateRecord();
    // A count stored at the top of its range stays there: wrapping round would start the
    // attempts over.
    if (record.retry < INT32_MAX) ++record.retry;
    const bool again = record.retry <= limit;
    if (!again)
        LogF(L"%s: exceeded retry attempts: %d, max attempt allowed: %d", L"UtilTryAgain",
             record.retry, limit);
    LogF(L"%s: updating retry: %d, max attempt allowed: %d", L"UtilTryAgain", record.retry, limit);
    return again;
}

bool Util_UpdateDone(RunResult rc, bool legacyWorkflow) {
    UpdateRecord& record = ActiveUpdateRecord();
    LogF(L"%s: Updating state for result '%s', legacy workflow:'%d' ", L"Util_UpdateDone",
         RunResultName(rc), legacyWorkflow ? 1 : 0);

    bool packageDone = false;
    if (rc <= run_result::kPreflightOk && rc >= run_result::kPreflightUpdateInProgress) {
        ApplyPreflightResult(record, rc, legacyWorkflow);
    } else if (record.state == update_state::kUpdating) {
        packageDone = ApplyInstallResult(record, rc);
    } else if (record.state == update_state::kDownload) {
        ApplyDownloadResult(record);
    }

    const bool stored = UtilManageUpdateState();
    // Only once the outcome is written: a run ended between the two, or an outcome that could not
    // be stored, would otherwise leave UPDATING naming a package that is gone, which no later run
    // could install.
    if (packageDone && stored) CleanWorkspace();
    if (!stored) {
        LogF(L"%s: not ready to run update", L"Util_UpdateDone");
        return false;
    }
    return true;
}

bool UtilManageUpdateState() {
    static constexpr const wchar_t* kFunction = L"UtilManageUpdateState";
    UpdateRecord& record = ActiveUpdateRecord();
    LogF(L"%s: Update key: %s current state: %s result:%s", kFunction, record.keyId,
         stateStr(record.state), record.result);

    if (record.state == update_state::kDownload &&
        (record.result == kResultOk || record.result == kResultProgress)) {
        record.state = update_state::kWait;
    } else if (record.state == update_state::kUpdating && record.result == kResultOk) {
        record.state = update_state::kDone;
        record.retry = 0;
    } else if (record.state == update_state::kUpdating && record.result == kResultProgress) {
        record.state = update_state::kWait;
    }

    const bool current = UtilUpdateStateRegistry();
    const bool legacy = UtilUpdateStateRegistry_Legacy();
    if (!current && !legacy) {
        LogF(L"%s: registry update failed", kFunction);
        return false;
    }
    LogF(L"%s: Update key: %s new state: %s result: %s", kFunction, record.keyId,
         stateStr(record.state), record.result);
    return true;
}

bool UtilUpdateStateRegistry() {
    return WriteStateUnder(CurrentProductRoot(), L"UtilUpdateStateRegistry");
}

bool UtilUpdateStateRegistry_Legacy() {
    if (!ActiveUpdateRecord().legacyUpgradeDetected) {
        LogF(L"%s: No need to write to legacy Tessix key as not exist",
             L"UtilUpdateStateRegistry_Legacy");
        return true;
    }
    return WriteStateUnder(LegacyProductRoot(), L"UtilUpdateStateRegistry_Legacy");
}

bool Util_UpdatePreflightCheckCompleteReg(bool complete) {
    const UpdateRecord& record = ActiveUpdateRecord();
    const wchar_t* flag = complete ? L"1" : L"0";
    if (!record.keyId.empty() && RegWriteValue(UpdateValuePath(CurrentProductRoot(), record.keyId, L"PreflightCheckComplete"),
                      flag, platform::regtype::kDword))
        return true;
    LogF(L"%s: Update key: %s failed to update preflightcheckcomplete flag for value: %s",
         L"Util_UpdatePreflightCheckCompleteReg", record.keyId, flag);
    return false;
}
