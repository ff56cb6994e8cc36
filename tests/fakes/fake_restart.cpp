#include "fake_platform.h"
#include "platform/restart.h"

namespace platform {

RestartOutcome RestartMachine() {
    ++fake::State().restartRequests;
    return fake::State().restartOutcome;
}

}  // namespace platform
