#include <windows.h>

#include "platform/disk.h"

namespace platform {

std::uint32_t GetCurrentFolder(std::wstring& out) {
    wchar_t buffer[MAX_PATH];
    const DWORD count = ::GetCurrentDirectoryW(MAX_PATH, buffer);
    out = (count > 0 && count < MAX_PATH) ? std::wstring(buffer, count) : std::wstring();
    return count;
}

bool QueryDiskSpace(const std::wstring& path, DiskSpace& out) {
    ULARGE_INTEGER toCaller{};
    ULARGE_INTEGER total{};
    ULARGE_INTEGER totalFree{};
    if (!::GetDiskFreeSpaceExW(path.c_str(), &toCaller, &total, &totalFree)) return false;
    out.freeBytesToCaller = toCaller.QuadPart;
    out.totalBytes = total.QuadPart;
    out.totalFreeBytes = totalFree.QuadPart;
    return true;
}

}  // namespace platform
