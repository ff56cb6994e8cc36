// The preflight run: Windows Update activity with a bounded wait, free disk space, then the
// registry-driven checks and the reboot-pending probe, condensed into one result.
#include "preflight/preflight_checks.h"

#include "platform/clock.h"
#include "platform/disk.h"
#include "platform/system.h"
#include "platform/windows_update.h"
#include "preflight/registry_checks.h"
#include "log/tool_log.h"

namespace preflight {
namespace {

// One apartment per query, so that nothing COM-related outlives it. CoUninitialize runs on every
// path, also when CoInitializeEx failed: a failed initialisation then shows as a failed creation.
class QueryApartment {
public:
    QueryApartment() { platform::ComInitializeMultithreaded(); }
    ~QueryApartment() { platform::ComUninitialize(); }
    QueryApartment(const QueryApartment&) = delete;
    QueryApartment& operator=(const QueryApartment&) = delete;
};

// Checks again up to kWindowsUpdateMaxAttempts times. The first check follows at once; there is
// no sleep after the last one, although its line still announces the interval. True once
// Windows Update is idle.
bool WaitForWindowsUpdateToComplete() {
    static const wchar_t* const kFunction = L"App::waitForWindowsUpdateToComplete";
    LogF(L"%s: Waiting for wait timeout= %u mins, waitInterval= %u ms, maxAttempts=%u", kFunction,
         kWindowsUpdateWaitTimeoutMinutes, kWindowsUpdateWaitIntervalMs, kWindowsUpdateMaxAttempts);
    for (std::uint32_t attempt = 1; attempt <= kWindowsUpdateMaxAttempts; ++attempt) {
        if (!isWindowsUpdateInProgress()) {
            LogF(L"%s: Windows update installation is completed, exiting..", kFunction);
            return true;
        }
        // Log patterns stay whole, so that a logged line leads to its code.
        // clang-format off
        LogF(L"%s: Windows update installation is still in progress - will wait for (%u) milliseconds for next check, attempt (%u)",
             kFunction, kWindowsUpdateWaitIntervalMs, attempt);
        // clang-format on
        if (attempt < kWindowsUpdateMaxAttempts)
            platform::SleepMilliseconds(kWindowsUpdateWaitIntervalMs);
    }
    return false;
}

}  // namespace

RunResult performPreflightChecks() {
    static const wchar_t* const kFunction = L"App::performPreflightChecks";
    LogF(L"%s: begin..", kFunction);

    if (isWindowsUpdateInProgress()) {
        // clang-format off
        LogF(L"%s: Windows updates are running, will wait for configured timeout for windows updates to complete",
             kFunction);
        // clang-format on
        if (!WaitForWindowsUpdateToComplete()) {
            LogF(L"%s: Windows updates are still running, exiting", kFunction);
            return run_result::kPreflightUpdateInProgress;
        }
    }

    if (!isDiskspaceSufficientForUpdate()) {
        LogF(L"%s: Disk space is not suffcient", kFunction);
        return run_result::kPreflightInsufficientDisk;
    }

    const PreflightActionSet actions = performRegistryBasedChecks();
    for (const std::wstring& action : actions)
        LogF(L"%s: preflight final actions: [%s]", kFunction, action);
    if (actions.count(kActionError)) return run_result::kPreflightFailed;
    if (actions.count(kActionReboot)) return run_result::kPreflightReboot;
    // Only asked when no check has already decided the outcome.
    return isRebootPending() ? run_result::kPreflightReboot : run_result::kPreflightOk;
}

bool isWindowsUpdateInProgress() {
    static const wchar_t* const kFunction = L"App::isWindowsUpdateInProgress";
    QueryApartment apartment;
    const platform::UpdateInstallerBusy answer = platform::QueryUpdateInstallerBusy();
    // An agent that cannot be reached or asked never holds the update back.
    if (platform::ComFailed(answer.createResult)) {
        LogF(L"%s: Failed to get IUpdateInstallerInterface, error = [%ld]", kFunction,
             answer.createResult);
        return false;
    }
    if (platform::ComFailed(answer.isBusyResult)) {
        LogF(L"%s: Unable to retrieve IsBusy property, error = [%ld]", kFunction,
             answer.isBusyResult);
        return false;
    }
    if (answer.busy) {
        LogF(L"%s: Windows updates installation or uninstallation is in progress at this time",
             kFunction);
        return true;
    }
    LogF(L"%s: Windows updates are not running at this time", kFunction);
    return false;
}

bool isDiskspaceSufficientForUpdate() {
    static const wchar_t* const kFunction = L"App::isDiskspaceSufficientForUpdate";
    // Not knowing where we are or how much room there is counts as enough room.
    std::wstring directory;
    if (platform::GetCurrentFolder(directory) == 0) {
        LogF(L"%s: unable to fetch current directory path, error [%lu]", kFunction,
             platform::LastError());
        return true;
    }
    LogF(L"%s: current directory =  [%s]", kFunction, directory);

    platform::DiskSpace space;
    if (!platform::QueryDiskSpace(directory, space)) {
        LogF(L"%s: Failed to check diskspace, error  [%lu]", kFunction, platform::LastError());
        return true;
    }
    LogF(L"%s: Total Disk space= [%llu] GB, Free disk space = [%llu] GB", kFunction,
         space.totalBytes >> 30, space.totalFreeBytes >> 30);
    // The whole volume's free space, not the caller's quota share.
    if (space.totalFreeBytes >= kMinimumFreeDiskBytes) return true;
    LogF(L"%s: Insufficient disk space, disk space = [%llu] MB", kFunction,
         space.totalFreeBytes >> 20);
    return false;
}

}  // namespace preflight
