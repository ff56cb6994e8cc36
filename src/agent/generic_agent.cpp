#include "agent/generic_agent.h"

#include "platform/system.h"
#include "log/tool_log.h"
#include "state/force_reboot.h"

namespace {
constexpr std::uint32_t kExitSuccess = 0;
constexpr std::uint32_t kExitRestartInitiated = 1641;
constexpr std::uint32_t kExitRestartRequired = 3010;
}  // namespace

GenericAgent::GenericAgent(const std::wstring& filename) : Agent(L"", filename) {}

bool GenericAgent::GetVersion() {
    return true;
}

std::optional<std::wstring> GenericAgent::CommandLine(const std::wstring& installerPath,
                                                      const std::wstring& options) {
    const std::wstring extension =
        installerPath.size() > 4 ? installerPath.substr(installerPath.size() - 4) : installerPath;
    std::wstring line;
    if (platform::EqualsIgnoreCase(extension, L".msi"))
        line = L"msiexec /i " + CommandLinePath(installerPath) + L" /qn";
    else if (platform::EqualsIgnoreCase(extension, L".exe"))
        line = CommandLinePath(installerPath) + L" /s /v /qn";
    else
        return std::nullopt;
    if (!options.empty()) line += L" " + options;
    return line;
}

GenericAgent::ExitMapping GenericAgent::MapExitCode(LaunchResult launched, std::uint32_t exitCode) {
    if (launched != launch_result::kDone) return {launched, false};
    switch (exitCode) {
        case kExitSuccess:
        case kExitRestartInitiated:
            return {launch_result::kDone, false};
        case kExitRestartRequired:
            return {launch_result::kDone, true};
        default:
            return {launch_result::kGenericInstallerFailed, false};
    }
}

LaunchResult GenericAgent::Launch(bool test, int /*mode*/, const std::wstring& options,
                                  std::uint32_t& exitCode) {
    const std::optional<std::wstring> commandLine = CommandLine(installerPath_, options);
    if (!commandLine) {
        LogF(L"%s: invalid extension: %s", L"GenericAgent::Launch", installerPath_);
        return launch_result::kInvalidExtension;
    }
    const LaunchResult launched = LaunchHelper(test, *commandLine, exitCode);
    const ExitMapping mapped = MapExitCode(launched, exitCode);
    if (mapped.forceReboot) SetForceReboot(true);
    return mapped.result;
}
