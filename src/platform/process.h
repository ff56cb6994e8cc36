#pragma once
// Child processes: run one command line and wait for it to end.
#include <cstdint>
#include <string>

namespace platform {

enum class ProcessOutcome {
    kExited,          // ran to its end; exitCode holds its exit code
    kCreateFailed,    // CreateProcessW failed; error holds GetLastError
    kExitCodeFailed,  // it ran, but GetExitCodeProcess failed; error holds GetLastError
    kHoldFailed,      // the file to hold could not be opened; error holds GetLastError
};

struct ProcessRun {
    ProcessOutcome outcome = ProcessOutcome::kCreateFailed;
    std::uint32_t exitCode = 0;
    std::uint32_t error = 0;
};

// CreateProcessW without an application name (the program is the command line's first token),
// no handle inheritance, NORMAL_PRIORITY_CLASS, the caller's environment and current folder, a
// zeroed STARTUPINFOW with only cb set; then an unbounded wait and GetExitCodeProcess.
//
// When heldFile is not empty, that file is opened for reading with writes and deletion denied to
// everyone before the process is created, and held until it has ended: the installer that was
// checked is the one that runs, and cannot be swapped or changed while it does. If it cannot be
// opened so, nothing is started (kHoldFailed).
ProcessRun RunProcessAndWait(const std::wstring& commandLine, const std::wstring& heldFile = {});

}  // namespace platform
