// The install path of a run: does the package fit the host, which agents need it, running their
// installers and turning the outcome into the run's result, and the clean-up after every run.
//
// Registry value read and deleted here (REG_SZ, written by the product's installers):
//   HKLM\Software\Quorvane\Lumenar\Agent\LastInstallError          what the last failed
//   HKLM\Software\Tessix, Inc.\Tessix KDX\Agent\LastInstallError   installer reported
#include <cstdint>
#include <string>

#include "agent/error_text.h"
#include "agent/generic_agent.h"
#include "agent/orel_agent.h"
#include "app/app.h"
#include "core/format.h"
#include "platform/system.h"
#include "log/tool_log.h"
#include "state/registry.h"
#include "state/update_record.h"

namespace {

constexpr const wchar_t* kLastInstallError = L"\\Agent\\LastInstallError";

// Installer exit codes that are no error: success, restart started, restart required.
bool IsInstallerSuccess(std::uint32_t exitCode) {
    return exitCode == 0 || exitCode == 1641 || exitCode == 3010;
}

void KeepVersionsOf(const Agent& agent) {
    UpdateRecord& record = ActiveUpdateRecord();
    record.installedVersion = agent.installedVersion();
    record.updateVersion = agent.updateVersion();
}

}  // namespace

bool App::CheckPlatform() {
    constexpr const wchar_t* kFunction = L"App::CheckPlatform";
    if (arch.empty()) {
        LogF(L"%s: arch type empty", kFunction);
        return false;
    }
    const bool hostX64 = Agent::IsHostX64();
    if (platform::EqualsIgnoreCase(arch, L"64-BitAgent") && hostX64) return true;
    if (platform::EqualsIgnoreCase(arch, L"32-BitAgent") && !hostX64) return true;
    if (platform::EqualsIgnoreCase(arch, L"Use32-BitAgentOn64")) return true;
    LogF(L"%s: arch type mismatch: %s on %s host", kFunction, arch,
         hostX64 ? L"64-bit" : L"32-bit");
    return false;
}

bool App::CheckVersion() {
    constexpr const wchar_t* kFunction = L"App::CheckVersion";
    for (const auto& agent : agents) {
        Log(L"=== Check Version ===");
        // These two only explain; the decision is UpdateAvailable's, so that -force can override.
        if (!agent->GetVersion()) LogF(L"%s: GetVersion could not find the update file", kFunction);
        if (!agent->CompVersion()) LogF(L"%s: CompVersion does not require to upgrade", kFunction);
        if (agent->UpdateAvailable(force))
            updates.push_back(agent.get());
        else
            LogF(L"%s: Update not available", kFunction);
    }
    return !updates.empty();
}

RunResult App::Update() {
    constexpr const wchar_t* kFunction = L"App::Update";
    Log(L"=== Update ===");
    if (updates.empty()) return run_result::kFailure;

    RunResult result = run_result::kFailure;
    // Shared by all agents and written only when an installer ran (or in test mode), so a launch
    // that never started leaves 0 and no error line.
    std::uint32_t exitCode = 0;
    bool stopped = false;
    for (std::size_t i = 0; i < updates.size() && !stopped; ++i) {
        Agent& agent = *updates[i];
        const bool last = i + 1 == updates.size();
        const bool generic = dynamic_cast<GenericAgent*>(&agent) != nullptr;
        const int mode = !last     ? launch_mode::kNotLast
                         : generic ? launch_mode::kLastOther
                                   : launch_mode::kLastMainAgent;
        const LaunchResult launch = agent.Launch(test, mode, options, exitCode);
        KeepVersionsOf(agent);
        if (generic) {
            // The management service reads these codes: a generic installer that failed asks for
            // a restart (-7), one that succeeded reports -4.
            if (launch == launch_result::kGenericInstallerFailed) {
                LogF(L"%s: agent reboot required", kFunction);
                result = run_result::kReboot;
                stopped = true;
            } else if (launch == launch_result::kDone) {
                LogF(L"%s: agent update succeeded", kFunction);
                result = run_result::kNoAgent;
            } else {
                stopped = true;
            }
        } else if (launch != launch_result::kDone) {
            // The main agent leaves the result as it is, whatever its installer said.
            stopped = true;
        }
    }
    if (!stopped) return result;

    LogF(L"%s: no Launch", kFunction);
    if (IsInstallerSuccess(exitCode)) return result;
    UpdateRecord& record = ActiveUpdateRecord();
    record.errorCode = core::Format(L"%u", exitCode);
    record.errorDesc = RegReadString(CurrentProductRoot() + kLastInstallError);
    LogF(L"%s: Error code and description: %s, %s, %s", kFunction, record.errorCode,
         record.errorDesc, ErrorCodeText(exitCode));
    return result;
}

void App::Cleanup() {
    updates.clear();
    agents.clear();
    for (const std::wstring& root : {CurrentProductRoot(), LegacyProductRoot()}) {
        const std::wstring path = root + kLastInstallError;
        if (!Util_DeleteRegistryIfExists(path))
            LogF(L"%s: Failed to delete %s registry key", L"App::Cleanup", path);
    }
}
