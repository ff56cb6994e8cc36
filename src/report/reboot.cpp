#include "report/reboot.h"

#include "platform/clock.h"
#include "platform/restart.h"
#include "log/tool_log.h"
#include "state/update_record.h"

bool RebootSystem() {
    switch (platform::RestartMachine()) {
        case platform::RestartOutcome::kInitiated:
            return true;
        case platform::RestartOutcome::kOpenTokenFailed:
            Log(L"Unable to open process token for self");
            return false;
        case platform::RestartOutcome::kAdjustTokenFailed:
            Log(L"Unable to adjust token privileges");
            return false;
        case platform::RestartOutcome::kRestartRefused:
            return false;
    }
    return false;
}

void Util_CheckReboot() {
    const UpdateRecord& record = ActiveUpdateRecord();
    if (!record.forceReboot) return;
    // A preflight run that found a restart pending restarts at once; anything else waits first,
    // longer with every attempt.
    if (record.result != L"PREFLIGHTCHECK_INPROGRESS") {
        LogF(L"%s: wait for a while", L"Util_CheckReboot");
        // A 32-bit product, as the wait has always been computed.
        const std::uint32_t wait = static_cast<std::uint32_t>(record.retry) * record.retryWaitMs;
        platform::SleepMilliseconds(wait);
        LogF(L"%s: done waiting", L"Util_CheckReboot");
    }
    Log(RebootSystem() ? L"Initiated system reboot successfully." : L"REBOOT FAILED");
}
