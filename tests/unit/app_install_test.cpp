#include <memory>
#include <string>
#include <vector>

#include "agent/generic_agent.h"
#include "agent/orel_agent.h"
#include "app/app.h"
#include "app/entry.h"
#include "state/force_reboot.h"
#include "test_support.h"

namespace {

const std::wstring kCurrentError = CurrentProductRoot() + L"\\Agent\\LastInstallError";
const std::wstring kLegacyError = LegacyProductRoot() + L"\\Agent\\LastInstallError";
const std::wstring kOrelLine = L"D:\\pkg\\agent.exe /s /v /qn KDX_SKIP_ADD_LDAP_MACHINE_ENTRY=1";

enum class Kind { kGeneric, kZip, kOrel };
using enum Kind;

class AppInstallTest : public FreshTest {
protected:
    // Adds an agent that needs the update, as the version check would have found it.
    static Agent& AddUpdate(App& to, Kind kind) {
        if (kind == kOrel)
            to.agents.push_back(std::make_unique<OrelAgent>(L"8.13.0.7", L"D:\\pkg\\agent.exe"));
        else
            to.agents.push_back(std::make_unique<GenericAgent>(kind == kZip ? L"D:\\pkg\\p.zip" : L"D:\\pkg\\p.msi"));
        to.updates.push_back(to.agents.back().get());
        return *to.agents.back();
    }
    App app;
};

TEST_F(AppInstallTest, CheckPlatformAcceptsTheTagsThatFitTheHost) {
    const std::tuple<const wchar_t*, bool, bool, const wchar_t*> rows[] = {
        {L"64-BitAgent", true, true, nullptr},
        {L"64-BitAgent", false, false, L"arch type mismatch: 64-BitAgent on 32-bit host"},
        {L"32-BitAgent", false, true, nullptr},
        {L"32-BitAgent", true, false, L"arch type mismatch: 32-BitAgent on 64-bit host"},
        {L"use32-bitagenton64", true, true, nullptr}, {L"USE32-BITAGENTON64", false, true, nullptr},
        {L"64-BitAgentX", true, false, nullptr}, {L"", true, false, L"arch type empty"}};
    for (const auto& [arch, x64, ok, said] : rows) {
        SCOPED_TRACE(testing::PrintToString(std::wstring(arch)));
        const ScopedHostX64ForTesting host(x64);
        StartLog();
        app.arch = arch;
        EXPECT_EQ(app.CheckPlatform(), ok);
        EXPECT_EQ(Logged(L"App::CheckPlatform"), !ok);
        EXPECT_TRUE(!said || Logged(std::wstring(L"App::CheckPlatform: ") + said + L"\r\n"));
    }
}

TEST_F(AppInstallTest, CheckVersionKeepsAgentsThatNeedTheUpdateAndHaveAnInstaller) {
    EXPECT_FALSE(app.CheckVersion());  // no agent at all
    const ScopedHostX64ForTesting host(true);
    Platform().installedProducts[OrelAgent::kUpgradeCodes[0]] = {L"{P}", L"8.13.0.7", 0};
    app.agents.push_back(std::make_unique<OrelAgent>(L"8.13.0.7", L"D:\\pkg\\agent.exe"));
    EXPECT_FALSE(app.CheckVersion());
    for (const wchar_t* line : {L"=== Check Version ===", L"Agent::UpdateAvailable: no need to upgrade",
                                L"App::CheckVersion: CompVersion does not require to upgrade",
                                L"App::CheckVersion: Update not available"})
        EXPECT_TRUE(Logged(std::wstring(line) + L"\r\n")) << line;
    app.force = true;
    app.agents.push_back(std::make_unique<OrelAgent>(L"", L""));  // not even forced
    EXPECT_TRUE(app.CheckVersion());
    EXPECT_EQ(app.updates, std::vector<Agent*>{app.agents[0].get()});
    EXPECT_TRUE(Logged(L"App::CheckVersion: GetVersion could not find the update file\r\n"));
    EXPECT_TRUE(Logged(L"Agent::UpdateAvailable: update installer empty\r\n"));
}

// A generic installer's success is -4 and its failure -7; the main agent leaves the result alone.
// An installer that did not run, or said it succeeded, leaves no error.
TEST_F(AppInstallTest, UpdateMapsEachKindsOutcomeToTheRunResult) {
    const std::wstring ok = L"App::Update: agent update succeeded", none = L"App::Update: no Launch";
    const std::wstring failed = L"App::Update: agent reboot required", zip = L"GenericAgent::Launch: invalid extension: D:\\pkg\\p.zip",
                       launching = L"Agent::LaunchHelper: launching: " + kOrelLine;
    const struct { Kind kind; fake::PlatformState::ScriptedProcess run; bool test; RunResult result;
                   bool reboot, stop, error; std::wstring said; } rows[] = {
        {kGeneric, {0, 0, 0}, false, -4, false, false, false, ok},
        {kGeneric, {1641, 0, 0}, false, -4, false, false, false, ok},
        {kGeneric, {3010, 0, 0}, false, -4, true, false, false, ok},
        {kGeneric, {1603, 0, 0}, false, -7, false, true, true, failed},
        {kZip, {}, false, -1, false, true, false, zip},
        {kGeneric, {}, true, -4, false, false, false, ok},
        {kOrel, {}, true, -1, false, false, false, launching},
        {kOrel, {1603, 0, 0}, false, -1, false, false, false, L"=== Update ==="},
        {kOrel, {3010, 0, 0}, false, -1, false, true, false, none},
        {kOrel, {1638, 0, 0}, false, -1, false, true, true, none}};
    fake::SetRegistryString(kCurrentError, L"E42: disk full");
    for (const auto& r : rows) {
        SCOPED_TRACE(&r - rows);
        StartLog();
        ResetUpdateRecordForTesting();
        SetForceReboot(false);
        Platform().processesRun.clear();
        Platform().processScript = {r.run};
        App one;
        one.test = r.test;
        const Agent& agent = AddUpdate(one, r.kind);
        EXPECT_EQ(one.Update(), r.result);
        EXPECT_EQ(ForceReboot(), r.reboot);
        EXPECT_EQ(Platform().processesRun.size(), r.test || r.kind == kZip ? 0u : 1u);
        EXPECT_EQ(Logged(L"App::Update: no Launch\r\n"), r.stop);
        EXPECT_TRUE(Logged(r.said + L"\r\n"));
        EXPECT_EQ(Record().updateVersion, agent.updateVersion());
        const std::wstring code = std::to_wstring(r.run.exitCode);
        EXPECT_EQ(Record().errorCode, r.error ? code : L"");
        EXPECT_EQ(Record().errorDesc, r.error ? L"E42: disk full" : L"");
        EXPECT_EQ(Logged(L"App::Update: Error code and description: " + code + L", E42: disk full, " + code + L" ("),
                  r.error);
    }
    SetForceReboot(false);
}

TEST_F(AppInstallTest, UpdateRunsTheListInOrderAndTheLastAgentDecidesTheRestartProperty) {
    const std::wstring msi = L"msiexec /i D:\\pkg\\p.msi /qn";
    const struct { std::vector<Kind> kinds; const wchar_t* options; std::vector<std::uint32_t> codes;
                   std::vector<std::wstring> ran; RunResult result; } rows[] = {
        {{kOrel}, L"ADDLOCAL=ALL", {0}, {kOrelLine + L" ADDLOCAL=ALL"}, -1},
        {{kOrel, kGeneric}, L"X=1", {0, 0}, {kOrelLine + L" REBOOT=ReallySuppress X=1", msi + L" X=1"}, -4},
        {{kGeneric, kOrel}, L"", {0, 1603}, {msi, kOrelLine}, -4},  // kept by the main agent
        {{kGeneric, kOrel}, L"", {1603}, {msi}, -7}};  // a failure ends the list
    for (const auto& r : rows) {
        SCOPED_TRACE(&r - rows);
        Platform().processesRun.clear();
        App list;
        for (Kind kind : r.kinds) AddUpdate(list, kind);
        list.options = r.options;
        for (std::uint32_t code : r.codes) Platform().processScript.push_back({code, 0, 0});
        EXPECT_EQ(list.Update(), r.result);
        EXPECT_EQ(Platform().processesRun, r.ran);
    }
}

// Only an update in state UPDATING that fits the host is installed. Whatever happens, the
// clean-up releases the agents and deletes the last installer error under both roots, and only it.
TEST_F(AppInstallTest, RunInstallsOnlyAnUpdatingPackageThatFitsTheHost) {
    const ScopedHostX64ForTesting host(true);
    const std::tuple<const wchar_t*, const wchar_t*, const wchar_t*, bool, RunResult> rows[] = {
        {L"updating", L"OTHER", L"64-BitAgent", true, -4}, {L"UPDATING", L"OTHER", L"32-BitAgent", false, -6},
        {L"UPDATING", L"ORELX", L"64-BitAgent", false, -4}, {L"DOWNLOAD", L"OTHER", L"64-BitAgent", false, -1}};
    for (const auto& [state, agent, arch, installs, result] : rows) {
        SCOPED_TRACE(testing::PrintToString(std::wstring(agent) + arch));
        Fresh();
        const std::wstring file = agent == std::wstring(L"OTHER") ? L"p.msi" : L"";
        ArrangeUpdate(CurrentUpdates(), L"u1", {{L"STATE", state}, {L"AGENT", agent}, {L"ARCH", arch}, {L"FILENAME", file}});
        for (const std::wstring& key : {kLegacyError, kCurrentError, kCurrentError + L"X"})
            fake::SetRegistryString(key, L"stale");
        Platform().processScript = {{0, 0, 0}};
        EXPECT_EQ(RunTool(), result);
        EXPECT_EQ(Platform().processesRun.size(), installs ? 1u : 0u);
        EXPECT_FALSE(fake::GetRegistryValue(kLegacyError) || fake::GetRegistryValue(kCurrentError));
        EXPECT_TRUE(fake::GetRegistryValue(kCurrentError + L"X"));
    }
    AddUpdate(app, kOrel);
    app.Cleanup();
    EXPECT_TRUE(app.agents.empty());
    EXPECT_TRUE(app.updates.empty());
}

}  // namespace
