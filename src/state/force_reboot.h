#pragma once
// The process-wide force-reboot flag: an installer (or the state transitions) asked for a restart
// that the end of the run must carry out. It starts cleared and lives until the process exits.
//
// Update record: reads and writes forceReboot (the flag is that field).

void SetForceReboot(bool force);
bool ForceReboot();
