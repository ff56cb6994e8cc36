#pragma once
// The run's last act: a forced restart of the machine when the update asked for one.
//
// Update record: reads forceReboot, result, retry, retryWaitMs; writes nothing.

// Restarts the machine when the force-reboot flag is set: after RETRY x RetryWaitPeriod
// milliseconds, except for a preflight run whose RESULT is "PREFLIGHTCHECK_INPROGRESS" (no wait).
void Util_CheckReboot();

// Enables the shutdown privilege and asks for a forced restart; true when it was initiated.
bool RebootSystem();
