// The agent base against the fake platform: version texts and their comparison, the installer
// search in the workspace and the installer launch.
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

using AgentTest = ToolTest;

TEST(AgentVersion, ReadsLikeTheCRuntimeWithAutomaticBase) {
    const std::tuple<const wchar_t*, bool, VersionNumbers> rows[] = {
        {L"8.13.0-12345", true, {{8, 13, 0}, 12345}},
        {L"8.12.0", true, {{8, 12, 0}, 0}},
        {L"1_2-3.4.5", true, {{1, 2, 3}, 4}},
        {L"08.010.9", true, {{0, 8, 9}, 0}},
        {L"0x1F.0X10.0xg.0xFFFFFFFF", true, {{31, 16, 0}, 0xFFFFFFFFu}},
        {L"'-1'.99999999999.'-2147483648'.99999999999", true, {{-1, INT_MAX, INT_MIN}, ~0u}},
        {L"'-2147483649'.0.0.'-1'", true, {{INT_MIN, 0, 0}, 0xFFFFFFFFu}},
        {L"8..12", false, {}},
    };
    for (const auto& [text, ok, expected] : rows) {
        const VersionNumbers untouched{{7, 7, 7}, 7};  // what a refusal leaves
        VersionNumbers v = ok ? VersionNumbers{} : untouched;
        EXPECT_EQ(ParseVersionText(text, v), ok) << testing::PrintToString(std::wstring(text));
        EXPECT_EQ(v, ok ? expected : untouched);
    }
}

TEST_F(AgentTest, CompVersionDecidesAndSaysWhatItCouldNotRead) {
    const std::tuple<const wchar_t*, const wchar_t*, bool, const wchar_t*> rows[] = {
        {L"8.12.0", L"8.12.0.9000", false, nullptr},
        {L"8.12.0.100", L"8.12.0.101", true, nullptr},
        {L"8.12.0.100", L"8.12.0.100", false, nullptr},
        {L"8.12.1", L"8.12.0.999", false, nullptr},
        {L"8.12.0.9", L"8.12.1.1", true, nullptr},
        {L"8.13.0.1", L"9.0.0", true, nullptr},
        {L"7.1.0.4", L"0.0.0.5", true, nullptr},  // all zero: only the builds are compared
        {L"7.1.0.6", L"0.0.0.5", false, nullptr},
        {L"1.0.0.6", L"'-1'.0.0.7", true, nullptr},
        {L"", L"1.0.0", true, L"installed version not found"},
        {L"9", L"1.0.0", true, L"cannot determine installed version: 9"},
        {L"8.12.0.1", L"8.12", false, L"cannot determine update version: 8.12"},
    };
    for (const auto& [installed, update, upgrade, said] : rows) {
        SCOPED_TRACE(testing::PrintToString(std::wstring(installed) + L" vs " + update));
        StartLog();
        ProbeAgent agent(L"", L"");
        agent.SetVersions(installed, update);
        EXPECT_EQ(agent.CompVersion(), upgrade);
        EXPECT_EQ(agent.upgradeNeeded(), upgrade);
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
    struct Row {
        bool x64;
        std::vector<std::wstring> files;  // after the prefix
        std::wstring named, found;        // the installer given, the one found; "": none
        const wchar_t* version;
        bool msi;
    };
    const Row rows[] = {
        {true, {L"-X86_64-8.1.0-77.exe", L"_8.2.0.msi"}, L"", in + L"-X86_64-8.1.0-77.exe",
         L"8.1.0-77", false},
        {false, {L"-x86_64-8.1.0-77.exe", L"_8.2.0.MSI"}, L"", in + L"_8.2.0.MSI", L"8.2.0", true},
        {true, {L"-x86_64-Direct-Connection-8.0.0.exe"}, L"", L"", L"", false},
        {true, {}, L"", L"", L"", false},
        {true, {}, L"D:\\pkg\\agent.Msi", L"D:\\pkg\\agent.Msi", L"", true},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.files.size());
        const ScopedHostX64ForTesting host(r.x64);
        StartLog();
        Platform().files.clear();
        for (const std::wstring& name : r.files) Platform().files[in + name] = {};
        ProbeAgent agent(L"", r.named);
        EXPECT_EQ(agent.FindUpdateVersion(L"Tessix-Lumenar-Agent", true, L"direct-connection"),
                  !r.found.empty());
        EXPECT_EQ(agent.installerPath(), r.found);
        EXPECT_EQ(agent.updateVersion(), r.version);
        EXPECT_EQ(agent.installerIsMsi(), r.msi);
        EXPECT_EQ(Logged(L"Agent::FindUpdateVersion: updateFilename: " + r.found + L"\r\n"),
                  !r.found.empty());
        EXPECT_EQ(Logged(L"Agent::FindUpdateVersion: FindFirstFile error: " + in +
                         L"-x86_64* 2 (The system cannot find the file specified.)\r\n"),
                  r.found.empty() && r.files.empty());
    }
}

TEST_F(AgentTest, LaunchHelperRefusesToRunNothing) {
    std::uint32_t exitCode = 77;
    EXPECT_EQ(ProbeAgent(L"", L"D:\\a.exe").LaunchHelper(false, L"", exitCode), 1);
    EXPECT_TRUE(Logged(L"Agent::LaunchHelper: ERROR: update command line empty"));
    EXPECT_EQ(ProbeAgent(L"", L"").LaunchHelper(false, L"x.exe", exitCode), 1);
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

using enum Installer;
constexpr LaunchResult kDone = launch_result::kDone, kNotRun = launch_result::kNotRun;

// The installer that was checked is held while it runs; one someone else may still change is not
// started; with nothing to protect, the plain start says what is wrong.
INSTANTIATE_TEST_SUITE_P(
    Installers, LaunchHelperTest,
    ::testing::Values(
        LaunchCase{L"D:\\a.msi", kPresent, {1603, 0, 0}, kDone, 1603,
                   L"msiexec /i D:\\a.msi /qn returned: 1603 (Fatal error during installation.)",
                   L"D:\\a.msi"},
        LaunchCase{L"D:\\a.msi", kPresent, {0, 5, 0}, kNotRun, 77,
                   L"ERROR: CreateProcess failed: 5 (Access is denied.)", L"D:\\a.msi"},
        LaunchCase{L"D:\\a.msi", kPresent, {0, 0, 5}, kNotRun, 77,
                   L"ERROR: GetExitCodeProcess failed: 5 (Access is denied.)", L"D:\\a.msi"},
        LaunchCase{L"D:\\a.msi", kOpenForWriting, {}, kNotRun, 77,
                   L"ERROR: cannot open D:\\a.msi to keep it unchanged while it runs: 32 (The "
                   L"process cannot access the file because it is being used by another process.)",
                   nullptr},
        LaunchCase{L"D:\\a.msi", kMissing, {1619, 0, 0}, kDone, 1619,
                   L"msiexec /i D:\\a.msi /qn returned: 1619 (This installation package could "
                   L"not be opened.)", L""},
        LaunchCase{L"D:\\a.exe", kMissing, {0, 2, 0}, kNotRun, 77,
                   L"ERROR: CreateProcess failed: 2 (The system cannot find the file specified.)",
                   L""}));

TEST_F(AgentTest, HostDetectionLogsWhatItFound) {
    Platform().nativeArchitecture = 0;  // x86
    EXPECT_FALSE(Agent::DetectHostX64());
    Platform().nativeArchitecture = 9;
    EXPECT_TRUE(Agent::DetectHostX64());
    EXPECT_TRUE(Logged(L"Agent::IsHostX64: host system: 32-bit\r\n"));
    EXPECT_TRUE(Logged(L"Agent::IsHostX64: host system: 64-bit\r\n"));
}

}  // namespace
