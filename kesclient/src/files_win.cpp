#include "files_win.h"

#include <vector>

#include "handles_win.h"

namespace kesclient {

std::wstring JoinPath(const std::wstring& folder, std::wstring_view name) {
    if (folder.empty()) return std::wstring(name);
    std::wstring joined = folder;
    if (joined.back() != L'\\' && joined.back() != L'/') joined.push_back(L'\\');
    joined.append(name);
    return joined;
}

std::wstring FullPath(const std::wstring& path) {
    if (path.starts_with(L"\\\\?\\")) return path;
    const DWORD size = ::GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
    if (size == 0) return path;
    std::wstring full(size, L'\0');
    const DWORD length = ::GetFullPathNameW(path.c_str(), size, full.data(), nullptr);
    if (length == 0 || length >= size) return path;
    full.resize(length);
    if (full.size() < MAX_PATH - 12) return full;
    if (full.starts_with(L"\\\\")) return L"\\\\?\\UNC\\" + full.substr(2);
    return L"\\\\?\\" + full;
}

bool IsDirectory(const std::wstring& path) {
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

bool Exists(const std::wstring& path) {
    return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

bool EnsureDirectory(const std::wstring& path) {
    if (path.empty()) return false;
    if (IsDirectory(path)) return true;
    const std::size_t slash = path.find_last_of(L"\\/");
    if (slash != std::wstring::npos && slash > 0) {
        const std::wstring parent = path.substr(0, slash);
        // Stop at a drive root ("C:") or the \\?\ prefix: those exist or cannot be made.
        if (!(parent.size() == 2 && parent[1] == L':') && !parent.ends_with(L"\\\\?") &&
            !EnsureDirectory(parent)) {
            return false;
        }
    }
    return ::CreateDirectoryW(path.c_str(), nullptr) || ::GetLastError() == ERROR_ALREADY_EXISTS;
}

bool ReadSmallFile(const std::wstring& path, std::size_t limit, std::string* contents) {
    UniqueFileHandle file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) return false;
    LARGE_INTEGER size{};
    if (!::GetFileSizeEx(file.get(), &size) || size.QuadPart < 0 ||
        static_cast<std::uint64_t>(size.QuadPart) > limit) {
        ::SetLastError(ERROR_FILE_TOO_LARGE);
        return false;
    }
    contents->assign(static_cast<std::size_t>(size.QuadPart), '\0');
    std::size_t done = 0;
    while (done < contents->size()) {
        DWORD read = 0;
        if (!::ReadFile(file.get(), contents->data() + done,
                        static_cast<DWORD>(contents->size() - done), &read, nullptr)) {
            return false;
        }
        if (read == 0) break;
        done += read;
    }
    contents->resize(done);
    return true;
}

bool ReplaceFileContents(const std::wstring& path, std::string_view contents) {
    const std::wstring temporary = path + L".new";
    {
        UniqueFileHandle file(::CreateFileW(temporary.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!file) return false;
        DWORD written = 0;
        if (!::WriteFile(file.get(), contents.data(), static_cast<DWORD>(contents.size()), &written,
                         nullptr) ||
            written != contents.size() || !::FlushFileBuffers(file.get())) {
            file.reset();
            ::DeleteFileW(temporary.c_str());
            return false;
        }
    }
    if (::MoveFileExW(temporary.c_str(), path.c_str(),
                      MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
        return true;
    }
    ::DeleteFileW(temporary.c_str());
    return false;
}

bool RemoveFile(const std::wstring& path) {
    if (::DeleteFileW(path.c_str())) return true;
    const DWORD error = ::GetLastError();
    if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) return true;
    if (error == ERROR_ACCESS_DENIED) {
        // A read-only file: clear the attribute and try once more.
        ::SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
        return ::DeleteFileW(path.c_str()) != FALSE;
    }
    return false;
}

bool RemoveTree(const std::wstring& path) {
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) return true;
    if (!(attributes & FILE_ATTRIBUTE_DIRECTORY)) return RemoveFile(path);
    if (!(attributes & FILE_ATTRIBUTE_REPARSE_POINT)) {
        WIN32_FIND_DATAW data;
        UniqueFindHandle find(::FindFirstFileW(JoinPath(path, L"*").c_str(), &data));
        if (find) {
            do {
                const std::wstring name = data.cFileName;
                if (name == L"." || name == L"..") continue;
                RemoveTree(JoinPath(path, name));
            } while (::FindNextFileW(find.get(), &data));
        }
    }
    return ::RemoveDirectoryW(path.c_str()) != FALSE;
}

}  // namespace kesclient
