// The preflight run is a step of App like the others, but it needs nothing of App: the checks live
// in the preflight module as free functions.
#include "app/app.h"
#include "preflight/preflight_checks.h"

RunResult App::performPreflightChecks() { return preflight::performPreflightChecks(); }
