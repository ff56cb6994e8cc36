// The two agent kinds: their installer command lines, launch failures, and how the main agent finds
// its versions. Exit codes are judged through App::Update in app_install_test.cpp.
#include "agent/generic_agent.h"
#include "agent/orel_agent.h"
#include "state/force_reboot.h"
#include "test_support.h"

namespace {

using AgentKindsTest = ToolTest;

TEST(AgentCommandLine, PerKindQuotingBlanksAndModes) {
    const std::wstring s = L" /s /v /qn KDX_SKIP_ADD_LDAP_MACHINE_ENTRY=1";  // the main agent's
    const std::tuple<int, std::wstring, const wchar_t*, std::optional<std::wstring>> rows[] = {
        {-1, L"D:\\pkg\\agent.MSI", L"", L"msiexec /i D:\\pkg\\agent.MSI /qn"},
        {-1, L"D:\\pkg\\setup.exe", L"/l*v x.log", L"D:\\pkg\\setup.exe /s /v /qn /l*v x.log"},
        {-1, L"C:\\A B\\a.msi", L"A=1", L"msiexec /i \"C:\\A B\\a.msi\" /qn A=1"},
        {-1, L"C:\\A B\\s.EXE", L"", L"\"C:\\A B\\s.EXE\" /s /v /qn"},
        {-1, L"D:\\pkg\\agent.zip", L"", std::nullopt},
        {-1, L"msi", L"", std::nullopt},
        {0, L"D:\\w\\a.exe", L"ADDLOCAL=ALL", L"D:\\w\\a.exe" + s + L" ADDLOCAL=ALL"},
        {1, L"D:\\w\\a.exe", L"", L"D:\\w\\a.exe" + s + L" REBOOT=ReallySuppress"},
        {2, L"D:\\w\\a.msi", L"X=1", L"D:\\w\\a.msi" + s + L" REBOOT=Force X=1"},
        {0, L"C:\\A B\\a.exe", L"", L"\"C:\\A B\\a.exe\"" + s},
        {1, L"\"C:\\A B\\a.exe\"", L"", L"\"C:\\A B\\a.exe\"" + s + L" REBOOT=ReallySuppress"},
    };
    for (const auto& [mode, path, options, line] : rows) {  // mode -1: the generic kind
        EXPECT_EQ(mode < 0 ? GenericAgent::CommandLine(path, options)
                           : OrelAgent::CommandLine(path, mode, options),
                  line)
            << testing::PrintToString(path);
    }
}

TEST_F(AgentKindsTest, LaunchFailuresPassThroughBothKinds) {
    SetForceReboot(false);
    GenericAgent generic(L"D:\\pkg\\agent.exe");
    OrelAgent orel(L"", L"D:\\pkg\\agent.exe");
    std::uint32_t exitCode = 1638;  // stale from an earlier agent: must not be judged again
    Platform().processScript = {{0, 2, 0}, {0, 2, 0}};
    EXPECT_EQ(generic.Launch(false, 2, L"", exitCode), launch_result::kNotRun);
    EXPECT_EQ(orel.Launch(false, 0, L"", exitCode), launch_result::kNotRun);
    exitCode = 3010;
    EXPECT_EQ(OrelAgent(L"", L"").Launch(false, 0, L"", exitCode), launch_result::kNothingToRun);
    EXPECT_FALSE(ForceReboot());
}

// The main agent asks the installer database under each upgrade code, then the product's own
// ProductVersion; the update comes from the workspace.
TEST_F(AgentKindsTest, MainAgentFindsItsVersions) {
    const ScopedHostX64ForTesting x64(true);
    const std::wstring exe = GetWorkspace() + L"\\Tessix-Lumenar-Agent-x86_64-8.13.0-12345.exe";
    const std::wstring said = L"OrelAgent::GetVersion: ", find = L"Agent::FindInstalledVersion: ";
    // the upgrade code that finds the product (-1: none), the status of reading its version, the
    // ProductVersion value, whether the installer is there; then what GetVersion finds and says
    const std::tuple<int, std::uint32_t, const wchar_t*, bool, bool, const wchar_t*, const wchar_t*>
        rows[] = {
            {1, 0, L"", true, true, L"8.12.0.100", L"installedVersion: 8.12.0.100"},
            {0, 1608, L"8.10.0.5", true, true, L"8.10.0.5", L"installedVersion: 8.10.0.5"},
            {-1, 0, L"", true, true, L"", L"installed version not found"},
            {-1, 0, L"", false, false, L"", L"update version not found"},
        };
    for (const auto& [code, status, productVersion, there, ok, installed, logged] : rows) {
        SCOPED_TRACE(logged);
        StartLog();
        Platform().files.clear();
        Platform().installedProducts.clear();
        fake::SetRegistryString(CurrentProductRoot() + L"\\ProductVersion", productVersion);
        if (there) Platform().files[exe] = {};
        auto& products = Platform().installedProducts;
        if (code >= 0) products[OrelAgent::kUpgradeCodes[code]] = {L"{P}", L"8.12.0.100", status};
        OrelAgent agent(L"", L"");
        EXPECT_EQ(agent.GetVersion(), ok);
        EXPECT_EQ(agent.installedVersion(), installed);
        EXPECT_TRUE(Logged(said + logged + L"\r\n"));
        EXPECT_EQ(Logged(said + L"installedVersion:"), *installed != 0);
        EXPECT_EQ(Logged(said + L"updateVersion: 8.13.0-12345 updateFileName: " + exe), ok);
        EXPECT_TRUE(Logged(find + L"MsiEnumRelatedProducts failed: 259 code: " +
                           OrelAgent::kUpgradeCodes[code == 0 ? 1 : 0]));
        EXPECT_EQ(Logged(find + L"MsiGetProductInfo failed: 1608 code: {P}"), status != 0);
    }
}

}  // namespace
