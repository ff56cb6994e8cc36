// The install path: platform and version checks, the installer launches and what their outcome
// makes of the run's result, the clean-up, and the run sequence from set-up to result.
#include <memory>
#include <string>
#include <vector>

#include "state/force_reboot.h"
#include "agent/generic_agent.h"
#include "agent/orel_agent.h"
#include "app/app.h"
#include "app/entry.h"
#include "state/registry.h"
#include "test_support.h"

namespace {

const std::wstring kCurrentError = L"HKLM\\Software\\Quorvane\\Lumenar\\Agent\\LastInstallError";
const std::wstring kLegacyError =
    L"HKLM\\Software\\Tessix, Inc.\\Tessix KDX\\Agent\\LastInstallError";

enum class Kind { kGeneric, kGenericExe, kOrel };

class AppInstallTest : public ToolTest {
protected:
    // Adds an agent that needs the update, as the version check would have found it.
    Agent& AddUpdate(Kind kind) {
        std::unique_ptr<Agent> agent;
        if (kind == Kind::kOrel)
            agent = std::make_unique<OrelAgent>(L"8.13.0.7", L"D:\\pkg\\agent.exe");
        else
            agent = std::make_unique<GenericAgent>(kind == Kind::kGeneric ? L"D:\\pkg\\p.msi"
                                                                          : L"D:\\pkg\\setup.exe");
        app.updates.push_back(agent.get());
        app.agents.push_back(std::move(agent));
        return *app.agents.back();
    }

    void ScriptExitCodes(const std::vector<std::uint32_t>& codes) {
        for (std::uint32_t code : codes) Platform().processScript.push_back({code, 0, 0});
    }

    App app;
};

// ---- Platform ----

struct PlatformCase {
    const wchar_t* arch;
    bool hostX64;
    bool accepted;
    const wchar_t* logged;  // expected log line, or nullptr
};

void PrintTo(const PlatformCase& c, std::ostream* os) {
    *os << ::testing::PrintToString(std::wstring(c.arch)) << (c.hostX64 ? " on x64" : " on x86");
}

class AppCheckPlatformTest : public AppInstallTest,
                             public ::testing::WithParamInterface<PlatformCase> {};

TEST_P(AppCheckPlatformTest, AcceptsTheTagsThatFitTheHost) {
    const ScopedHostX64ForTesting host(GetParam().hostX64);
    app.arch = GetParam().arch;
    EXPECT_EQ(app.CheckPlatform(), GetParam().accepted);
    if (GetParam().logged) {
        EXPECT_TRUE(Logged(GetParam().logged)) << LogText();
    } else {
        EXPECT_FALSE(Logged(L"App::CheckPlatform"));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Tags, AppCheckPlatformTest,
    ::testing::Values(
        PlatformCase{L"64-BitAgent", true, true, nullptr},
        PlatformCase{L"64-BitAgent", false, false,
                     L"App::CheckPlatform: arch type mismatch: 64-BitAgent on 32-bit host\r\n"},
        PlatformCase{L"32-BitAgent", false, true, nullptr},
        PlatformCase{L"32-BitAgent", true, false,
                     L"App::CheckPlatform: arch type mismatch: 32-BitAgent on 64-bit host\r\n"},
        PlatformCase{L"use32-bitagenton64", true, true, nullptr},
        PlatformCase{L"USE32-BITAGENTON64", false, true, nullptr},
        PlatformCase{L"64-BitAgentX", true, false,
                     L"App::CheckPlatform: arch type mismatch: 64-BitAgentX on 64-bit host\r\n"},
        PlatformCase{L"", true, false, L"App::CheckPlatform: arch type empty\r\n"}));

// ---- Version ----

TEST_F(AppInstallTest, CheckVersionNeedsAnAgentThatWantsTheUpdate) {
    EXPECT_FALSE(app.CheckVersion());  // no agent at all
    app.agents.push_back(std::make_unique<GenericAgent>(L"D:\\pkg\\p.msi"));
    EXPECT_TRUE(app.CheckVersion());
    ASSERT_EQ(app.updates.size(), 1u);
    EXPECT_EQ(app.updates[0], app.agents[0].get());
    EXPECT_TRUE(Logged(L"=== Check Version ===\r\n"));
}

TEST_F(AppInstallTest, CheckVersionOnlyLogsUntilUpdateAvailableDecides) {
    const ScopedHostX64ForTesting host(true);
    Platform().installedProducts[OrelAgent::kUpgradeCodes[0]] = {L"{P}", L"8.13.0.7", 0};
    app.agents.push_back(std::make_unique<OrelAgent>(L"8.13.0.7", L"D:\\pkg\\agent.exe"));
    EXPECT_FALSE(app.CheckVersion());
    EXPECT_TRUE(Logged(L"App::CheckVersion: CompVersion does not require to upgrade\r\n"));
    EXPECT_TRUE(Logged(L"App::CheckVersion: Update not available\r\n"));
    app.force = true;
    EXPECT_TRUE(app.CheckVersion());

    App noInstaller;  // not even forced
    noInstaller.force = true;
    noInstaller.agents.push_back(std::make_unique<OrelAgent>(L"", L""));
    EXPECT_FALSE(noInstaller.CheckVersion());
    EXPECT_TRUE(Logged(L"App::CheckVersion: GetVersion could not find the update file\r\n"));
}

// ---- Update: installer exit codes to the run's result ----

struct ExitCase {
    Kind kind;
    std::uint32_t exitCode;
    RunResult result;
    bool forceReboot;
    bool noLaunch;        // the loop was ended early
    bool errorLogged;     // the error line and the process-wide texts
    const wchar_t* said;  // the generic outcome's log line, or nullptr
};

void PrintTo(const ExitCase& c, std::ostream* os) {
    *os << (c.kind == Kind::kOrel ? "main agent exit " : "generic exit ") << c.exitCode;
}

class AppUpdateExitCodeTest : public AppInstallTest,
                              public ::testing::WithParamInterface<ExitCase> {};

TEST_P(AppUpdateExitCodeTest, MapsToTheRunResult) {
    fake::SetRegistryString(kCurrentError, L"E42: disk full");
    const ExitCase& c = GetParam();
    const Agent& agent = AddUpdate(c.kind);
    ScriptExitCodes({c.exitCode});
    EXPECT_EQ(app.Update(), c.result);
    EXPECT_EQ(ForceReboot(), c.forceReboot);
    EXPECT_TRUE(Logged(L"=== Update ===\r\n"));
    EXPECT_EQ(Logged(L"App::Update: no Launch\r\n"), c.noLaunch);
    if (c.said) {
        EXPECT_TRUE(Logged(std::wstring(L"App::Update: ") + c.said + L"\r\n"));
    }
    const UpdateRecord& record = ActiveUpdateRecord();
    EXPECT_EQ(record.updateVersion, agent.updateVersion());
    if (c.errorLogged) {
        const std::wstring code = std::to_wstring(c.exitCode);
        EXPECT_EQ(record.errorCode, code);
        EXPECT_EQ(record.errorDesc, L"E42: disk full");
        EXPECT_TRUE(Logged(L"App::Update: Error code and description: " + code +
                           L", E42: disk full, " + code + L" ("))
            << LogText();
    } else {
        EXPECT_TRUE(record.errorCode.empty());
        EXPECT_FALSE(Logged(L"Error code and description"));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Codes, AppUpdateExitCodeTest,
    ::testing::Values(
        ExitCase{Kind::kGeneric, 0, -4, false, false, false, L"agent update succeeded"},
        ExitCase{Kind::kGeneric, 1641, -4, false, false, false, L"agent update succeeded"},
        ExitCase{Kind::kGeneric, 3010, -4, true, false, false, L"agent update succeeded"},
        ExitCase{Kind::kGeneric, 1603, -7, false, true, true, L"agent reboot required"},
        ExitCase{Kind::kGeneric, 1638, -7, false, true, true, L"agent reboot required"},
        ExitCase{Kind::kOrel, 0, -1, false, false, false, nullptr},
        ExitCase{Kind::kOrel, 1603, -1, false, false, false, nullptr},
        ExitCase{Kind::kOrel, 1641, -1, false, false, false, nullptr},
        ExitCase{Kind::kOrel, 3010, -1, false, true, false, nullptr},
        ExitCase{Kind::kOrel, 1638, -1, false, true, true, nullptr}));

// ---- Update: modes and the order of several agents ----

struct ModeCase {
    std::vector<Kind> kinds;
    const wchar_t* options;
    std::vector<std::uint32_t> exitCodes;
    std::vector<std::wstring> commandLines;  // what ran, in order
    RunResult result;
};

void PrintTo(const ModeCase& c, std::ostream* os) {
    *os << c.kinds.size() << " agents, options "
        << ::testing::PrintToString(std::wstring(c.options));
}

class AppUpdateModeTest : public AppInstallTest, public ::testing::WithParamInterface<ModeCase> {};

TEST_P(AppUpdateModeTest, LastAgentDecidesTheRestartProperty) {
    for (Kind kind : GetParam().kinds) AddUpdate(kind);
    app.options = GetParam().options;
    ScriptExitCodes(GetParam().exitCodes);
    EXPECT_EQ(app.Update(), GetParam().result);
    EXPECT_EQ(Platform().processesRun, GetParam().commandLines);
}

const std::wstring kOrelLine = L"D:\\pkg\\agent.exe /s /v /qn KDX_SKIP_ADD_LDAP_MACHINE_ENTRY=1";

INSTANTIATE_TEST_SUITE_P(
    Lists, AppUpdateModeTest,
    ::testing::Values(
        ModeCase{{Kind::kOrel}, L"ADDLOCAL=ALL", {0}, {kOrelLine + L" ADDLOCAL=ALL"}, -1},
        ModeCase{{Kind::kGenericExe}, L"X=1", {0}, {L"D:\\pkg\\setup.exe /s /v /qn X=1"}, -4},
        ModeCase{{Kind::kOrel, Kind::kGeneric},
                 L"X=1",
                 {0, 0},
                 {kOrelLine + L" REBOOT=ReallySuppress X=1", L"msiexec /i D:\\pkg\\p.msi /qn X=1"},
                 -4},
        ModeCase{{Kind::kGeneric, Kind::kOrel},
                 L"",
                 {0, 1603},
                 {L"msiexec /i D:\\pkg\\p.msi /qn", kOrelLine},
                 -4},  // the main agent keeps what the generic one set
        ModeCase{{Kind::kGeneric, Kind::kOrel},
                 L"",
                 {1603},
                 {L"msiexec /i D:\\pkg\\p.msi /qn"},
                 -7}));  // a failed installer ends the list

TEST_F(AppInstallTest, NoUpdatesIsAFailure) {
    EXPECT_EQ(app.Update(), -1);
    EXPECT_TRUE(Logged(L"=== Update ===\r\n"));
    EXPECT_TRUE(Platform().processesRun.empty());
}

TEST_F(AppInstallTest, TestModeRunsNothing) {
    app.test = true;
    AddUpdate(Kind::kGeneric);
    EXPECT_EQ(app.Update(), -4);
    App mainAgent;
    mainAgent.test = true;
    auto orel = std::make_unique<OrelAgent>(L"", L"D:\\pkg\\agent.exe");
    mainAgent.updates.push_back(orel.get());
    EXPECT_EQ(mainAgent.Update(), -1);
    EXPECT_TRUE(Platform().processesRun.empty());
    EXPECT_TRUE(Logged(L"Agent::LaunchHelper: launching: " + kOrelLine + L"\r\n"));
}

TEST_F(AppInstallTest, InstallerThatNeverRanLogsNoError) {
    Platform().processScript.push_back({0, 2, 0});  // CreateProcessW fails
    AddUpdate(Kind::kGeneric);
    EXPECT_EQ(app.Update(), -1);
    EXPECT_TRUE(Logged(L"App::Update: no Launch\r\n"));
    EXPECT_FALSE(Logged(L"Error code and description"));
    App invalid;
    auto zip = std::make_unique<GenericAgent>(L"D:\\pkg\\p.zip");
    invalid.updates.push_back(zip.get());
    EXPECT_EQ(invalid.Update(), -1);
    EXPECT_TRUE(Logged(L"GenericAgent::Launch: invalid extension: D:\\pkg\\p.zip"));
    EXPECT_FALSE(Logged(L"Error code and description"));
    EXPECT_EQ(Platform().processesRun.size(), 1u);  // only the first, failed, attempt
}

// ---- Clean-up ----

TEST_F(AppInstallTest, CleanupReleasesAgentsAndDeletesTheLastErrorUnderBothRoots) {
    fake::SetRegistryString(kCurrentError, L"a");
    fake::SetRegistryString(kLegacyError, L"b");
    fake::SetRegistryString(CurrentProductRoot() + L"\\Agent\\Other", L"kept");
    AddUpdate(Kind::kOrel);
    app.Cleanup();
    EXPECT_TRUE(app.agents.empty());
    EXPECT_TRUE(app.updates.empty());
    EXPECT_FALSE(fake::GetRegistryValue(kCurrentError));
    EXPECT_FALSE(fake::GetRegistryValue(kLegacyError));
    EXPECT_TRUE(fake::GetRegistryValue(CurrentProductRoot() + L"\\Agent\\Other"));
    EXPECT_FALSE(Logged(L"App::Cleanup"));
}

// ---- The run sequence from set-up to result ----

struct RunCase {
    const wchar_t* name;
    const wchar_t* state;
    const wchar_t* agent;
    const wchar_t* arch;
    const wchar_t* arguments;
    std::vector<std::uint32_t> exitCodes;
    RunResult result;
    bool installerRan;
};

void PrintTo(const RunCase& c, std::ostream* os) {
    *os << ::testing::PrintToString(std::wstring(c.name));
}

class RunSequenceTest : public AppInstallTest, public ::testing::WithParamInterface<RunCase> {};

TEST_P(RunSequenceTest, InstallsOnlyAnUpdateInStateUpdating) {
    const ScopedHostX64ForTesting host(true);
    const RunCase& c = GetParam();
    const std::wstring key = CurrentProductRoot() + L"\\Agent\\Update\\u1\\";
    fake::SetRegistryValue(
        key + L"URL", {platform::regtype::kMultiSz, core::Utf16BytesFromWide(L"https://a", true)});
    fake::SetRegistryString(key + L"STATE", c.state);
    fake::SetRegistryString(key + L"AGENT", c.agent);
    fake::SetRegistryString(key + L"ARCH", c.arch);
    if (c.agent == std::wstring(L"OTHER")) fake::SetRegistryString(key + L"FILENAME", L"p.msi");
    fake::SetRegistryString(kLegacyError, L"stale");
    Platform().commandLine = L"updatetool.exe" + std::wstring(c.arguments);
    ScriptExitCodes(c.exitCodes);

    EXPECT_EQ(RunTool(), c.result);
    EXPECT_EQ(Platform().processesRun.empty(), !c.installerRan);
    if (c.installerRan) {
        EXPECT_EQ(Platform().processesRun[0], L"msiexec /i " + GetWorkspace() + L"\\p.msi /qn");
    }
    EXPECT_FALSE(fake::GetRegistryValue(kLegacyError));  // cleaned up whatever happened
    EXPECT_TRUE(Logged(L"wmain: Updatetool rc = " + RunResultName(c.result) + L"\r\n"));
}

INSTANTIATE_TEST_SUITE_P(
    Runs, RunSequenceTest,
    ::testing::Values(
        RunCase{L"generic installed", L"UPDATING", L"OTHER", L"64-BitAgent", L"", {0}, -4, true},
        RunCase{L"generic failed", L"updating", L"OTHER", L"64-BitAgent", L"", {1603}, -7, true},
        RunCase{L"wrong platform", L"UPDATING", L"OTHER", L"32-BitAgent", L"", {}, -6, false},
        RunCase{L"no agent", L"UPDATING", L"ORELX", L"64-BitAgent", L"", {}, -4, false},
        RunCase{L"help", L"UPDATING", L"OTHER", L"64-BitAgent", L" -help", {}, -1, false},
        RunCase{L"download state", L"DOWNLOAD", L"OTHER", L"64-BitAgent", L"", {}, -1, false}));

}  // namespace
