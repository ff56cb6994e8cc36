#pragma once
// The Windows Update Agent, asked through COM whether an installation or uninstallation is
// running. The caller owns the apartment: ComInitializeMultithreaded before the query and
// ComUninitialize after it, so that the pairing stays visible (and testable) where it is decided.
#include <cstdint>

namespace platform {

// HRESULTs travel as signed 32-bit numbers; negative means failure.
using ComResult = std::int32_t;
constexpr bool ComFailed(ComResult result) {
    return result < 0;
}

// CoInitializeEx(nullptr, COINIT_MULTITHREADED).
ComResult ComInitializeMultithreaded();
// CoUninitialize.
void ComUninitialize();

struct UpdateInstallerBusy {
    ComResult createResult = 0;  // CoCreateInstance of the update installer
    ComResult isBusyResult = 0;  // get_IsBusy; only asked when the instance was created
    bool busy = false;           // the property's value; false unless both calls succeeded
};

// Creates the update installer (in process), reads IsBusy and releases the instance again.
// Needs an initialised apartment on the calling thread.
UpdateInstallerBusy QueryUpdateInstallerBusy();

}  // namespace platform
