// A stand-in installer for tests: appends its own command line (GetCommandLineW) as one UTF-8 line
// ending in "\n" to the file named by TEST_INSTALLER_RECORD, when that is set, and exits with the
// decimal code in TEST_INSTALLER_EXIT_CODE (default 0; a negative code wraps as Windows does).
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
    const std::wstring code = Environment(L"TEST_INSTALLER_EXIT_CODE");
    return code.empty() ? 0 : static_cast<int>(std::wcstol(code.c_str(), nullptr, 10));
}
