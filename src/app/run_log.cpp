#include "app/run_log.h"

#include "download/workspace.h"
#include "log/log_folder.h"

std::wstring RunLogFolder() { return ToolLogFolder(&GetWorkspace); }
