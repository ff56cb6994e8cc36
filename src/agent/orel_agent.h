#pragma once
// The product family's main desktop agent. Its installed version comes from Windows Installer
// (or the ProductVersion value), its installer is the bootstrapper found in the workspace by name.
//
// Registry value read here:
//   HKLM\Software\Quorvane\Lumenar\ProductVersion   REG_SZ   installed version when Windows
//                                                            Installer knows none
#include <string>

#include "agent/agent.h"

class OrelAgent final : public Agent {
public:
    // Upgrade codes of the product's generations, searched in this order.
    static constexpr const wchar_t* kUpgradeCodes[] = {L"{7C41E2A9-3B58-4F0D-9E62-1A8D5C37B04E}",
                                                       L"{D093B6F2-6E1C-4A87-8B3D-52F9E04C7A16}"};
    static constexpr const wchar_t* kInstallerPrefix = L"Tessix-Lumenar-Agent";
    static constexpr const wchar_t* kExcludedNamePart = L"direct-connection";

    OrelAgent(const std::wstring& version, const std::wstring& filename);

    // False only when no installer is found; a missing installed version is only logged.
    bool GetVersion() override;
    LaunchResult Launch(bool test, int mode, const std::wstring& options,
                        std::uint32_t& exitCode) override;

    // "<path> /s /v /qn KDX_SKIP_ADD_LDAP_MACHINE_ENTRY=1", then " REBOOT=Force" for kLastOther,
    // " REBOOT=ReallySuppress" for kNotLast, then " <options>" when there are any. The installer is
    // always run as a bootstrapper, whatever its extension.
    static std::wstring CommandLine(const std::wstring& installerPath, int mode,
                                    const std::wstring& options);

    // Exit code 1638 (another version installed) is kNotRun, 3010 kOrelRestartRequested; every
    // other exit code counts as done.
    static LaunchResult MapExitCode(LaunchResult launched, std::uint32_t exitCode);
};
