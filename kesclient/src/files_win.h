#pragma once
// File-system helpers of the content client: paths, small files, atomic replacement, removal of
// trees that never follows a link out of them.
#include <windows.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace kesclient {

std::wstring JoinPath(const std::wstring& folder, std::wstring_view name);

// The absolute form of path, with the \\?\ prefix when it is long enough to need it, so that deep
// archive entries are not limited to MAX_PATH.
std::wstring FullPath(const std::wstring& path);

bool IsDirectory(const std::wstring& path);
bool Exists(const std::wstring& path);

// Creates the folder and its missing parents.
bool EnsureDirectory(const std::wstring& path);

// The whole file when it holds at most limit bytes.
bool ReadSmallFile(const std::wstring& path, std::size_t limit, std::string* contents);

// Writes beside the target and renames over it, so that a reader sees the old or the new text.
bool ReplaceFileContents(const std::wstring& path, std::string_view contents);

bool RemoveFile(const std::wstring& path);  // true when it is gone, also when it never was

// Deletes a folder and everything in it. Links and junctions inside are removed, never entered.
bool RemoveTree(const std::wstring& path);

}  // namespace kesclient
