#pragma once
// The package the download step fetched into the workspace, remembered for the run, so that the
// state transitions can delete it once the outcome that no longer needs it is stored.
#include <string>

// The full path of the package the download step fetched; empty when none.
void SetDownloadedFilePath(const std::wstring& path);
std::wstring DownloadedFilePath();

// Deletes the downloaded package; true when there was none or it is gone.
bool UtilCleanupWorkspace();
