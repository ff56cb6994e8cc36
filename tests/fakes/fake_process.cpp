#include "fake_platform.h"
#include "platform/process.h"

namespace platform {

ProcessRun RunProcessAndWait(const std::wstring& commandLine, const std::wstring& heldFile) {
    auto& s = fake::State();
    if (!heldFile.empty() && s.locked.count(heldFile)) return {ProcessOutcome::kHoldFailed, 0, 32};
    if (!heldFile.empty() && !s.files.count(heldFile)) return {ProcessOutcome::kHoldFailed, 0, 2};
    s.processesRun.push_back(commandLine);
    s.heldFiles.push_back(heldFile);
    fake::PlatformState::ScriptedProcess next;
    if (!s.processScript.empty()) {
        next = s.processScript.front();
        s.processScript.pop_front();
    }
    if (next.createError) return {ProcessOutcome::kCreateFailed, 0, next.createError};
    if (next.exitCodeError) return {ProcessOutcome::kExitCodeFailed, 0, next.exitCodeError};
    return {ProcessOutcome::kExited, next.exitCode, 0};
}

}  // namespace platform
