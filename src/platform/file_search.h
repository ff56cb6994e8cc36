#pragma once
// Wildcard search in one folder.
#include <cstdint>
#include <string>
#include <vector>

namespace platform {

// FindFirstFileW/FindNextFileW: the names (without folder) of every entry matching the pattern
// ("C:\dir\prefix*"), files and folders alike, in the order the file system returns them.
// Returns 0, or FindFirstFileW's error (2 when nothing matches, 3 when the folder is missing) with
// names empty. The enumeration simply ends at FindNextFileW's first failure.
std::uint32_t FindFiles(const std::wstring& pattern, std::vector<std::wstring>& names);

}  // namespace platform
