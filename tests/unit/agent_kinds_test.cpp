// The two agent kinds: their installer command lines, how they read installer exit codes, and how
// the main agent finds its versions.
#include <memory>

#include "agent/force_reboot.h"
#include "agent/generic_agent.h"
#include "agent/orel_agent.h"
#include "state/registry.h"
#include "test_support.h"

namespace {

class AgentKindsTest : public ToolTest {
protected:
    AgentKindsTest() { SetForceReboot(false); }
    ~AgentKindsTest() override { SetForceReboot(false); }
};

// ---- Command lines ----

struct GenericLineCase {
    const wchar_t* path;
    const wchar_t* options;
    const wchar_t* expected;  // nullptr: refused
};

void PrintTo(const GenericLineCase& c, std::ostream* os) {
    *os << ::testing::PrintToString(std::wstring(c.path) + L" " + c.options);
}

class GenericAgentCommandLineTest : public ::testing::TestWithParam<GenericLineCase> {};

TEST_P(GenericAgentCommandLineTest, Builds) {
    const auto line = GenericAgent::CommandLine(GetParam().path, GetParam().options);
    if (GetParam().expected)
        EXPECT_EQ(line.value_or(L"<refused>"), GetParam().expected);
    else
        EXPECT_FALSE(line.has_value()) << *line;
}

INSTANTIATE_TEST_SUITE_P(
    Installers, GenericAgentCommandLineTest,
    ::testing::Values(GenericLineCase{L"D:\\pkg\\agent.MSI", L"",
                                      L"msiexec /i D:\\pkg\\agent.MSI /qn"},
                      GenericLineCase{L"D:\\pkg\\setup.exe", L"/l*v x.log",
                                      L"D:\\pkg\\setup.exe /s /v /qn /l*v x.log"},
                      GenericLineCase{L"C:\\Program Files\\pkg\\agent.msi", L"A=1",
                                      L"msiexec /i \"C:\\Program Files\\pkg\\agent.msi\" /qn A=1"},
                      GenericLineCase{L"C:\\Program Files\\pkg\\setup.EXE", L"",
                                      L"\"C:\\Program Files\\pkg\\setup.EXE\" /s /v /qn"},
                      GenericLineCase{L"D:\\pkg\\agent.zip", L"", nullptr},
                      GenericLineCase{L"msi", L"", nullptr}, GenericLineCase{L"", L"", nullptr}));

struct OrelLineCase {
    const wchar_t* path;
    int mode;
    const wchar_t* options;
    const wchar_t* expected;
};

void PrintTo(const OrelLineCase& c, std::ostream* os) {
    *os << ::testing::PrintToString(std::wstring(c.path) + L" mode " + std::to_wstring(c.mode) +
                                    L" " + c.options);
}

class OrelAgentCommandLineTest : public ::testing::TestWithParam<OrelLineCase> {};

TEST_P(OrelAgentCommandLineTest, Builds) {
    EXPECT_EQ(OrelAgent::CommandLine(GetParam().path, GetParam().mode, GetParam().options),
              GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Modes, OrelAgentCommandLineTest,
    ::testing::Values(
        OrelLineCase{L"D:\\w\\a.exe", 0, L"",
                     L"D:\\w\\a.exe /s /v /qn KDX_SKIP_ADD_LDAP_MACHINE_ENTRY=1"},
        OrelLineCase{L"D:\\w\\a.exe", 0, L"ADDLOCAL=ALL",
                     L"D:\\w\\a.exe /s /v /qn KDX_SKIP_ADD_LDAP_MACHINE_ENTRY=1 ADDLOCAL=ALL"},
        OrelLineCase{
            L"D:\\w\\a.exe", 1, L"",
            L"D:\\w\\a.exe /s /v /qn KDX_SKIP_ADD_LDAP_MACHINE_ENTRY=1 REBOOT=ReallySuppress"},
        OrelLineCase{
            L"D:\\w\\a.exe", 1, L"X=1",
            L"D:\\w\\a.exe /s /v /qn KDX_SKIP_ADD_LDAP_MACHINE_ENTRY=1 REBOOT=ReallySuppress X=1"},
        OrelLineCase{L"D:\\w\\a.msi", 2, L"",  // no extension check: always a bootstrapper
                     L"D:\\w\\a.msi /s /v /qn KDX_SKIP_ADD_LDAP_MACHINE_ENTRY=1 REBOOT=Force"},
        OrelLineCase{L"D:\\w\\a.exe", 2, L"X=1",
                     L"D:\\w\\a.exe /s /v /qn KDX_SKIP_ADD_LDAP_MACHINE_ENTRY=1 REBOOT=Force X=1"},
        OrelLineCase{L"C:\\Temp dir\\a.exe", 0, L"",
                     L"\"C:\\Temp dir\\a.exe\" /s /v /qn KDX_SKIP_ADD_LDAP_MACHINE_ENTRY=1"},
        OrelLineCase{L"\"C:\\Temp dir\\a.exe\"", 1, L"",  // already quoted: left alone
                     L"\"C:\\Temp dir\\a.exe\" /s /v /qn KDX_SKIP_ADD_LDAP_MACHINE_ENTRY=1 "
                     L"REBOOT=ReallySuppress"}));

// ---- Installer exit codes, through a launch on the fake platform ----

struct ExitCase {
    bool generic;
    std::uint32_t exitCode;
    LaunchResult result;
    bool forceReboot;
};

void PrintTo(const ExitCase& c, std::ostream* os) {
    *os << (c.generic ? "generic exit " : "main exit ") << c.exitCode;
}

class AgentExitCodeTest : public AgentKindsTest, public ::testing::WithParamInterface<ExitCase> {};

TEST_P(AgentExitCodeTest, MapsPerKind) {
    Platform().processScript = {{GetParam().exitCode, 0, 0}};
    std::unique_ptr<Agent> agent;
    if (GetParam().generic)
        agent = std::make_unique<GenericAgent>(L"D:\\pkg\\agent.msi");
    else
        agent = std::make_unique<OrelAgent>(L"", L"D:\\pkg\\agent.exe");
    std::uint32_t exitCode = 77;
    EXPECT_EQ(agent->Launch(false, launch_mode::kLastOther, L"", exitCode), GetParam().result);
    EXPECT_EQ(exitCode, GetParam().exitCode);
    EXPECT_EQ(ForceReboot(), GetParam().forceReboot);
    EXPECT_EQ(Platform().processesRun.size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Codes, AgentExitCodeTest,
    ::testing::Values(ExitCase{true, 0, 0, false}, ExitCase{true, 1641, 0, false},
                      ExitCase{true, 3010, 0, true}, ExitCase{true, 1603, 4, false},
                      ExitCase{true, 1638, 4, false}, ExitCase{false, 0, 0, false},
                      ExitCase{false, 1641, 0, false}, ExitCase{false, 3010, 4, false},
                      ExitCase{false, 1603, 0, false}, ExitCase{false, 1638, 3, false}));

TEST_F(AgentKindsTest, LaunchFailuresPassThroughBothKinds) {
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

TEST_F(AgentKindsTest, GenericRefusesAnUnknownExtensionBeforeRunning) {
    std::uint32_t exitCode = 0;
    EXPECT_EQ(GenericAgent(L"D:\\pkg\\agent.zip").Launch(false, 2, L"", exitCode),
              launch_result::kInvalidExtension);
    EXPECT_TRUE(Logged(L"GenericAgent::Launch: invalid extension: D:\\pkg\\agent.zip"));
    EXPECT_TRUE(Platform().processesRun.empty());
}

TEST_F(AgentKindsTest, TestModeRunsNothingAndSucceeds) {
    std::uint32_t exitCode = 1603;
    EXPECT_EQ(GenericAgent(L"D:\\pkg\\agent.msi").Launch(true, 2, L"", exitCode),
              launch_result::kDone);
    EXPECT_EQ(OrelAgent(L"", L"D:\\pkg\\agent.exe").Launch(true, 0, L"", exitCode),
              launch_result::kDone);
    EXPECT_EQ(exitCode, 0u);
    EXPECT_TRUE(Platform().processesRun.empty());
    EXPECT_TRUE(Logged(L"Agent::LaunchHelper: launching: msiexec /i D:\\pkg\\agent.msi /qn"));
}

TEST_F(AgentKindsTest, GenericAlwaysWantsItsNamedInstaller) {
    GenericAgent agent(L"agent.msi");
    EXPECT_TRUE(agent.GetVersion());
    EXPECT_TRUE(agent.CompVersion());
    EXPECT_TRUE(agent.UpdateAvailable(false));
}

// ---- The main agent's versions ----

class OrelAgentVersionTest : public AgentKindsTest {
protected:
    OrelAgentVersionTest() {
        Platform().files[GetWorkspace() + L"\\Tessix-Lumenar-Agent-x86_64-8.13.0-12345.exe"] = {};
    }
    const ScopedHostX64ForTesting x64_{true};
};

TEST_F(OrelAgentVersionTest, TriesEachUpgradeCodeInTurn) {
    Platform().installedProducts[OrelAgent::kUpgradeCodes[1]] = {L"{P2}", L"8.12.0.100", 0};
    OrelAgent agent(L"", L"");
    ASSERT_TRUE(agent.GetVersion());
    EXPECT_EQ(agent.installedVersion(), L"8.12.0.100");
    EXPECT_TRUE(Logged(std::wstring(L"MsiEnumRelatedProducts failed: 259 code: ") +
                       OrelAgent::kUpgradeCodes[0]));
    EXPECT_TRUE(Logged(L"OrelAgent::GetVersion: installedVersion: 8.12.0.100"));
    EXPECT_TRUE(Logged(L"OrelAgent::GetVersion: updateVersion: 8.13.0-12345 updateFileName: " +
                       GetWorkspace() + L"\\Tessix-Lumenar-Agent-x86_64-8.13.0-12345.exe"));
    EXPECT_TRUE(agent.CompVersion());
}

TEST_F(OrelAgentVersionTest, FallsBackToProductVersion) {
    fake::SetRegistryString(CurrentProductRoot() + L"\\ProductVersion", L"8.10.0.5");
    OrelAgent agent(L"", L"");
    ASSERT_TRUE(agent.GetVersion());
    EXPECT_EQ(agent.installedVersion(), L"8.10.0.5");
    EXPECT_TRUE(Logged(L"OrelAgent::GetVersion: installedVersion: 8.10.0.5"));
}

TEST_F(OrelAgentVersionTest, NoInstalledVersionIsNotAFailure) {
    OrelAgent agent(L"", L"");
    EXPECT_TRUE(agent.GetVersion());
    EXPECT_TRUE(Logged(L"OrelAgent::GetVersion: installed version not found"));
    EXPECT_FALSE(Logged(L"OrelAgent::GetVersion: installedVersion:"));
}

TEST_F(OrelAgentVersionTest, FailsWithoutInstaller) {
    Platform().files.clear();
    OrelAgent agent(L"", L"");
    EXPECT_FALSE(agent.GetVersion());
    EXPECT_TRUE(Logged(L"OrelAgent::GetVersion: update version not found"));
}

TEST_F(OrelAgentVersionTest, NamedFileKeepsTheRecordsVersion) {
    OrelAgent agent(L"8.20.0.1", L"D:\\pkg\\custom.exe");
    ASSERT_TRUE(agent.GetVersion());
    EXPECT_TRUE(Logged(
        L"OrelAgent::GetVersion: updateVersion: 8.20.0.1 updateFileName: D:\\pkg\\custom.exe"));
}

}  // namespace
