// A stand-in installer for tests: appends its own command line as one UTF-8 line to the file named
// by TEST_INSTALLER_RECORD, when that is set, and exits with the decimal code in
// TEST_INSTALLER_EXIT_CODE (default 0; a negative code wraps as Windows does). With
// TEST_INSTALLER_PROBE_WRITE naming a file, it also tries to open that file for writing and records
// "probe-write: <error>" (0 when it could), to show whether its launcher still holds it.
#include <windows.h>

#include <cwchar>
#include <string>

namespace {

std::wstring Environment(const wchar_t* name) {
    wchar_t value[32768];
    const DWORD length = ::GetEnvironmentVariableW(name, value, 32768);
    return length < 32768 ? std::wstring(value, length) : std::wstring();
}

bool AppendLine(const std::wstring& path, const std::wstring& text) {
    std::string line(text.size() * 3 + 1, '\0');
    line.resize(::WideCharToMultiByte(CP_UTF8, 0, text.data(), int(text.size()), line.data(),
                                      int(line.size()), nullptr, nullptr));
    line += '\n';
    HANDLE file = ::CreateFileW(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    DWORD written = 0;
    const bool ok = file != INVALID_HANDLE_VALUE &&
                    ::WriteFile(file, line.data(), DWORD(line.size()), &written, nullptr) &&
                    written == line.size();
    if (file != INVALID_HANDLE_VALUE) ::CloseHandle(file);
    return ok;
}

}  // namespace

int wmain() {
    const std::wstring record = Environment(L"TEST_INSTALLER_RECORD");
    if (!record.empty() && !AppendLine(record, ::GetCommandLineW())) return 1627;  // function failed
    const std::wstring probe = Environment(L"TEST_INSTALLER_PROBE_WRITE");
    if (!probe.empty()) {
        HANDLE file = ::CreateFileW(probe.c_str(), GENERIC_WRITE,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        const DWORD error = file == INVALID_HANDLE_VALUE ? ::GetLastError() : 0;
        if (file != INVALID_HANDLE_VALUE) ::CloseHandle(file);
        if (record.empty() || !AppendLine(record, L"probe-write: " + std::to_wstring(error)))
            return 1627;
    }
    const std::wstring code = Environment(L"TEST_INSTALLER_EXIT_CODE");
    return static_cast<int>(std::wcstol(code.c_str(), nullptr, 10));
}
