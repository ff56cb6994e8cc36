#include "agent/force_reboot.h"

namespace {
bool g_forceReboot = false;  // the tool is single-threaded
}  // namespace

void SetForceReboot(bool force) {
    g_forceReboot = force;
}
bool ForceReboot() {
    return g_forceReboot;
}
