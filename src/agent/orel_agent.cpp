#include "agent/orel_agent.h"

#include "log/tool_log.h"
#include "state/registry.h"

namespace {
constexpr std::uint32_t kExitAnotherVersionInstalled = 1638;
constexpr std::uint32_t kExitRestartRequired = 3010;
}  // namespace

OrelAgent::OrelAgent(const std::wstring& version, const std::wstring& filename)
    : Agent(version, filename) {}

bool OrelAgent::GetVersion() {
    constexpr const wchar_t* kFunction = L"OrelAgent::GetVersion";
    bool found = false;
    for (const wchar_t* upgradeCode : kUpgradeCodes) {
        found = FindInstalledVersion(upgradeCode);
        if (found) break;
    }
    if (!found) {
        const std::wstring productVersion =
            RegReadString(CurrentProductRoot() + L"\\ProductVersion", L"");
        found = !productVersion.empty();
        if (found)
            installedVersion_ = productVersion;
        else
            LogF(L"%s: installed version not found", kFunction);
    }
    if (found) LogF(L"%s: installedVersion: %s", kFunction, installedVersion_);

    if (!FindUpdateVersion(kInstallerPrefix, true, kExcludedNamePart)) {
        LogF(L"%s: update version not found", kFunction);
        return false;
    }
    LogF(L"%s: updateVersion: %s updateFileName: %s", kFunction, updateVersion_, installerPath_);
    return true;
}

std::wstring OrelAgent::CommandLine(const std::wstring& installerPath, int mode,
                                    const std::wstring& options) {
    std::wstring line =
        CommandLinePath(installerPath) + L" /s /v /qn" + L" KDX_SKIP_ADD_LDAP_MACHINE_ENTRY=1";
    if (mode == launch_mode::kLastOther)
        line += L" REBOOT=Force";
    else if (mode == launch_mode::kNotLast)
        line += L" REBOOT=ReallySuppress";
    if (!options.empty()) line += L" " + options;
    return line;
}

LaunchResult OrelAgent::MapExitCode(LaunchResult launched, std::uint32_t exitCode) {
    if (launched != launch_result::kDone) return launched;
    if (exitCode == kExitAnotherVersionInstalled) return launch_result::kNotRun;
    if (exitCode == kExitRestartRequired) return launch_result::kOrelRestartRequested;
    return launched;
}

LaunchResult OrelAgent::Launch(bool test, int mode, const std::wstring& options,
                               std::uint32_t& exitCode) {
    const LaunchResult launched =
        LaunchHelper(test, CommandLine(installerPath_, mode, options), exitCode);
    return MapExitCode(launched, exitCode);
}
