#pragma once
// The folder of the run's log. The log is a static object built before wmain (app/main.cpp), and
// without InstallLogsDir its folder is the workspace's: computing the workspace then creates it and
// hands the content client the log's callback (download/workspace.h), so kesclient.dll is loaded
// before RunTool reads the kill switch.
#include <string>

// ToolLogFolder with the workspace as the fallback root.
std::wstring RunLogFolder();
