#include "state/state_transitions.h"

#include <cstdint>

#include "state/registry.h"
#include "state/update_record.h"
#include "test_support.h"

namespace {

constexpr const wchar_t* kKey = L"{0D6A}";

std::wstring Value(const std::wstring& updates, const wchar_t* name) {
    return RegReadString(updates + kKey + L"\\" + name, L"-");
}
std::wstring NeedReboot(const std::wstring& root) {
    return RegReadString(root + L"\\Agent\\UpdateStatusVolatile\\NeedReboot", L"-");
}

class StateTransitionsTest : public ToolTest {
protected:
    // A fresh run that reads an update key as the service left it.
    void Announce(const wchar_t* state, const wchar_t* result, int retry, bool legacy = false) {
        fake::Reset();
        ResetWorkspaceForTesting();
        ResetUpdateRecordForTesting();
        StartLog();
        const std::wstring updates = legacy ? LegacyUpdates() : CurrentUpdates();
        ArrangeUpdate(updates, kKey, {{L"STATE", state}, {L"RETRY", std::to_wstring(retry)}});
        if (*result) fake::SetRegistryString(updates + kKey + L"\\RESULT", result);
        ASSERT_TRUE(UtilGetActiveUpdate());
        ASSERT_TRUE(UtilGetRegistry());
    }
    // STATE RESULT RETRY, then ERRORCODE and "complete" when set, as stored for the update.
    std::wstring Stored() {
        const std::wstring u = CurrentUpdates(), error = Value(u, L"ERRORCODE");
        return Value(u, L"STATE") + L" " + Value(u, L"RESULT") + L" " + Value(u, L"RETRY") +
               (error.empty() ? L"" : L" " + error) +
               (Value(u, L"PreflightCheckComplete") == L"1" ? L" complete" : L"");
    }
};

// State x RESULT x retry count x run result -> what is stored, with the default limit of 2.
TEST_F(StateTransitionsTest, MovesTheUpdateOnAndStoresIt) {
    struct Row {
        const wchar_t *from, *result;
        int retry;
        RunResult rc;
        bool legacyWf;
        const wchar_t* stored;
        int then;                       // kReboot: a restart is asked for; kWait: slept first
        const wchar_t* line = nullptr;  // one line this row pins
    };
    enum { kReboot = 1, kWait = 2 };
    constexpr const wchar_t *D = L"DOWNLOAD", *U = L"UPDATING", *R = L"READY";
    // clang-format off
    const Row rows[] = {
        {D, L"OK", 0, -1, false, L"WAIT OK 0", 0,
         L"UtilManageUpdateState: Update key: {0D6A} new state: WAIT result: OK"},
        {D, L"FAILURE", 0, -1, false, L"READY PROGRESS 1", kWait,
         L"Util_UpdateDone: wait for 2 mins"},
        // RESULT comparisons are exact: "ok" is a failure that consumes an attempt.
        {D, L"ok", 1, -1, false, L"READY PROGRESS 2", kWait, L"Util_UpdateDone: done waiting"},
        {D, L"FAILURE", 2, -1, false, L"DONE FAILURE 3", 0,
         L"Util_UpdateDone: Download failure crossed download retry limit"},
        {D, L"INVALID", 2, -1, false, L"DOWNLOAD INVALID 3", 0,
         L"UtilTryAgain: updating retry: 3, max attempt allowed: 2"},
        // A count at the top of its range does not wrap round into a fresh set of attempts.
        {D, L"FAILURE", INT32_MAX, -1, false, L"DONE FAILURE 2147483647", 0,
         L"UtilTryAgain: exceeded retry attempts: 2147483647, max attempt allowed: 2"},
        {U, L"", 1, -4, false, L"DONE OK 0", 0,
         L"Util_UpdateDone: agent update result: ERR_NOAGENT"},
        {U, L"", 0, -1, false, L"UPDATING FAILURE 0", 0,
         L"UtilUpdateStateRegistry_Legacy: No need to write to legacy Tessix key as not exist"},
        {U, L"", 0, -5, false, L"UPDATING FAILURE 0", 0},
        {U, L"", 0, -6, false, L"UPDATING INVALID 0", 0},
        // Success and a restart request keep the update going behind a restart.
        {U, L"", 1, 0, false, L"WAIT PROGRESS 2", kReboot, L"Util_UpdateDone: FORCE REBOOT"},
        {U, L"", 1, -7, false, L"WAIT PROGRESS 2", kReboot},
        {U, L"", 2, -7, false, L"UPDATING FAILURE 3", 0},
        {D, L"", 1, -13, false,
         L"DONE PREFLIGHTCHECK_FAILURE 1 PREFLIGHT_ERR_WIN_UPDATE_INPROGRESS", 0},
        {D, L"", 1, -12, false,
         L"DONE PREFLIGHTCHECK_FAILURE 1 PREFLIGHT_ERR_INSUFFICIENT_DISKSPACE", 0},
        {D, L"", 1, -10, false, L"DONE PREFLIGHTCHECK_FAILURE 1", 0},
        {D, L"", 1, -9, false, L"DONE PREFLIGHTCHECK_OK 0 complete", 0},
        {D, L"", 1, -9, true, L"READY OK 0 complete", 0, L"Util_UpdateDone: preflightcheck check "
         L"is done, legacy workflow is in use so updating state to READY"},
        // A pending restart is retried twice behind a restart, then fails the update.
        {R, L"", 1, -11, false, L"READY PREFLIGHTCHECK_INPROGRESS 2", kReboot},
        {R, L"", 2, -11, false, L"DONE PREFLIGHTCHECK_FAILURE 0 PREFLIGHT_ERR_REBOOT_PENDING", 0},
    };
    // clang-format on
    for (const Row& c : rows) {
        SCOPED_TRACE(testing::Message() << c.from << " " << c.result << " " << c.retry << " rc "
                                        << c.rc << (c.legacyWf ? " legacy" : ""));
        Announce(c.from, c.result, c.retry);
        Record().retryWaitMs = 120000;
        ASSERT_TRUE(Util_UpdateDone(c.rc, c.legacyWf));
        EXPECT_EQ(Stored(), c.stored);
        const bool reboot = c.then & kReboot;
        EXPECT_EQ(NeedReboot(CurrentProductRoot()), reboot ? L"1" : L"-");
        const std::wstring marker = CurrentProductRoot() + L"\\Agent\\UpdateStatusVolatile";
        if (reboot) { EXPECT_TRUE(fake::IsVolatileKey(marker)); }
        EXPECT_EQ(Platform().sleeps, std::vector<std::uint32_t>(c.then & kWait ? 1 : 0, 120000));
        if (c.line) { EXPECT_TRUE(LoggedLine(c.line)) << LogText(); }
    }
}

// Stored under the update's roots (an upgrade's under both), enough when one takes it; only then
// is the package deleted, since the key still names it for the next run otherwise.
TEST_F(StateTransitionsTest, SavesUnderEitherRootBeforeDeletingThePackage) {
    struct Row { bool legacy, denyCurrent, denyLegacy; RunResult rc; bool saved, deleted; };
    const Row rows[] = {{false, false, false, -4, true, true},
                        {false, true, false, -4, true, true},
                        {true, false, false, 0, true, false},
                        {true, true, true, -4, false, false}};
    for (const Row& c : rows) {
        SCOPED_TRACE(testing::Message() << c.legacy << c.denyCurrent << c.denyLegacy << c.rc);
        Announce(L"UPDATING", L"", 0, c.legacy);
        const std::wstring package = GetWorkspace() + L"\\agent.msi";
        Platform().files[package] = {1};
        SetDownloadedFilePath(package);
        if (c.denyCurrent) Platform().deniedKeys.insert(CurrentUpdates() + kKey);
        if (c.denyLegacy) Platform().deniedKeys.insert(LegacyUpdates() + kKey);
        EXPECT_EQ(Util_UpdateDone(c.rc, false), c.saved);
        EXPECT_EQ(Platform().files.count(package), c.deleted ? 0u : 1u);
        const std::wstring mirrored = c.denyLegacy ? L"" : Value(LegacyUpdates(), L"STATE");
        EXPECT_EQ(mirrored, c.denyLegacy ? L"" : c.legacy ? L"WAIT" : L"-");
        if (c.legacy && c.saved) { EXPECT_EQ(NeedReboot(LegacyProductRoot()), L"1"); }
        EXPECT_EQ(LoggedLine(L"UtilUpdateStateRegistry: Update key: {0D6A} failed to update "
                             L"Registry. state: DONE"), c.denyCurrent);
    }
    EXPECT_TRUE(LoggedLine(L"UtilManageUpdateState: registry update failed"));
    EXPECT_TRUE(LoggedLine(L"Util_UpdateDone: not ready to run update"));
}

TEST_F(StateTransitionsTest, NoUpdateMeansNothingIsWritten) {
    Util_UpdateDone(run_result::kFailure, false);
    EXPECT_FALSE(Util_UpdatePreflightCheckCompleteReg(true));
    EXPECT_TRUE(RegEnumSubkeys(CurrentProductRoot() + L"\\Agent\\Update").empty());
}

}  // namespace
