#pragma once
// The error name a finished preflight run records for its result.
#include <string>

#include "core/run_result.h"

// -13 "PREFLIGHT_ERR_WIN_UPDATE_INPROGRESS", -12 "PREFLIGHT_ERR_INSUFFICIENT_DISKSPACE",
// -11 "PREFLIGHT_ERR_REBOOT_PENDING"; every other code, -10 (a check asked for "ERROR") and -9
// included, has no name and gives an empty string.
std::wstring Util_PreflightErrorName(RunResult code);
