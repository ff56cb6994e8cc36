#include "state/state_transitions.h"

#include <cstdint>

#include "state/registry.h"
#include "state/update_record.h"
#include "test_support.h"

namespace {

constexpr const wchar_t* kKey = L"{0D6A}";

std::wstring CurrentValue(const wchar_t* name) {
    return RegReadString(CurrentProductRoot() + L"\\Agent\\Update\\" + kKey + L"\\" + name, L"<none>");
}
std::wstring LegacyValue(const wchar_t* name) {
    return RegReadString(LegacyProductRoot() + L"\\Agent\\Update\\" + kKey + L"\\" + name, L"<none>");
}
std::wstring NeedReboot(const std::wstring& root) {
    return RegReadString(root + L"\\Agent\\UpdateStatusVolatile\\NeedReboot", L"<none>");
}

class StateTransitionsTest : public ToolTest {
protected:
    // An update key as the service leaves it, read into the record as a run would.
    void Announce(const wchar_t* state, const wchar_t* result, int retry,
                  const std::wstring& root = CurrentProductRoot()) {
        const std::wstring key = root + L"\\Agent\\Update\\" + kKey + L"\\";
        fake::SetRegistryString(key + L"STATE", state);
        fake::SetRegistryString(key + L"AGENT", L"OTHER");
        fake::SetRegistryValue(key + L"URL", {platform::regtype::kMultiSz,
                                              core::Utf16BytesFromWide(L"https://a/p.msi", true)});
        if (*result) fake::SetRegistryString(key + L"RESULT", result);
        fake::SetRegistryString(key + L"RETRY", std::to_wstring(retry));
        ASSERT_TRUE(UtilGetActiveUpdate());
        ASSERT_TRUE(UtilGetRegistry());
    }
    UpdateRecord& Record() { return ActiveUpdateRecord(); }
};

struct DownloadCase {
    const wchar_t* result;
    int retry;
    const wchar_t* state;       // stored afterwards
    const wchar_t* storedResult;
    int storedRetry;
    bool waited;
};

class DownloadOutcomeTest : public StateTransitionsTest,
                            public ::testing::WithParamInterface<DownloadCase> {};

TEST_P(DownloadOutcomeTest, MovesTheDownloadOn) {
    const DownloadCase& c = GetParam();
    Announce(L"DOWNLOAD", c.result, c.retry);
    ASSERT_TRUE(Util_UpdateDone(run_result::kFailure, false));
    EXPECT_EQ(CurrentValue(L"STATE"), c.state);
    EXPECT_EQ(CurrentValue(L"RESULT"), c.storedResult);
    EXPECT_EQ(CurrentValue(L"RETRY"), std::to_wstring(c.storedRetry));
    EXPECT_EQ(Platform().sleeps, c.waited ? std::vector<std::uint32_t>{300000}
                                          : std::vector<std::uint32_t>{});
    EXPECT_EQ(NeedReboot(CurrentProductRoot()), L"<none>");
}

INSTANTIATE_TEST_SUITE_P(
    Results, DownloadOutcomeTest,
    ::testing::Values(
        // Downloaded: WAIT for the service to move it to UPDATING.
        DownloadCase{L"OK", 0, L"WAIT", L"OK", 0, false},
        // Failed with attempts left: wait, then READY for the next run.
        DownloadCase{L"FAILURE", 0, L"READY", L"PROGRESS", 1, true},
        // RESULT comparisons are exact: "ok" is a failure that consumes an attempt.
        DownloadCase{L"ok", 1, L"READY", L"PROGRESS", 2, true},
        // Limit crossed: DONE with FAILURE.
        DownloadCase{L"FAILURE", 2, L"DONE", L"FAILURE", 3, false},
        // Limit crossed with an invalid configuration: the state stays.
        DownloadCase{L"INVALID", 2, L"DOWNLOAD", L"INVALID", 3, false},
        // A count at the top of its range does not wrap round into a fresh set of attempts.
        DownloadCase{L"FAILURE", INT32_MAX, L"DONE", L"FAILURE", INT32_MAX, false}));

TEST_F(StateTransitionsTest, RetryWaitIsTheConfiguredPeriod) {
    Announce(L"DOWNLOAD", L"FAILURE", 0);
    Record().retryWaitMs = 120000;
    ASSERT_TRUE(Util_UpdateDone(run_result::kFailure, false));
    EXPECT_EQ(Platform().sleeps, std::vector<std::uint32_t>{120000});
    EXPECT_TRUE(Logged(L"Util_UpdateDone: wait for 2 mins\r\n"));
    EXPECT_TRUE(Logged(L"Util_UpdateDone: done waiting\r\n"));
}

TEST_F(StateTransitionsTest, ExhaustedAttemptLogsBothRetryLines) {
    Announce(L"DOWNLOAD", L"FAILURE", 2);
    ASSERT_TRUE(Util_UpdateDone(run_result::kFailure, false));
    EXPECT_TRUE(Logged(L"UtilTryAgain: exceeded retry attempts: 3, max attempt allowed: 2\r\n"));
    EXPECT_TRUE(Logged(L"UtilTryAgain: updating retry: 3, max attempt allowed: 2\r\n"));
    EXPECT_TRUE(Logged(L"Util_UpdateDone: Download failure crossed download retry limit\r\n"));
}

struct InstallCase {
    RunResult rc;
    int retry;
    const wchar_t* state;
    const wchar_t* result;
    const wchar_t* retryText;
    bool reboot;
};

class InstallOutcomeTest : public StateTransitionsTest,
                           public ::testing::WithParamInterface<InstallCase> {};

TEST_P(InstallOutcomeTest, MovesTheInstallOn) {
    const InstallCase& c = GetParam();
    Announce(L"UPDATING", L"", c.retry);
    ASSERT_TRUE(Util_UpdateDone(c.rc, false));
    EXPECT_EQ(CurrentValue(L"STATE"), c.state);
    EXPECT_EQ(CurrentValue(L"RESULT"), c.result);
    EXPECT_EQ(CurrentValue(L"RETRY"), c.retryText);
    EXPECT_EQ(NeedReboot(CurrentProductRoot()), c.reboot ? L"1" : L"<none>");
    EXPECT_EQ(Record().forceReboot, c.reboot);
    if (c.reboot) {
        EXPECT_TRUE(fake::IsVolatileKey(CurrentProductRoot() + L"\\Agent\\UpdateStatusVolatile"));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Results, InstallOutcomeTest,
    ::testing::Values(InstallCase{-4, 1, L"DONE", L"OK", L"0", false},
                      InstallCase{-1, 0, L"UPDATING", L"FAILURE", L"0", false},
                      InstallCase{-5, 0, L"UPDATING", L"FAILURE", L"0", false},
                      InstallCase{-6, 0, L"UPDATING", L"INVALID", L"0", false},
                      // Success and a restart request keep the update going behind a restart.
                      InstallCase{0, 0, L"WAIT", L"PROGRESS", L"1", true},
                      InstallCase{-7, 1, L"WAIT", L"PROGRESS", L"2", true},
                      InstallCase{-7, 2, L"UPDATING", L"FAILURE", L"3", false}));

TEST_F(StateTransitionsTest, SuccessfulInstallDeletesThePackage) {
    Announce(L"UPDATING", L"", 0);
    const std::wstring package = GetWorkspace() + L"\\agent.msi";
    Platform().files[package] = {1};
    SetDownloadedFilePath(package);
    ASSERT_TRUE(Util_UpdateDone(run_result::kNoAgent, false));
    EXPECT_FALSE(Platform().files.count(package));
    EXPECT_TRUE(Logged(L"Util_UpdateDone: agent update result: ERR_NOAGENT\r\n"));
}

TEST_F(StateTransitionsTest, PendingRestartRetriesTwiceThenFails) {
    Announce(L"READY", L"", 0);
    const std::vector<std::pair<const wchar_t*, const wchar_t*>> expected{
        {L"READY", L"PREFLIGHTCHECK_INPROGRESS"},
        {L"READY", L"PREFLIGHTCHECK_INPROGRESS"},
        {L"DONE", L"PREFLIGHTCHECK_FAILURE"}};
    for (const auto& [state, result] : expected) {
        ASSERT_TRUE(UtilGetRegistry());
        Record().forceReboot = false;
        ASSERT_TRUE(Util_UpdateDone(run_result::kPreflightReboot, false));
        EXPECT_EQ(CurrentValue(L"STATE"), state);
        EXPECT_EQ(CurrentValue(L"RESULT"), result);
    }
    EXPECT_EQ(CurrentValue(L"ERRORCODE"), L"PREFLIGHT_ERR_REBOOT_PENDING");
    EXPECT_EQ(CurrentValue(L"RETRY"), L"0");
    EXPECT_FALSE(Record().forceReboot);
}

struct PreflightCase {
    RunResult rc;
    bool legacyWorkflow;
    const wchar_t* state;
    const wchar_t* result;
    const wchar_t* errorCode;
    const wchar_t* complete;
};

class PreflightOutcomeTest : public StateTransitionsTest,
                             public ::testing::WithParamInterface<PreflightCase> {};

TEST_P(PreflightOutcomeTest, RecordsThePreflightResult) {
    const PreflightCase& c = GetParam();
    Announce(L"DOWNLOAD", L"", 1);
    ASSERT_TRUE(Util_UpdateDone(c.rc, c.legacyWorkflow));
    EXPECT_EQ(CurrentValue(L"STATE"), c.state);
    EXPECT_EQ(CurrentValue(L"RESULT"), c.result);
    EXPECT_EQ(CurrentValue(L"ERRORCODE"), c.errorCode);
    EXPECT_EQ(CurrentValue(L"PreflightCheckComplete"), c.complete);
}

INSTANTIATE_TEST_SUITE_P(
    Results, PreflightOutcomeTest,
    ::testing::Values(
        PreflightCase{-13, false, L"DONE", L"PREFLIGHTCHECK_FAILURE", L"PREFLIGHT_ERR_WIN_UPDATE_INPROGRESS", L"<none>"},
        PreflightCase{-12, false, L"DONE", L"PREFLIGHTCHECK_FAILURE", L"PREFLIGHT_ERR_INSUFFICIENT_DISKSPACE", L"<none>"},
        PreflightCase{-10, false, L"DONE", L"PREFLIGHTCHECK_FAILURE", L"", L"<none>"},
        PreflightCase{-9, false, L"DONE", L"PREFLIGHTCHECK_OK", L"", L"1"},
        PreflightCase{-9, true, L"READY", L"OK", L"", L"1"}));

TEST_F(StateTransitionsTest, LegacyUpgradeIsMirroredToBothRoots) {
    Announce(L"UPDATING", L"", 0, LegacyProductRoot());
    ASSERT_TRUE(Record().legacyUpgradeDetected);
    ASSERT_TRUE(Util_UpdateDone(run_result::kSuccess, false));
    for (auto* read : {&CurrentValue, &LegacyValue}) {
        EXPECT_EQ(read(L"STATE"), L"WAIT");
        EXPECT_EQ(read(L"RESULT"), L"PROGRESS");
    }
    EXPECT_EQ(NeedReboot(CurrentProductRoot()), L"1");
    EXPECT_EQ(NeedReboot(LegacyProductRoot()), L"1");
}

TEST_F(StateTransitionsTest, WithoutALegacyUpdateOnlyTheCurrentRootIsWritten) {
    Announce(L"UPDATING", L"", 0);
    ASSERT_TRUE(Util_UpdateDone(run_result::kNoAgent, false));
    EXPECT_TRUE(Logged(L"UtilUpdateStateRegistry_Legacy: No need to write to legacy Tessix key as not exist\r\n"));
    EXPECT_EQ(LegacyValue(L"STATE"), L"<none>");
    EXPECT_TRUE(Logged(L"UtilManageUpdateState: Update key: {0D6A} new state: DONE result: OK\r\n"));
}

TEST_F(StateTransitionsTest, CurrentRootFailureAloneIsLoggedButNotFatal) {
    Announce(L"UPDATING", L"", 0);
    Platform().deniedKeys.insert(L"HKLM\\Software\\Quorvane\\Lumenar\\Agent\\Update\\{0D6A}");
    // The legacy writer has nothing to mirror and succeeds, so the run goes on.
    EXPECT_TRUE(Util_UpdateDone(run_result::kNoAgent, false));
    EXPECT_TRUE(Logged(L"UtilUpdateStateRegistry: Update key: {0D6A} failed to update Registry. "
                       L"state: DONE\r\n"));
    EXPECT_FALSE(Logged(L"registry update failed"));
    EXPECT_EQ(Record().state, update_state::kDone);  // memory keeps the new values
}

TEST_F(StateTransitionsTest, BothRootsFailingFailsTheSaveAndKeepsThePackage) {
    Announce(L"UPDATING", L"", 0, LegacyProductRoot());
    const std::wstring package = GetWorkspace() + L"\\agent.msi";
    Platform().files[package] = {1};
    SetDownloadedFilePath(package);
    Platform().deniedKeys.insert(L"HKLM\\Software\\Quorvane\\Lumenar\\Agent\\Update\\{0D6A}");
    Platform().deniedKeys.insert(L"HKLM\\Software\\Tessix, Inc.\\Tessix KDX\\Agent\\Update\\{0D6A}");
    EXPECT_FALSE(Util_UpdateDone(run_result::kNoAgent, false));
    EXPECT_TRUE(Logged(L"UtilManageUpdateState: registry update failed\r\n"));
    EXPECT_TRUE(Logged(L"Util_UpdateDone: not ready to run update\r\n"));
    EXPECT_TRUE(Platform().files.count(package));  // the key still names it for the next run
}

TEST_F(StateTransitionsTest, NoUpdateMeansNothingIsWritten) {
    Util_UpdateDone(run_result::kFailure, false);
    EXPECT_FALSE(Util_UpdatePreflightCheckCompleteReg(true));
    EXPECT_TRUE(RegEnumSubkeys(CurrentProductRoot() + L"\\Agent\\Update").empty());
}

}  // namespace
