#include "fake_platform.h"
#include "platform/disk.h"

namespace platform {

std::uint32_t GetCurrentFolder(std::wstring& out) {
    const auto& state = fake::State();
    out.clear();
    if (state.currentDirectoryError != 0) {
        fake::State().lastError = state.currentDirectoryError;
        return 0;
    }
    out = state.currentDirectory;
    return static_cast<std::uint32_t>(out.size());
}

bool QueryDiskSpace(const std::wstring& path, DiskSpace& out) {
    auto& state = fake::State();
    state.diskSpaceQueries.push_back(path);
    if (state.diskSpaceError != 0) {
        state.lastError = state.diskSpaceError;
        return false;
    }
    out = state.diskSpace;
    return true;
}

}  // namespace platform
