// A stand-in installer for tests: appends its own command line (GetCommandLineW) as one UTF-8 line
// ending in "\n" to the file named by TEST_INSTALLER_RECORD, when that is set, and exits with the
// decimal code in TEST_INSTALLER_EXIT_CODE (default 0; a negative code wraps as Windows does).
// With TEST_INSTALLER_PROBE_WRITE naming a file, it also tries to open that file for writing and
// records "probe-write: <error>" (0 when it could), to show whether its launcher still holds it.
#include <windows.h>

#include <cwchar>
#include <string>

namespace {

std::wstring Environment(const wchar_t* name) {
    const DWORD size = ::GetEnvironmentVariableW(name, nullptr, 0);
    if (size == 0) return {};
    std::wstring value(size, L'\0');
    const DWORD length = ::GetEnvironmentVariableW(name, value.data(), size);
    value.resize(length < size ? length : 0);
    return value;
}

bool AppendLine(const std::wstring& path, const wchar_t* text) {
    const int bytes = ::WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (bytes <= 0) return false;
    std::string line(static_cast<std::size_t>(bytes), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text, -1, line.data(), bytes, nullptr, nullptr);
    line.back() = '\n';  // in place of the terminator
    HANDLE file = ::CreateFileW(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    DWORD written = 0;
    const BOOL ok =
        ::WriteFile(file, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
    ::CloseHandle(file);
    return ok && written == line.size();
}

}  // namespace

int wmain() {
    const std::wstring record = Environment(L"TEST_INSTALLER_RECORD");
    if (!record.empty() && !AppendLine(record, ::GetCommandLineW()))
        return 1627;  // function failed
    const std::wstring probe = Environment(L"TEST_INSTALLER_PROBE_WRITE");
    if (!probe.empty()) {
        HANDLE file = ::CreateFileW(probe.c_str(), GENERIC_WRITE,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        const DWORD error = file == INVALID_HANDLE_VALUE ? ::GetLastError() : 0;
        if (file != INVALID_HANDLE_VALUE) ::CloseHandle(file);
        const std::wstring line = L"probe-write: " + std::to_wstring(error);
        if (record.empty() || !AppendLine(record, line.c_str())) return 1627;
    }
    const std::wstring code = Environment(L"TEST_INSTALLER_EXIT_CODE");
    return code.empty() ? 0 : static_cast<int>(std::wcstol(code.c_str(), nullptr, 10));
}
