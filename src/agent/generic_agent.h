#pragma once
// Any product whose update names its installer file: an MSI package or a setup executable. Its
// installed version is not looked up, so it is updated whenever its installer exists.
#include <optional>
#include <string>

#include "agent/agent.h"

class GenericAgent final : public Agent {
public:
    explicit GenericAgent(const std::wstring& filename);

    bool GetVersion() override;
    // The mode is ignored.
    LaunchResult Launch(bool test, int mode, const std::wstring& options,
                        std::uint32_t& exitCode) override;

    // "msiexec /i <path> /qn" for ".msi", "<path> /s /v /qn" for ".exe" (the last four characters,
    // any case), then " <options>" when there are any; nothing for another extension.
    static std::optional<std::wstring> CommandLine(const std::wstring& installerPath,
                                                   const std::wstring& options);

    struct ExitMapping {
        LaunchResult result;
        bool forceReboot;  // the installer finished but needs a restart (3010)
    };
    // A launch that did not produce an exit code passes through; exit codes 0, 1641 and 3010 are
    // success, anything else kGenericInstallerFailed.
    static ExitMapping MapExitCode(LaunchResult launched, std::uint32_t exitCode);
};
