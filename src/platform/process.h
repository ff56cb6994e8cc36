#pragma once
// Child processes: run one command line and wait for it to end.
#include <cstdint>
#include <string>

namespace platform {

enum class ProcessOutcome {
    kExited,          // ran to its end; exitCode holds its exit code
    kCreateFailed,    // CreateProcessW failed; error holds GetLastError
    kExitCodeFailed,  // it ran, but GetExitCodeProcess failed; error holds GetLastError
};

struct ProcessRun {
    ProcessOutcome outcome = ProcessOutcome::kCreateFailed;
    std::uint32_t exitCode = 0;
    std::uint32_t error = 0;
};

// CreateProcessW without an application name (the program is the command line's first token),
// no handle inheritance, NORMAL_PRIORITY_CLASS, the caller's environment and current folder, a
// zeroed STARTUPINFOW with only cb set; then an unbounded wait and GetExitCodeProcess.
ProcessRun RunProcessAndWait(const std::wstring& commandLine);

}  // namespace platform
