#include "platform/system.h"

#include <windows.h>

#include <cstdio>
#include <string>
#include <vector>

#include "core/text.h"
#include "platform/win32/security_win.h"

namespace platform {

std::uint32_t LastError() { return ::GetLastError(); }
void SetLastError(std::uint32_t error) { ::SetLastError(error); }

std::wstring SystemMessage(std::uint32_t error) {
    wchar_t* buffer = nullptr;
    const DWORD length = ::FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
        nullptr, error, 0, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
    std::wstring text = length ? std::wstring(buffer, length) : std::wstring();
    if (buffer) ::LocalFree(buffer);
    while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r' || text.back() == L' '))
        text.pop_back();
    return text;
}

std::wstring ProgramPath(std::uint32_t& error) {
    wchar_t buffer[MAX_PATH];
    const DWORD length = ::GetModuleFileNameW(nullptr, buffer, MAX_PATH);
    error = length ? 0 : ::GetLastError();
    return std::wstring(buffer, length);
}

std::optional<FileVersion> ReadFileVersion(const std::wstring& path) {
    DWORD ignored = 0;
    const DWORD size = ::GetFileVersionInfoSizeW(path.c_str(), &ignored);
    if (size == 0) return std::nullopt;
    std::vector<std::uint8_t> block(size);
    if (!::GetFileVersionInfoW(path.c_str(), 0, size, block.data())) return std::nullopt;
    VS_FIXEDFILEINFO* info = nullptr;
    UINT infoLength = 0;
    if (!::VerQueryValueA(block.data(), "\\", reinterpret_cast<void**>(&info), &infoLength) ||
        info == nullptr || infoLength < sizeof(VS_FIXEDFILEINFO) || info->dwSignature != 0xFEEF04BD)
        return std::nullopt;
    return FileVersion{info->dwFileVersionMS, info->dwFileVersionLS};
}

InstanceMutex CreateNamedMutexHeldForLife(const std::wstring& name) {
    // Deliberately never closed: the process exit releases it.
    const HANDLE mutex = ::CreateMutexW(nullptr, TRUE, name.c_str());
    InstanceMutex found{::GetLastError(), {}};
    if (mutex != nullptr && found.error == ERROR_ALREADY_EXISTS)
        found.owner = win32::OwnerOf(mutex, SE_KERNEL_OBJECT);
    return found;
}

bool HoldLockFileForLife(const std::wstring& path) {
    // Deliberately never closed: the process exit releases it, and the system deletes the file.
    const HANDLE file = ::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE | DELETE, 0,
                                      nullptr, OPEN_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    return file != INVALID_HANDLE_VALUE;
}

bool RestrictDllSearch() {
    // SetDllDirectoryW(L"") also takes the current folder out of the older search order, which
    // the loader still uses for a module's own imports.
    return ::SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32 |
                                      LOAD_LIBRARY_SEARCH_APPLICATION_DIR) &&
           ::SetDllDirectoryW(L"");
}

std::wstring CommandLine() {
    const wchar_t* line = ::GetCommandLineW();
    return line ? std::wstring(line) : std::wstring();
}

void WriteStdout(const std::wstring& text) {
    HANDLE out = ::GetStdHandle(STD_OUTPUT_HANDLE);
    if (out == nullptr || out == INVALID_HANDLE_VALUE) return;
    DWORD mode = 0;
    DWORD written = 0;
    if (::GetConsoleMode(out, &mode)) {
        ::WriteConsoleW(out, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
        return;
    }
    // Redirected output (a pipe or a file) gets UTF-8.
    std::string bytes;
    try {
        bytes = core::Utf8FromWide(text);
    } catch (...) {
        for (wchar_t c : text) bytes.push_back(c < 0x80 ? static_cast<char>(c) : '?');
    }
    ::WriteFile(out, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
}

bool EqualsIgnoreCase(const std::wstring& a, const std::wstring& b) {
    return ::CompareStringW(LOCALE_USER_DEFAULT, NORM_IGNORECASE, a.c_str(),
                            static_cast<int>(a.size()), b.c_str(),
                            static_cast<int>(b.size())) == CSTR_EQUAL;
}

}  // namespace platform
