#include "state/force_reboot.h"

#include "state/update_record.h"

// The flag lives in the update record, where the state writers and the restart step read it.
void SetForceReboot(bool force) { ActiveUpdateRecord().forceReboot = force; }
bool ForceReboot() { return ActiveUpdateRecord().forceReboot; }
