#include "app/entry.h"

#include <exception>
#include <new>

#include "app/app.h"
#include "download/download.h"
#include "download/workspace.h"
#include "core/text.h"
#include "platform/clock.h"
#include "platform/system.h"
#include "report/reboot.h"
#include "report/telemetry.h"
#include "log/tool_log.h"
#include "state/registry.h"
#include "state/state_transitions.h"
#include "state/update_record.h"

namespace {
constexpr const wchar_t* kFunction = L"wmain";
constexpr std::uint32_t kErrorAlreadyExists = 183;
constexpr std::uint32_t kErrorAccessDenied = 5;
constexpr std::uint32_t kErrorSharingViolation = 32;
constexpr const wchar_t* kLockFile = L"updatetool.lock";

// A real second run is SYSTEM or an administrator (or this very account). An owner that cannot be
// read counts as one too: Wine reports none at all.
bool HeldByAnotherRun(const platform::ObjectOwner& owner) {
    return owner.kind != platform::OwnerKind::kOtherAccount;
}

void LogDuplicate() {
    std::uint32_t error = 0;
    LogF(L"%s duplicate instance, exit now\n", core::FileNameOf(platform::ProgramPath(error)));
}

// Instead of the mutex that someone else took: a file in the workspace, where only SYSTEM and
// the Administrators can create files, held open without sharing for the rest of the run.
bool TakeLockFile() {
    const std::wstring lock = core::PathJoin(GetWorkspace(), kLockFile);
    if (platform::HoldLockFileForLife(lock)) return true;
    const std::uint32_t error = platform::LastError();
    if (error == kErrorSharingViolation)
        LogDuplicate();
    else
        LogF(L"%s: cannot take the instance lock %s, exit now: %s", kFunction, lock,
             platform::SystemMessage(error));
    return false;
}

// The single-instance mutex and the lock file, or the lock file alone when another account
// squats the mutex's name.
bool TakeSingleInstance() {
    const platform::InstanceMutex mutex = platform::CreateNamedMutexHeldForLife(kSingleInstanceMutexName);
    if (mutex.error == kErrorAlreadyExists) {
        if (HeldByAnotherRun(mutex.owner)) {
            LogDuplicate();
            return false;
        }
        LogF(L"%s: the instance mutex is held by %s, no run of this tool: taking the lock file "
             L"instead",
             kFunction, mutex.owner.account);
        return TakeLockFile();
    }
    if (mutex.error == kErrorAccessDenied) {
        LogF(L"%s: the instance mutex cannot be opened (another account made it): taking the lock "
             L"file instead",
             kFunction);
        return TakeLockFile();
    }
    // Ours. A run that took the lock file while another account squatted the name may still be
    // going after the name came free: hold the lock file too, so that either finds the other.
    // Without a workspace, or for any other refusal, the mutex alone has to do.
    const std::wstring workspace = GetWorkspace();
    if (workspace.empty() || platform::HoldLockFileForLife(core::PathJoin(workspace, kLockFile)) ||
        platform::LastError() != kErrorSharingViolation)
        return true;
    LogDuplicate();
    return false;
}

// The package has been checked against the host and the installed agents: install it.
RunResult Install(App& app) {
    if (!app.CheckPlatform()) return run_result::kIncompatible;
    if (!app.CheckVersion()) return run_result::kNoAgent;
    return app.Update();
}

// Runs one part of the sequence so that a fault inside it (text the registry handed us that is no
// valid UTF-16, a document of an unexpected shape) ends that part with a log line instead of the
// process: the closing steps still record the outcome.
template <typename Step>
void Guarded(const wchar_t* what, Step&& step) {
    try {
        step();
    } catch (const std::bad_alloc&) {
        throw;  // out of memory: nothing sensible is left to do
    } catch (const std::exception& error) {
        std::wstring reason;
        for (const char* c = error.what(); *c; ++c)
            reason.push_back(static_cast<unsigned char>(*c) < 0x80 ? static_cast<wchar_t>(*c) : L'?');
        LogF(L"%s: %s failed: %s", kFunction, what, reason);
    }
}

// One step forward: the preflight checks, or the download, or (already downloaded) the install.
RunResult RunStep(App& app) {
    if (app.preflight) {
        if (!(app.legacyWorkflow && ReadPreflightCheckComplete()))
            return app.performPreflightChecks();
        LogF(L"%s: legacy workflow in use and preflight check is already completed, skipping it "
             L"for relaunch",
             kFunction);
    }
    // A download run ends here; its outcome is in RESULT.
    if (!Util_DoDownload()) return run_result::kFailure;
    return Install(app);
}
}  // namespace

void WaitForPendingToolReboot() {
    bool pending = false;
    for (const std::wstring& root : {CurrentProductRoot(), LegacyProductRoot()}) {
        const auto marker =
            RegReadValue(root + kNeedRebootMarkerPath, kAnyRegistryType);
        pending = pending || marker.type != -1;
    }
    if (!pending) return;
    LogF(L"%s: Reboot action triggered by Update tool is still pending, waiting for (%u) minutes "
         L"before proceeeding..",
         kFunction, kPendingRebootWaitMinutes);
    platform::SleepMilliseconds(kPendingRebootWaitMinutes * 60u * 1000u);
}

RunResult RunTool() {
    // Before anything loads a DLL by name (the content client, COM servers, the installer API).
    if (!platform::RestrictDllSearch())
        LogF(L"%s: cannot restrict the DLL search to System32 and the program folder: %s",
             kFunction, platform::SystemMessage(platform::LastError()));
    if (!ReadUpdateEnabled()) return run_result::kKillSwitch;

    if (!TakeSingleInstance()) return run_result::kDuplicate;

    // Once per run: the retry limits hold for every step that follows.
    ReadRetrySettings();

    WaitForPendingToolReboot();

    RunResult result = run_result::kFailure;
    App app;
    Guarded(L"update step", [&] {
        if (app.Setup()) result = RunStep(app);
    });

    // Whatever happened, the outcome is recorded; failures here never change the result.
    Guarded(L"state update", [&] {
        if (!Util_UpdateDone(result, app.legacyWorkflow))
            LogF(L"%s: failed to save the update state", kFunction);
    });
    Guarded(L"telemetry", [&] {
        if (!Util_UpdateDataForTelemetry())
            LogF(L"%s: failed to save the telemetry data", kFunction);
    });
    Guarded(L"clean-up", [&] { app.Cleanup(); });
    Guarded(L"restart check", [&] { Util_CheckReboot(); });

    LogF(L"%s: Updatetool rc = %s", kFunction, RunResultName(result));
    return result;
}
