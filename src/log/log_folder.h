#pragma once
// Where the tool's log and its telemetry file go. The logs root is a registry setting; without it
// the caller's fallback (the workspace) is asked, and only then, since computing the workspace has
// effects of its own (see download/workspace.h).
//
// Registry values read here:
//   HKLM\Software\Quorvane\Lumenar\InstallLogsDir          REG_SZ  logs root (optional)
//   HKLM\Software\Tessix, Inc.\Tessix KDX\InstallLogsDir   REG_SZ  legacy logs root (optional)
#include <string>

using LogsFallbackRoot = std::wstring (*)();

// InstallLogsDir of the current product key, else of the legacy one, else fallbackRoot().
std::wstring LogsRoot(LogsFallbackRoot fallbackRoot);

// The folder the log file goes into ("<logs root>\updatetool").
std::wstring ToolLogFolder(LogsFallbackRoot fallbackRoot);
