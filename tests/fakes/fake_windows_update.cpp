#include "fake_platform.h"
#include "platform/windows_update.h"

namespace platform {

ComResult ComInitializeMultithreaded() {
    ++fake::State().comInitializeCalls;
    return fake::State().comInitializeResult;
}

void ComUninitialize() {
    ++fake::State().comUninitializeCalls;
}

UpdateInstallerBusy QueryUpdateInstallerBusy() {
    auto& state = fake::State();
    ++state.updateInstallerQueries;
    const int successfulInits = ComFailed(state.comInitializeResult) ? 0 : state.comInitializeCalls;
    if (successfulInits - state.comUninitializeCalls <= 0) {
        constexpr ComResult kNotInitialized = static_cast<ComResult>(0x800401F0u);
        return {kNotInitialized, 0, false};
    }
    UpdateInstallerBusy answer;
    if (!state.updateInstallerScript.empty()) {
        answer = state.updateInstallerScript.front();
        state.updateInstallerScript.pop_front();
    }
    // The adapter's contract: busy only when both calls succeeded.
    if (ComFailed(answer.createResult)) answer.isBusyResult = 0;
    answer.busy = answer.busy && !ComFailed(answer.createResult) && !ComFailed(answer.isBusyResult);
    return answer;
}

}  // namespace platform
