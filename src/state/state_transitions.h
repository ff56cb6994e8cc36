#pragma once
// The end of every run: the run's result turns into the update's next state, result text, retry
// count, error texts and restart request, stored under the update key of the current root and,
// for an upgrade from the former product, of the legacy root too.
//
// Written under ROOT\Agent\Update\<id>\ (REG_SZ, in this order): STATE, RESULT, FILENAME,
// ERRORCODE, ERRORDESC, RETRY; PreflightCheckComplete (REG_DWORD, current root only) after a
// passed preflight run; ROOT\Agent\UpdateStatusVolatile\NeedReboot "1" (volatile key) when a
// restart is due. The tool itself only ever sets the states READY, WAIT and DONE.
//
// RESULT texts: "OK", "PROGRESS", "FAILURE", "INVALID", "PREFLIGHTCHECK_OK",
// "PREFLIGHTCHECK_FAILURE", "PREFLIGHTCHECK_INPROGRESS".
//
// Update record: reads keyId, legacyUpgradeDetected, fileName, errorDesc, maxRetry, retryWaitMs;
// reads and writes state, result, errorCode, retry, forceReboot.
#include <cstdint>

#include "core/run_result.h"

// How many times a pending restart may send a preflight run back to READY, whatever
// MAXDOWNLOADANDUPGRADERETRY says.
inline constexpr std::int32_t kPreflightRebootRetryLimit = 2;

// Moves the active update on from this run's result and stores it. False only when the registry
// could not be written (the record in memory keeps the new values).
bool Util_UpdateDone(RunResult rc, bool legacyWorkflow);

// Counts one more attempt; false once the count passes the limit (the count is not reset here).
bool UtilTryAgain(std::int32_t limit);

// Applies the state table for the current state and RESULT and stores the record under both roots.
bool UtilManageUpdateState();

// Store the record under the current and under the legacy root (the latter only for an upgrade
// from the former product; otherwise it succeeds without writing).
bool UtilUpdateStateRegistry();
bool UtilUpdateStateRegistry_Legacy();

// PreflightCheckComplete of the update key under the current root, as REG_DWORD 1 or 0.
bool Util_UpdatePreflightCheckCompleteReg(bool complete);
