#include "app/entry.h"

#include "core/text.h"
#include "platform/clock.h"
#include "platform/system.h"
#include "report/tool_log.h"
#include "state/registry.h"
#include "state/update_record.h"

namespace {
constexpr const wchar_t* kFunction = L"wmain";
constexpr std::uint32_t kErrorAlreadyExists = 183;
}  // namespace

void WaitForPendingToolReboot() {
    bool pending = false;
    for (const std::wstring& root : {CurrentProductRoot(), LegacyProductRoot()}) {
        const auto marker =
            RegReadValue(root + L"\\Agent\\UpdateStatusVolatile\\NeedReboot", kAnyRegistryType);
        pending = pending || marker.type != -1;
    }
    if (!pending) return;
    LogF(L"%s: Reboot action triggered by Update tool is still pending, waiting for (%u) minutes "
         L"before proceeeding..",
         kFunction, kPendingRebootWaitMinutes);
    platform::SleepMilliseconds(kPendingRebootWaitMinutes * 60u * 1000u);
}

RunResult RunTool() {
    if (!ReadUpdateEnabled()) return run_result::kKillSwitch;

    if (platform::CreateNamedMutexHeldForLife(kSingleInstanceMutexName) == kErrorAlreadyExists) {
        std::uint32_t error = 0;
        LogF(L"%s duplicate instance, exit now\n", core::FileNameOf(platform::ProgramPath(error)));
        return run_result::kDuplicate;
    }

    // Once per run: the retry limits hold for every step that follows.
    ReadRetrySettings();

    WaitForPendingToolReboot();

    RunResult result = run_result::kFailure;
    // Set-up, preflight, download, install, state, telemetry and restart steps come here.

    LogF(L"%s: Updatetool rc = %s", kFunction, RunResultName(result));
    return result;
}
