#pragma once
// The process's current directory and the space on the volume that holds it. Failures set the
// thread's last error (platform/system.h).
#include <cstdint>
#include <string>

namespace platform {

// GetCurrentDirectoryW with a buffer of 260 characters: returns the API's own count (0 on failure,
// more than 260 when the path did not fit, in which case out is empty).
std::uint32_t GetCurrentFolder(std::wstring& out);

struct DiskSpace {
    std::uint64_t freeBytesToCaller = 0;  // honours the caller's quota
    std::uint64_t totalBytes = 0;
    std::uint64_t totalFreeBytes = 0;  // the whole volume, quotas aside
};

// GetDiskFreeSpaceExW for the volume that holds the path.
bool QueryDiskSpace(const std::wstring& path, DiskSpace& out);

}  // namespace platform
