// Program entry of updatetool.exe. The tool log is a static object so that it exists before
// wmain runs and writes its end banner after wmain has returned.
#include "agent/agent.h"
#include "app/entry.h"
#include "app/run_log.h"
#include "log/tool_log.h"

namespace {
ToolLog g_toolLog(&RunLogFolder);
// Declared after the log (same translation unit, so initialised after it): the host line lands in
// the log of every run, whichever step the run takes.
[[maybe_unused]] const bool g_hostX64 = Agent::IsHostX64();
}  // namespace

int wmain(int, wchar_t**) { return RunTool(); }
