#include "core/preflight_error_name.h"

std::wstring Util_PreflightErrorName(RunResult code) {
    switch (code) {
        case run_result::kPreflightUpdateInProgress:
            return L"PREFLIGHT_ERR_WIN_UPDATE_INPROGRESS";
        case run_result::kPreflightInsufficientDisk:
            return L"PREFLIGHT_ERR_INSUFFICIENT_DISKSPACE";
        case run_result::kPreflightReboot:
            return L"PREFLIGHT_ERR_REBOOT_PENDING";
        default:
            return L"";
    }
}
