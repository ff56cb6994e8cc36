#pragma once
// Files and folders. Failures set the thread's last error (platform/system.h) and return false.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/system.h"

namespace platform {

// GetTempPath2W where the system has it (for SYSTEM a folder that other accounts cannot write to),
// else GetTempPathW, with a buffer of 260 characters: returns the API's own count (0 on failure,
// more than 260 when the path did not fit, in which case out is empty).
std::uint32_t GetTempFolder(std::wstring& out);

// GetFileAttributesW != INVALID_FILE_ATTRIBUTES.
bool PathExists(const std::wstring& path);
bool CreateFolder(const std::wstring& path);

// Creates a folder that only SYSTEM and the Administrators can open, whatever its parent allows:
// a protected DACL whose entries the files and folders created in it inherit.
bool CreatePrivateFolder(const std::wstring& path);

// An existing folder as SecureExistingFolder found it. It is opened without following a link, so
// a junction or symbolic link planted in its place is reported, never entered.
struct ExistingFolder {
    bool isFolder = false;  // a directory, not a file
    bool isLink = false;    // a reparse point: junction, symbolic link, mount point
    ObjectOwner owner;
    std::uint32_t secureError = 0;  // non-zero: giving it the private DACL failed with this
};

// Who may own a workspace the tool keeps using: what they could change, this process could do.
inline bool TrustedFolderOwner(OwnerKind kind) {
    return kind == OwnerKind::kSystem || kind == OwnerKind::kAdministrators ||
           kind == OwnerKind::kThisAccount;
}

// Reports what the path is and who owns it; a plain folder with a trusted owner is then given the
// DACL of CreatePrivateFolder (one made by an older version may be open to everyone). Empty (last
// error set) when the path cannot be opened.
std::optional<ExistingFolder> SecureExistingFolder(const std::wstring& path);

// MoveFileExW without replacing: a link is moved itself, never what it points to.
bool MovePath(const std::wstring& from, const std::wstring& to);
bool DeleteFilePath(const std::wstring& path);

// Creates or truncates the file (no sharing while open) and writes the bytes in full. On failure
// the last error is the failing call's.
bool WriteWholeFile(const std::wstring& path, const std::vector<std::uint8_t>& bytes);
std::optional<std::vector<std::uint8_t>> ReadWholeFile(const std::wstring& path);

// Opens the file for reading without sharing, creating it empty when missing (OPEN_ALWAYS), maps
// it read-only and hands the mapped bytes to `use`. False (last error set) when any step fails;
// an empty file cannot be mapped and fails too. Everything is released before it returns.
template <typename F>
bool WithFileMappedCreatingIfMissing(const std::wstring& path, F&& use);
bool MapFileCreatingIfMissing(const std::wstring& path,
                              void (*use)(const std::uint8_t* data, std::size_t size, void* context),
                              void* context);

// Opens the file for writing (FILE_SHARE_WRITE, OPEN_ALWAYS) and writes the bytes from offset 0 in
// one write. Whatever the file held beyond them stays: it is not truncated.
bool WriteFileFromStart(const std::wstring& path, const std::vector<std::uint8_t>& bytes);

template <typename F>
bool WithFileMappedCreatingIfMissing(const std::wstring& path, F&& use) {
    return MapFileCreatingIfMissing(
        path,
        [](const std::uint8_t* data, std::size_t size, void* context) {
            (*static_cast<F*>(context))(data, size);
        },
        &use);
}

}  // namespace platform
