// Program entry of updatetool.exe. The tool log is a static object so that it exists before
// wmain runs and writes its end banner after wmain has returned.
#include "app/entry.h"
#include "app/run_log.h"
#include "log/tool_log.h"

namespace {
ToolLog g_toolLog(&RunLogFolder);
}  // namespace

int wmain(int, wchar_t**) { return RunTool(); }
