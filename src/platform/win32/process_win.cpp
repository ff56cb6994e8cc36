#include "platform/process.h"

#include <windows.h>

#include <vector>

#include "platform/win32/handles.h"

namespace platform {

ProcessRun RunProcessAndWait(const std::wstring& commandLine, const std::wstring& heldFile) {
    // Reading stays allowed: the installer service and the loader open the file themselves.
    win32::UniqueFileHandle held;
    if (!heldFile.empty()) {
        held.reset(::CreateFileW(heldFile.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                 OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!held) return {ProcessOutcome::kHoldFailed, 0, ::GetLastError()};
    }

    // CreateProcessW may write into the command line, so it gets a private copy.
    std::vector<wchar_t> line(commandLine.begin(), commandLine.end());
    line.push_back(L'\0');

    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION created{};
    if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, NORMAL_PRIORITY_CLASS,
                          nullptr, nullptr, &startup, &created))
        return {ProcessOutcome::kCreateFailed, 0, ::GetLastError()};

    const win32::UniqueKernelHandle process(created.hProcess);
    const win32::UniqueKernelHandle thread(created.hThread);
    ::WaitForSingleObject(process.get(), INFINITE);
    DWORD exitCode = 0;
    if (!::GetExitCodeProcess(process.get(), &exitCode))
        return {ProcessOutcome::kExitCodeFailed, 0, ::GetLastError()};
    return {ProcessOutcome::kExited, exitCode, 0};
}

}  // namespace platform
