// The two agent kinds: their installer command lines, launch failures, and how the main agent finds
// its versions. Exit codes are judged through App::Update in app_install_test.cpp.
#include <memory>

#include "state/force_reboot.h"
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

// ---- Launching ----

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

}  // namespace
