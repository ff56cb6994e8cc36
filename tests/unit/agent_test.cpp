// Exit codes are judged through App::Update in app_install_test.cpp.
#include "agent/agent.h"

#include <climits>

#include "agent/error_text.h"
#include "agent/generic_agent.h"
#include "agent/orel_agent.h"
#include "state/force_reboot.h"
#include "test_support.h"

namespace {

// The base alone: what a kind would add is reduced to what the tests arrange.
class ProbeAgent final : public Agent {
public:
    using Agent::Agent;
    bool GetVersion() override { return true; }
    LaunchResult Launch(bool, int, const std::wstring&, std::uint32_t&) override { return 0; }
    void SetVersions(const std::wstring& installed, const std::wstring& update) {
        installedVersion_ = installed;
        updateVersion_ = update;
    }
};

using AgentTest = ToolTest;

TEST(AgentVersion, ReadsLikeTheCRuntimeWithAutomaticBase) {
    const std::pair<const wchar_t*, VersionNumbers> rows[] = {
        {L"1_2-3.4.5", {{1, 2, 3}, 4}},
        {L"08.010.9", {{0, 8, 9}, 0}},
        {L"0x1F.0X10.0xg.0xFFFFFFFF", {{31, 16, 0}, 0xFFFFFFFFu}},
        {L"'-1'.99999999999.'-2147483648'.99999999999", {{-1, INT_MAX, INT_MIN}, ~0u}},
        {L"'-2147483649'.0.0.'-1'", {{INT_MIN, 0, 0}, 0xFFFFFFFFu}}};
    for (const auto& [text, expected] : rows) {
        VersionNumbers v{};
        EXPECT_TRUE(ParseVersionText(text, v)) << testing::PrintToString(std::wstring(text));
        EXPECT_EQ(v, expected);
    }
    VersionNumbers untouched{{7, 7, 7}, 7};  // what a refusal leaves
    EXPECT_FALSE(ParseVersionText(L"8..12", untouched));
    EXPECT_EQ(untouched, (VersionNumbers{{7, 7, 7}, 7}));
}

TEST_F(AgentTest, CompVersionDecidesAndSaysWhatItCouldNotRead) {
    const std::tuple<const wchar_t*, const wchar_t*, bool, const wchar_t*> rows[] = {
        {L"8.12.0", L"8.12.0.9000", false, nullptr}, {L"8.12.0.100", L"8.12.0.101", true, nullptr},
        {L"8.12.0.100", L"8.12.0.100", false, nullptr}, {L"8.12.1", L"8.12.0.999", false, nullptr},
        {L"8.13.0.1", L"9.0.0", true, nullptr},
        {L"7.1.0.4", L"0.0.0.5", true, nullptr},  // all zero: only the builds are compared
        {L"1.0.0.6", L"'-1'.0.0.7", true, nullptr},
        {L"", L"1.0.0", true, L"installed version not found"},
        {L"9", L"1.0.0", true, L"cannot determine installed version: 9"},
        {L"8.12.0.1", L"8.12", false, L"cannot determine update version: 8.12"}};
    for (const auto& [installed, update, upgrade, said] : rows) {
        SCOPED_TRACE(testing::PrintToString(std::wstring(installed) + L" vs " + update));
        StartLog();
        ProbeAgent agent(L"", L"");
        agent.SetVersions(installed, update);
        EXPECT_EQ(agent.CompVersion(), upgrade);
        EXPECT_EQ(Logged(L"Agent::CompVersion"), said != nullptr);
        EXPECT_TRUE(!said || Logged(std::wstring(L"Agent::CompVersion: ") + said + L"\r\n"));
    }
}

TEST(AgentErrorCodeText, DecimalBelowTheSignBitHexFromIt) {
    EXPECT_EQ(ErrorCodeText(0x7FFFFFFF), L"2147483647 ()");
    EXPECT_EQ(ErrorCodeText(0x80070005), L"0x0000000080070005 (Access is denied.)");
}

TEST_F(AgentTest, FindUpdateVersionTakesTheFirstFileForTheHost) {
    const std::wstring in = GetWorkspace() + L"\\Tessix-Lumenar-Agent";
    // files after the prefix; the installer given, the one found ("": none)
    const struct { bool x64; std::vector<std::wstring> files; std::wstring named, found;
                   const wchar_t* version; bool msi; } rows[] = {
        {true, {L"-X86_64-8.1.0-77.exe", L"_8.2.0.msi"}, L"", in + L"-X86_64-8.1.0-77.exe", L"8.1.0-77", false},
        {false, {L"-x86_64-8.1.0-77.exe", L"_8.2.0.MSI"}, L"", in + L"_8.2.0.MSI", L"8.2.0", true},
        {true, {L"-x86_64-Direct-Connection-8.0.0.exe"}, L"", L"", L"", false},
        {true, {}, L"", L"", L"", false},
        {true, {}, L"D:\\pkg\\agent.Msi", L"D:\\pkg\\agent.Msi", L"", true}};
    for (const auto& r : rows) {
        SCOPED_TRACE(&r - rows);
        const ScopedHostX64ForTesting host(r.x64);
        StartLog();
        Platform().files.clear();
        for (const std::wstring& name : r.files) Platform().files[in + name] = {};
        ProbeAgent agent(L"", r.named);
        EXPECT_EQ(agent.FindUpdateVersion(L"Tessix-Lumenar-Agent", true, L"direct-connection"), !r.found.empty());
        EXPECT_EQ(agent.installerPath(), r.found);
        EXPECT_EQ(agent.updateVersion(), r.version);
        EXPECT_EQ(agent.installerIsMsi(), r.msi);
        EXPECT_EQ(Logged(L"Agent::FindUpdateVersion: updateFilename: " + r.found + L"\r\n"), !r.found.empty());
        EXPECT_EQ(Logged(L"Agent::FindUpdateVersion: FindFirstFile error: " + in + L"-x86_64* 2 (The system cannot find the file specified.)\r\n"),
                  r.found.empty() && r.files.empty());
    }
}

TEST(AgentCommandLine, PerKindQuotingBlanksAndModes) {
    const std::wstring s = L" /s /v /qn KDX_SKIP_ADD_LDAP_MACHINE_ENTRY=1";  // the main agent's
    // mode -1: the generic kind
    const std::tuple<int, std::wstring, const wchar_t*, std::optional<std::wstring>> rows[] = {
        {-1, L"D:\\pkg\\setup.exe", L"/l*v x.log", L"D:\\pkg\\setup.exe /s /v /qn /l*v x.log"},
        {-1, L"C:\\A B\\a.MSI", L"A=1", L"msiexec /i \"C:\\A B\\a.MSI\" /qn A=1"},
        {-1, L"C:\\A B\\s.EXE", L"", L"\"C:\\A B\\s.EXE\" /s /v /qn"},
        {-1, L"D:\\pkg\\agent.zip", L"", std::nullopt}, {-1, L"msi", L"", std::nullopt},
        {1, L"D:\\w\\a.exe", L"", L"D:\\w\\a.exe" + s + L" REBOOT=ReallySuppress"},
        {2, L"D:\\w\\a.msi", L"X=1", L"D:\\w\\a.msi" + s + L" REBOOT=Force X=1"},
        {0, L"C:\\A B\\a.exe", L"ADDLOCAL=ALL", L"\"C:\\A B\\a.exe\"" + s + L" ADDLOCAL=ALL"},
        {1, L"\"C:\\A B\\a.exe\"", L"", L"\"C:\\A B\\a.exe\"" + s + L" REBOOT=ReallySuppress"}};
    for (const auto& [mode, path, options, line] : rows)
        EXPECT_EQ(mode < 0 ? GenericAgent::CommandLine(path, options)
                           : OrelAgent::CommandLine(path, mode, options), line) << path;
}

TEST_F(AgentTest, NoInstallerOrLaunchFailureRunsNothingAndJudgesNoStaleExitCode) {
    std::uint32_t exitCode = 77;
    EXPECT_EQ(ProbeAgent(L"", L"D:\\a.exe").LaunchHelper(false, L"", exitCode), 1);
    EXPECT_TRUE(Logged(L"Agent::LaunchHelper: ERROR: update command line empty"));
    EXPECT_EQ(ProbeAgent(L"", L"").LaunchHelper(false, L"x.exe", exitCode), 1);
    EXPECT_TRUE(Logged(L"Agent::LaunchHelper: ERROR: update installer empty"));
    EXPECT_EQ(exitCode, 77u);
    EXPECT_TRUE(Platform().processesRun.empty());

    SetForceReboot(false);
    exitCode = 1638;  // stale from an earlier agent: must not be judged again
    Platform().processScript = {{0, 2, 0}, {0, 2, 0}};
    EXPECT_EQ(GenericAgent(L"D:\\pkg\\agent.exe").Launch(false, 2, L"", exitCode), launch_result::kNotRun);
    EXPECT_EQ(OrelAgent(L"", L"D:\\pkg\\agent.exe").Launch(false, 0, L"", exitCode), launch_result::kNotRun);
    exitCode = 3010;
    EXPECT_EQ(OrelAgent(L"", L"").Launch(false, 0, L"", exitCode), launch_result::kNothingToRun);
    EXPECT_FALSE(ForceReboot());
}

enum class Installer { kPresent, kMissing, kOpenForWriting };

// exitCode 77: untouched; line: after "Agent::LaunchHelper: "; held nullptr: nothing started
struct LaunchCase { const wchar_t* path; Installer installer; fake::PlatformState::ScriptedProcess process;
                    LaunchResult result; std::uint32_t exitCode; const wchar_t *line, *held; };

class LaunchHelperTest : public AgentTest, public ::testing::WithParamInterface<LaunchCase> {};

TEST_P(LaunchHelperTest, ReportsWhatHappenedToTheInstaller) {
    const LaunchCase& c = GetParam();
    if (c.installer != Installer::kMissing) Platform().files[c.path] = {'p'};
    if (c.installer == Installer::kOpenForWriting) Platform().locked.insert(c.path);
    Platform().processScript = {c.process};
    const std::wstring line = std::wstring(c.path).ends_with(L".msi")
                                  ? std::wstring(L"msiexec /i ") + c.path + L" /qn"
                                  : std::wstring(c.path) + L" /s";
    std::uint32_t exitCode = 77;
    EXPECT_EQ(ProbeAgent(L"", c.path).LaunchHelper(false, line, exitCode), c.result);
    EXPECT_EQ(exitCode, c.exitCode);
    EXPECT_TRUE(Logged(std::wstring(L"Agent::LaunchHelper: ") + c.line + L"\r\n"));
    EXPECT_EQ(Platform().heldFiles, c.held ? std::vector<std::wstring>{c.held} : std::vector<std::wstring>{});
}

using enum Installer;
constexpr LaunchResult kDone = launch_result::kDone, kNotRun = launch_result::kNotRun;
const wchar_t* const kMsi = L"D:\\a.msi";

// The installer that was checked is held while it runs; one someone else may still change is not
// started; with nothing to protect, the plain start says what is wrong.
INSTANTIATE_TEST_SUITE_P(Installers, LaunchHelperTest, ::testing::Values(
    LaunchCase{kMsi, kPresent, {1603, 0, 0}, kDone, 1603, L"msiexec /i D:\\a.msi /qn returned: 1603 (Fatal error during installation.)", kMsi},
    LaunchCase{kMsi, kPresent, {0, 5, 0}, kNotRun, 77, L"ERROR: CreateProcess failed: 5 (Access is denied.)", kMsi},
    LaunchCase{kMsi, kPresent, {0, 0, 5}, kNotRun, 77, L"ERROR: GetExitCodeProcess failed: 5 (Access is denied.)", kMsi},
    LaunchCase{kMsi, kOpenForWriting, {}, kNotRun, 77, L"ERROR: cannot open D:\\a.msi to keep it unchanged while it runs: 32 (The process cannot access the file because it is being used by another process.)", nullptr},
    LaunchCase{kMsi, kMissing, {1619, 0, 0}, kDone, 1619, L"msiexec /i D:\\a.msi /qn returned: 1619 (This installation package could not be opened.)", L""},
    LaunchCase{L"D:\\a.exe", kMissing, {0, 2, 0}, kNotRun, 77, L"ERROR: CreateProcess failed: 2 (The system cannot find the file specified.)", L""}));

TEST_F(AgentTest, HostDetectionLogsWhatItFound) {
    Platform().nativeArchitecture = 0;  // x86
    EXPECT_FALSE(Agent::DetectHostX64());
    Platform().nativeArchitecture = 9;
    EXPECT_TRUE(Agent::DetectHostX64());
    EXPECT_TRUE(Logged(L"Agent::IsHostX64: host system: 32-bit\r\n"));
    EXPECT_TRUE(Logged(L"Agent::IsHostX64: host system: 64-bit\r\n"));
}

// The main agent asks the installer database under each upgrade code, then the product's own
// ProductVersion; the update comes from the workspace.
TEST_F(AgentTest, MainAgentFindsItsVersions) {
    const ScopedHostX64ForTesting x64(true);
    const std::wstring exe = GetWorkspace() + L"\\Tessix-Lumenar-Agent-x86_64-8.13.0-12345.exe";
    const std::wstring said = L"OrelAgent::GetVersion: ", find = L"Agent::FindInstalledVersion: ";
    // the upgrade code that finds the product (-1: none), the status of reading its version, the
    // ProductVersion value, whether the installer is there; then what GetVersion finds and says
    const std::tuple<int, std::uint32_t, const wchar_t*, bool, bool, const wchar_t*, const wchar_t*> rows[] = {
        {1, 0, L"", true, true, L"8.12.0.100", L"installedVersion: 8.12.0.100"},
        {0, 1608, L"8.10.0.5", true, true, L"8.10.0.5", L"installedVersion: 8.10.0.5"},
        {-1, 0, L"", true, true, L"", L"installed version not found"},
        {-1, 0, L"", false, false, L"", L"update version not found"}};
    for (const auto& [code, status, productVersion, there, ok, installed, logged] : rows) {
        SCOPED_TRACE(logged);
        StartLog();
        Platform().files.clear();
        Platform().installedProducts.clear();
        fake::SetRegistryString(CurrentProductRoot() + L"\\ProductVersion", productVersion);
        if (there) Platform().files[exe] = {};
        if (code >= 0) Platform().installedProducts[OrelAgent::kUpgradeCodes[code]] = {L"{P}", L"8.12.0.100", status};
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
