#pragma once
// Files and folders. Failures set the thread's last error (platform/system.h) and return false.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace platform {

// GetTempPathW with a buffer of 260 characters: returns the API's own count (0 on failure, more
// than 260 when the path did not fit, in which case out is empty).
std::uint32_t GetTempFolder(std::wstring& out);

// GetFileAttributesW != INVALID_FILE_ATTRIBUTES.
bool PathExists(const std::wstring& path);
bool CreateFolder(const std::wstring& path);
bool DeleteFilePath(const std::wstring& path);

// Creates or truncates the file (no sharing while open) and writes the bytes in full.
bool WriteWholeFile(const std::wstring& path, const std::vector<std::uint8_t>& bytes);
std::optional<std::vector<std::uint8_t>> ReadWholeFile(const std::wstring& path);

}  // namespace platform
