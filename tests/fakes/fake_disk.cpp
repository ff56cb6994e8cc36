#include "fake_platform.h"
#include "platform/disk.h"

namespace platform {

std::uint32_t GetCurrentFolder(std::wstring& out) {
    constexpr std::uint32_t kBufferLength = 260;
    const auto& state = fake::State();
    out.clear();
    if (state.currentDirectoryError != 0) {
        fake::State().lastError = state.currentDirectoryError;
        return 0;
    }
    const auto length = static_cast<std::uint32_t>(state.currentDirectory.size());
    if (length >= kBufferLength) return length + 1;  // the size it would need, terminator included
    out = state.currentDirectory;
    return length;
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
