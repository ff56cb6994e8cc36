#pragma once
// The result code of one run, also the process exit code.
#include <cstdint>
#include <string>

using RunResult = std::int32_t;

namespace run_result {
constexpr RunResult kSuccess = 0;                         // "ERR_SUCCESS"
constexpr RunResult kFailure = -1;                        // "ERR_FAILURE"
constexpr RunResult kKillSwitch = -2;                     // "ERR_KILLSWITCH"
constexpr RunResult kDuplicate = -3;                      // "ERR_DUPLICATE"
constexpr RunResult kNoAgent = -4;                        // "ERR_NOAGENT"
constexpr RunResult kLaunch = -5;                         // "ERR_LAUNCH"
constexpr RunResult kIncompatible = -6;                   // "ERR_INCOMPATIBLE"
constexpr RunResult kReboot = -7;                         // "ERR_REBOOT"
// -8 stays unnamed: the preflight codes keep their numbers.
constexpr RunResult kPreflightOk = -9;                    // "ERR_PREFLIGHTCHECK_OK"
constexpr RunResult kPreflightFailed = -10;               // "ERR_PREFLIGHTCHECK_FAILED"
constexpr RunResult kPreflightReboot = -11;               // "ERR_PREFLIGHTCHECK_REBOOT"
constexpr RunResult kPreflightInsufficientDisk = -12;     // "ERR_PREFLIGHTCHECK_INSUFFICIENT_DISK"
constexpr RunResult kPreflightUpdateInProgress = -13;     // "ERR_PREFLIGHTCHECK_UPDATE_INPROGRESS"
}  // namespace run_result

// The name the log prints for a code; "Update ERR_<code>" for -8 and codes outside -13..0.
std::wstring RunResultName(RunResult code);
