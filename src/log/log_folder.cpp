#include "log/log_folder.h"

#include "core/text.h"
#include "state/registry.h"

std::wstring LogsRoot(LogsFallbackRoot fallbackRoot) {
    std::wstring root = RegReadString(CurrentProductRoot() + L"\\InstallLogsDir", L"");
    if (root.empty()) root = RegReadString(LegacyProductRoot() + L"\\InstallLogsDir", L"");
    if (root.empty()) root = fallbackRoot();
    return root;
}

std::wstring ToolLogFolder(LogsFallbackRoot fallbackRoot) {
    return core::PathJoin(LogsRoot(fallbackRoot), L"updatetool");
}
