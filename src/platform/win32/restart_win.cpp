#include "platform/restart.h"

#include <windows.h>

#include "platform/win32/handles.h"

namespace platform {

RestartOutcome RestartMachine() {
    win32::UniqueKernelHandle token;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, token.put()))
        return RestartOutcome::kOpenTokenFailed;

    TOKEN_PRIVILEGES privileges{};
    privileges.PrivilegeCount = 1;
    privileges.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
    // A failed lookup leaves a zero LUID, which the adjustment then refuses.
    ::LookupPrivilegeValueW(nullptr, SE_SHUTDOWN_NAME, &privileges.Privileges[0].Luid);
    if (!::AdjustTokenPrivileges(token.get(), FALSE, &privileges, 0, nullptr, nullptr))
        return RestartOutcome::kAdjustTokenFailed;
    token.reset();

    return ::ExitWindowsEx(EWX_REBOOT | EWX_FORCE | EWX_FORCEIFHUNG, 0)
               ? RestartOutcome::kInitiated
               : RestartOutcome::kRestartRefused;
}

}  // namespace platform
