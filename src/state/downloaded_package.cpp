#include "state/downloaded_package.h"

#include "log/tool_log.h"
#include "platform/files.h"
#include "platform/system.h"

namespace {

std::wstring& DownloadedFile() {
    static std::wstring path;
    return path;
}

}  // namespace

void SetDownloadedFilePath(const std::wstring& path) { DownloadedFile() = path; }
std::wstring DownloadedFilePath() { return DownloadedFile(); }

bool UtilCleanupWorkspace() {
    const std::wstring& file = DownloadedFile();
    if (file.empty()) return true;
    if (platform::DeleteFilePath(file)) return true;
    const std::uint32_t error = platform::LastError();
    LogF(L"%s: delete failed: %s error: %s", L"UtilCleanupWorkspace", file,
         platform::SystemMessage(error));
    return false;
}
