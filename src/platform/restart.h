#pragma once
// Restarting the machine: enable the shutdown privilege of the process token, then ask for a
// forced restart (EWX_REBOOT | EWX_FORCE | EWX_FORCEIFHUNG, reason 0).

namespace platform {

enum class RestartOutcome {
    kInitiated,           // the system accepted the restart request
    kOpenTokenFailed,     // the process token could not be opened to adjust privileges
    kAdjustTokenFailed,   // the shutdown privilege could not be enabled
    kRestartRefused,      // the system refused the restart
};

RestartOutcome RestartMachine();

}  // namespace platform
