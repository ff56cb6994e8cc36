// The agent base: version reading and comparison, the workspace search, the installed-version
// lookup and the installer launch, against the fake platform.
#include "agent/agent.h"

#include <climits>

#include "agent/error_text.h"
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

class AgentTest : public ToolTest {
protected:
    std::wstring Workspace() { return GetWorkspace(); }
    void AddWorkspaceFile(const std::wstring& name) {
        Platform().files[Workspace() + L"\\" + name] = {};
    }
};

// ---- Reading version texts ----

struct ParseCase {
    const wchar_t* text;
    bool ok;
    VersionNumbers expected;
};

void PrintTo(const ParseCase& c, std::ostream* os) {
    *os << ::testing::PrintToString(std::wstring(c.text));
}

class AgentParseVersionTest : public ::testing::TestWithParam<ParseCase> {};

TEST_P(AgentParseVersionTest, ReadsLikeTheCRuntimeWithAutomaticBase) {
    // A failed parse leaves the caller's numbers alone.
    const VersionNumbers initial = GetParam().ok ? VersionNumbers{} : VersionNumbers{{7, 7, 7}, 7};
    VersionNumbers parts = initial;
    EXPECT_EQ(ParseVersionText(GetParam().text, parts), GetParam().ok);
    const VersionNumbers& expected = GetParam().ok ? GetParam().expected : initial;
    EXPECT_EQ(parts.leading, expected.leading);
    EXPECT_EQ(parts.build, expected.build);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, AgentParseVersionTest,
    ::testing::Values(
        ParseCase{L"8.13.0-12345", true, {{8, 13, 0}, 12345}},
        ParseCase{L"8.12.0", true, {{8, 12, 0}, 0}},
        ParseCase{L"1_2-3.4.5", true, {{1, 2, 3}, 4}},  // every separator; a fifth token is ignored
        ParseCase{L"08.010.9", true, {{0, 8, 9}, 0}},   // octal stops at the digit 8
        ParseCase{L"0x1F.0X10.0xg.0xFFFFFFFF", true, {{31, 16, 0}, 0xFFFFFFFFu}},
        ParseCase{L"\"8.12\".0.5", true, {{8, 0, 5}, 0}},  // quotes group; reading stops at '.'
        ParseCase{L"'-1'.2.3.'-1'", true, {{-1, 2, 3}, 0xFFFFFFFFu}},  // the unsigned one wraps
        ParseCase{L"99999999999.1.2.99999999999", true, {{INT_MAX, 1, 2}, 0xFFFFFFFFu}},
        ParseCase{L"'-2147483648'.'-2147483649'.1", true, {{INT_MIN, INT_MIN, 1}, 0}},
        ParseCase{L"9", false, {}}, ParseCase{L"8..12", false, {}},  // runs of separators are one
        ParseCase{L"8.''.1.2", false, {}},                           // an empty token ends it
        ParseCase{L"'1''.2'.3", false, {}},  // a doubled quote stays inside: two tokens
        ParseCase{L"", false, {}}));

// ---- Comparing versions ----

struct CompareCase {
    const wchar_t* installed;
    const wchar_t* update;
    bool upgrade;
    const wchar_t* logged;  // expected log fragment, or nullptr
};

void PrintTo(const CompareCase& c, std::ostream* os) {
    *os << ::testing::PrintToString(std::wstring(c.installed) + L" vs " + c.update);
}

class AgentCompVersionTest : public AgentTest, public ::testing::WithParamInterface<CompareCase> {};

TEST_P(AgentCompVersionTest, DecidesAndLogs) {
    ProbeAgent agent(L"", L"");
    agent.SetVersions(GetParam().installed, GetParam().update);
    EXPECT_EQ(agent.CompVersion(), GetParam().upgrade);
    EXPECT_EQ(agent.upgradeNeeded(), GetParam().upgrade);
    if (GetParam().logged) {
        EXPECT_TRUE(Logged(GetParam().logged)) << LogText();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Pairs, AgentCompVersionTest,
    ::testing::Values(
        CompareCase{L"8.12.0", L"8.12.0.9000", false, nullptr},  // no installed build number
        CompareCase{L"8.12.0.100", L"8.12.0.101", true, nullptr},
        CompareCase{L"8.12.0.100", L"8.12.0.100", false, nullptr},
        CompareCase{L"8.12.1", L"8.12.0.999", false, nullptr},  // decided by the third number
        CompareCase{L"8.12.0", L"8.13.0", true, nullptr},
        CompareCase{L"8.13.0.1", L"9.0.0", true, nullptr},
        CompareCase{L"7.1.0.4", L"0.0.0.5", true, nullptr},  // only the builds are compared
        CompareCase{L"7.1.0.6", L"0.0.0.5", false, nullptr},
        CompareCase{L"1.0.0.6", L"'-1'.0.0.7", true, nullptr},  // no positive leading number
        CompareCase{L"08.0.0", L"7.0.0", true, nullptr},        // installed reads as 0.0.0
        CompareCase{L"", L"1.0.0", true, L"Agent::CompVersion: installed version not found"},
        CompareCase{L"9", L"1.0.0", true,
                    L"Agent::CompVersion: cannot determine installed version: 9"},
        CompareCase{L"8.12.0.1", L"8.12", false,
                    L"Agent::CompVersion: cannot determine update version: 8.12"}));

TEST(AgentUpgradeNeeded, NeverClearsAnEarlierDecision) {
    EXPECT_TRUE(UpgradeNeeded({{9, 0, 0}, 9}, {{1, 0, 0}, 1}, true));
}

// ---- The update decision ----

TEST_F(AgentTest, UpdateAvailableNeedsReasonAndInstaller) {
    ProbeAgent notNeeded(L"", L"D:\\pkg\\a.msi");
    notNeeded.SetVersions(L"2.0.0", L"1.0.0");
    notNeeded.CompVersion();
    EXPECT_FALSE(notNeeded.UpdateAvailable(false));
    EXPECT_TRUE(Logged(L"Agent::UpdateAvailable: no need to upgrade"));
    EXPECT_TRUE(notNeeded.UpdateAvailable(true));

    ProbeAgent noInstaller(L"", L"");
    noInstaller.CompVersion();  // nothing installed: needed
    EXPECT_FALSE(noInstaller.UpdateAvailable(false));
    EXPECT_FALSE(noInstaller.UpdateAvailable(true));
    EXPECT_TRUE(Logged(L"Agent::UpdateAvailable: update installer empty"));
}

TEST_F(AgentTest, ConstructorTakesBareNamesFromTheWorkspace) {
    ProbeAgent bare(L"8.1", L"agent.msi");
    EXPECT_EQ(bare.installerPath(), Workspace() + L"\\agent.msi");
    EXPECT_EQ(bare.updateVersion(), L"8.1");
    EXPECT_TRUE(Logged(L"Agent::Agent: override version: 8.1"));
    EXPECT_TRUE(Logged(L"Agent::Agent: override filename: agent.msi"));
    EXPECT_EQ(ProbeAgent(L"", L"D:\\pkg\\a.exe").installerPath(), L"D:\\pkg\\a.exe");
}

// ---- Error texts ----

TEST(AgentErrorCodeText, DecimalBelowTheSignBitHexFromIt) {
    EXPECT_EQ(ErrorCodeText(1603), L"1603 (Fatal error during installation.)");
    EXPECT_EQ(ErrorCodeText(0x7FFFFFFF), L"2147483647 ()");
    EXPECT_EQ(ErrorCodeText(0x80070005), L"0x0000000080070005 (Access is denied.)");
    EXPECT_EQ(ErrorCodeText(0xFFFFFFFF), L"0x00000000FFFFFFFF ()");
}

// ---- Finding the installer in the workspace ----

TEST_F(AgentTest, FindUpdateVersionTakesTheFirstFittingFileOnX64) {
    const ScopedHostX64ForTesting x64(true);
    AddWorkspaceFile(L"Tessix-Lumenar-Agent-direct-connection-x86_64-8.0.0.exe");
    AddWorkspaceFile(L"Tessix-Lumenar-Agent-x86_64-8.1.0-77.exe");
    AddWorkspaceFile(L"Tessix-Lumenar-Agent_8.2.0.msi");
    ProbeAgent agent(L"", L"");
    ASSERT_TRUE(agent.FindUpdateVersion(L"Tessix-Lumenar-Agent", true, L"direct-connection"));
    const std::wstring path = Workspace() + L"\\Tessix-Lumenar-Agent-x86_64-8.1.0-77.exe";
    EXPECT_EQ(agent.installerPath(), path);
    EXPECT_EQ(agent.updateVersion(), L"8.1.0-77");
    EXPECT_FALSE(agent.installerIsMsi());
    EXPECT_TRUE(Logged(L"Agent::FindUpdateVersion: updateFilename: " + path));
}

TEST_F(AgentTest, FindUpdateVersionSkips64BitFilesElsewhere) {
    const ScopedHostX64ForTesting x86(false);
    AddWorkspaceFile(L"Tessix-Lumenar-Agent-x86_64-8.1.0-77.exe");
    AddWorkspaceFile(L"Tessix-Lumenar-Agent_8.2.0.MSI");
    ProbeAgent agent(L"", L"");
    ASSERT_TRUE(agent.FindUpdateVersion(L"Tessix-Lumenar-Agent", true, L""));
    EXPECT_EQ(agent.updateVersion(), L"8.2.0");
    EXPECT_TRUE(agent.installerIsMsi());
}

TEST_F(AgentTest, FindUpdateVersionFailures) {
    const ScopedHostX64ForTesting x64(true);
    ProbeAgent agent(L"", L"");
    EXPECT_FALSE(agent.FindUpdateVersion(L"Tessix-Lumenar-Agent", true, L"direct-connection"));
    EXPECT_TRUE(
        Logged(L"Agent::FindUpdateVersion: FindFirstFile error: " + Workspace() +
               L"\\Tessix-Lumenar-Agent-x86_64* 2 (The system cannot find the file specified.)"))
        << LogText();

    // Matches that are all excluded end the search quietly.
    StartLog();
    AddWorkspaceFile(L"Tessix-Lumenar-Agent-x86_64-Direct-Connection-8.0.0.exe");
    EXPECT_FALSE(agent.FindUpdateVersion(L"Tessix-Lumenar-Agent", true, L"direct-connection"));
    EXPECT_FALSE(Logged(L"Agent::FindUpdateVersion")) << LogText();
    EXPECT_TRUE(agent.installerPath().empty());
}

TEST_F(AgentTest, FindUpdateVersionKeepsANamedInstaller) {
    ProbeAgent agent(L"8.20.0.1", L"D:\\pkg\\agent.Msi");
    ASSERT_TRUE(agent.FindUpdateVersion(L"Tessix-Lumenar-Agent", true, L""));
    EXPECT_EQ(agent.updateVersion(), L"8.20.0.1");
    EXPECT_TRUE(agent.installerIsMsi());
    EXPECT_TRUE(Logged(L"Agent::FindUpdateVersion: updateFilename: D:\\pkg\\agent.Msi"));
}

TEST(AgentVersionFromInstallerName, CutsThePrefixTagAndExtension) {
    EXPECT_EQ(VersionFromInstallerName(L"Tessix-Lumenar-Agent-x86_64-8.13.0-12345.exe", 20, true),
              L"8.13.0-12345");
    EXPECT_EQ(VersionFromInstallerName(L"Tessix-Lumenar-Agent-X86_64-8.1.exe", 20, true), L"8.1");
    EXPECT_EQ(VersionFromInstallerName(L"Tessix-Lumenar-Agent-x86_64-8.1.exe", 20, false),
              L"x86_64-8.1");
    EXPECT_EQ(VersionFromInstallerName(L"Tessix-Lumenar-Agent_-8", 20, true), L"8");
    EXPECT_EQ(VersionFromInstallerName(L"short.exe", 20, true), L"");
}

// ---- The installed version through Windows Installer ----

TEST_F(AgentTest, FindInstalledVersionReportsEachFailingCall) {
    ProbeAgent agent(L"", L"");
    EXPECT_FALSE(agent.FindInstalledVersion(L"{UPGRADE}"));
    EXPECT_TRUE(
        Logged(L"Agent::FindInstalledVersion: MsiEnumRelatedProducts failed: 259 code: {UPGRADE}"));

    Platform().installedProducts[L"{UPGRADE}"] = {L"{PRODUCT}", L"8.12.0.100", 1608};
    EXPECT_FALSE(agent.FindInstalledVersion(L"{upgrade}"));
    EXPECT_TRUE(
        Logged(L"Agent::FindInstalledVersion: MsiGetProductInfo failed: 1608 code: {PRODUCT}"));
    EXPECT_TRUE(agent.installedVersion().empty());

    Platform().installedProducts[L"{UPGRADE}"].infoStatus = 0;
    EXPECT_TRUE(agent.FindInstalledVersion(L"{UPGRADE}"));
    EXPECT_EQ(agent.installedVersion(), L"8.12.0.100");
}

// ---- Launching ----

TEST_F(AgentTest, LaunchHelperRefusesToRunNothing) {
    std::uint32_t exitCode = 77;
    EXPECT_EQ(ProbeAgent(L"", L"D:\\a.exe").LaunchHelper(false, L"", exitCode),
              launch_result::kNothingToRun);
    EXPECT_TRUE(Logged(L"Agent::LaunchHelper: ERROR: update command line empty"));
    EXPECT_EQ(ProbeAgent(L"", L"").LaunchHelper(false, L"x.exe", exitCode),
              launch_result::kNothingToRun);
    EXPECT_TRUE(Logged(L"Agent::LaunchHelper: ERROR: update installer empty"));
    EXPECT_EQ(exitCode, 77u);
    EXPECT_TRUE(Platform().processesRun.empty());
}

TEST_F(AgentTest, LaunchHelperReportsProcessFailuresAndExitCodes) {
    Platform().processScript = {{0, 2, 0}, {0, 0, 5}, {1603, 0, 0}};
    const ProbeAgent agent(L"", L"D:\\a.exe");
    std::uint32_t exitCode = 77;
    EXPECT_EQ(agent.LaunchHelper(false, L"D:\\a.exe /s", exitCode), launch_result::kNotRun);
    EXPECT_TRUE(
        Logged(L"Agent::LaunchHelper: ERROR: CreateProcess failed: 2 (The system cannot find the "
               L"file specified.)"));
    EXPECT_EQ(agent.LaunchHelper(false, L"D:\\a.exe /s", exitCode), launch_result::kNotRun);
    EXPECT_TRUE(
        Logged(L"Agent::LaunchHelper: ERROR: GetExitCodeProcess failed: 5 (Access is denied.)"));
    EXPECT_EQ(exitCode, 77u);
    EXPECT_EQ(agent.LaunchHelper(false, L"D:\\a.exe /s", exitCode), launch_result::kDone);
    EXPECT_EQ(exitCode, 1603u);
    EXPECT_TRUE(Logged(
        L"Agent::LaunchHelper: D:\\a.exe /s returned: 1603 (Fatal error during installation.)"));
    EXPECT_EQ(Platform().processesRun.size(), 3u);
    // Each run held the installer it was checked with.
    EXPECT_EQ(Platform().heldFiles, std::vector<std::wstring>(3, L"D:\\a.exe"));

    // An installer that someone else has open for writing is not started.
    Platform().locked.insert(L"D:\\a.exe");
    EXPECT_EQ(agent.LaunchHelper(false, L"D:\\a.exe /s", exitCode), launch_result::kNotRun);
    EXPECT_TRUE(Logged(L"Agent::LaunchHelper: ERROR: cannot open D:\\a.exe to keep it unchanged "
                       L"while it runs: 32 (The process cannot access the file because it is "
                       L"being used by another process.)"));
    EXPECT_EQ(Platform().processesRun.size(), 3u);
}

// ---- The host ----

TEST_F(AgentTest, HostDetectionLogsWhatItFound) {
    Platform().nativeArchitecture = 0;  // x86
    EXPECT_FALSE(Agent::DetectHostX64());
    EXPECT_TRUE(Logged(L"Agent::IsHostX64: host system: 32-bit"));
    Platform().nativeArchitecture = 9;
    EXPECT_TRUE(Agent::DetectHostX64());
    EXPECT_TRUE(Logged(L"Agent::IsHostX64: host system: 64-bit"));
}

}  // namespace
