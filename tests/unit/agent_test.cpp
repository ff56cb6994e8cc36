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

enum class Installer { kPresent, kMissing, kOpenForWriting };

struct LaunchCase {
    const wchar_t* path;
    Installer installer;
    fake::PlatformState::ScriptedProcess process;
    LaunchResult result;
    std::uint32_t exitCode;  // 77: untouched
    const wchar_t* line;     // after "Agent::LaunchHelper: "
    const wchar_t* held;     // nullptr: nothing started
};

class LaunchHelperTest : public AgentTest, public ::testing::WithParamInterface<LaunchCase> {};

TEST_P(LaunchHelperTest, ReportsWhatHappenedToTheInstaller) {
    const LaunchCase& c = GetParam();
    if (c.installer != Installer::kMissing) Platform().files[c.path] = {'p'};
    if (c.installer == Installer::kOpenForWriting) Platform().locked.insert(c.path);
    Platform().processScript = {c.process};
    // A package runs through msiexec, a program by itself.
    const std::wstring line = std::wstring(c.path).ends_with(L".msi")
                                  ? std::wstring(L"msiexec /i ") + c.path + L" /qn"
                                  : std::wstring(c.path) + L" /s";
    std::uint32_t exitCode = 77;
    EXPECT_EQ(ProbeAgent(L"", c.path).LaunchHelper(false, line, exitCode), c.result);
    EXPECT_EQ(exitCode, c.exitCode);
    EXPECT_TRUE(Logged(std::wstring(L"Agent::LaunchHelper: ") + c.line + L"\r\n"));
    EXPECT_EQ(Platform().heldFiles,
              c.held ? std::vector<std::wstring>{c.held} : std::vector<std::wstring>{});
}

constexpr const wchar_t* kOpenForWritingLine =
    L"ERROR: cannot open D:\\a.msi to keep it unchanged while it runs: 32 (The process cannot "
    L"access the file because it is being used by another process.)";

INSTANTIATE_TEST_SUITE_P(
    Installers, LaunchHelperTest,
    ::testing::Values(
        // The installer that was checked is held while it runs.
        LaunchCase{L"D:\\a.msi", Installer::kPresent, {1603, 0, 0}, launch_result::kDone, 1603,
                   L"msiexec /i D:\\a.msi /qn returned: 1603 (Fatal error during installation.)",
                   L"D:\\a.msi"},
        LaunchCase{L"D:\\a.msi", Installer::kPresent, {0, 5, 0}, launch_result::kNotRun, 77,
                   L"ERROR: CreateProcess failed: 5 (Access is denied.)", L"D:\\a.msi"},
        LaunchCase{L"D:\\a.msi", Installer::kPresent, {0, 0, 5}, launch_result::kNotRun, 77,
                   L"ERROR: GetExitCodeProcess failed: 5 (Access is denied.)", L"D:\\a.msi"},
        // Someone else may still change it: not started.
        LaunchCase{L"D:\\a.msi", Installer::kOpenForWriting, {}, launch_result::kNotRun, 77,
                   kOpenForWritingLine, nullptr},
        // Nothing to protect: the plain start says what is wrong.
        LaunchCase{L"D:\\a.msi", Installer::kMissing, {1619, 0, 0}, launch_result::kDone, 1619,
                   L"msiexec /i D:\\a.msi /qn returned: 1619 (This installation package could not "
                   L"be opened.)",
                   L""},
        LaunchCase{L"D:\\a.exe", Installer::kMissing, {0, 2, 0}, launch_result::kNotRun, 77,
                   L"ERROR: CreateProcess failed: 2 (The system cannot find the file specified.)",
                   L""}));

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
