#include "app/entry.h"

#include "test_support.h"

namespace {

const wchar_t* const kMarker = L"\\Agent\\UpdateStatusVolatile\\NeedReboot";

class EntryTest : public ToolTest {
protected:
    void Enable(const std::wstring& text = L"1") {
        fake::SetRegistryString(CurrentProductRoot() + L"\\Agent\\Update\\Enabled", text);
    }
};

TEST_F(EntryTest, KillSwitchRefusesSilentlyAndADllSearchFailureIsLoggedOnly) {
    Enable(L"0");
    EXPECT_EQ(RunTool(), run_result::kKillSwitch);
    EXPECT_TRUE(Platform().mutexes.empty());
    EXPECT_EQ(Count(L"\r\n"), 2u);  // the banner only
    EXPECT_TRUE(Platform().dllSearchRestricted);  // even a refused run loads nothing from elsewhere

    Platform().dllSearchError = 5;
    Enable();
    EXPECT_EQ(RunTool(), run_result::kFailure);
    EXPECT_TRUE(LoggedLine(L"wmain: cannot restrict the DLL search to System32 and the program folder: Access is denied."));
    EXPECT_TRUE(LoggedLine(L"wmain: Updatetool rc = ERR_FAILURE"));
    EXPECT_TRUE(Platform().mutexes.count(kSingleInstanceMutexName));
}

// Who holds the instance mutex decides: a real run (SYSTEM, Administrators, this account, or an
// owner that cannot be read) makes this one a duplicate; another account only squats the name, so
// the run takes a lock file in the workspace instead and is a duplicate only when that is held.
enum class Mutex { kNew, kOwned, kDenied };
struct InstanceRow {  // lines: every line of these three the run logs
    Mutex mutex; platform::OwnerKind owner; bool lockHeld; RunResult code; std::vector<std::wstring> lines;
};

class InstanceLockTest : public EntryTest, public ::testing::WithParamInterface<InstanceRow> {};

constexpr const wchar_t* kLockFile = L"C:\\Users\\svc\\AppData\\Local\\Temp\\updatetool-data\\updatetool.lock";
const std::wstring kDuplicate = L"updatetool.exe duplicate instance, exit now\n";
const std::wstring kSquatted = L"wmain: the instance mutex is held by PC\\mallory, no run of this tool: taking the lock file instead";
const std::wstring kDenied = L"wmain: the instance mutex cannot be opened (another account made it): taking the lock file instead";

TEST_P(InstanceLockTest, RunsOrRefusesAsADuplicate) {
    const InstanceRow& row = GetParam();
    Enable();
    fake::SetRegistryString(CurrentProductRoot() + kMarker, L"1");
    if (row.mutex == Mutex::kOwned) Platform().mutexes[kSingleInstanceMutexName] = {row.owner, L"PC\\mallory"};
    if (row.mutex == Mutex::kDenied) Platform().deniedMutexes.insert(kSingleInstanceMutexName);
    if (row.lockHeld) Platform().locked.insert(kLockFile);

    EXPECT_EQ(RunTool(), row.code);
    std::vector<std::wstring> lines;
    for (const std::wstring& wanted : {kDuplicate, kSquatted, kDenied})
        if (LoggedLine(wanted)) lines.push_back(wanted);
    EXPECT_EQ(lines, row.lines);
    const bool duplicate = row.code == run_result::kDuplicate;
    EXPECT_TRUE(!duplicate || Count(L"\r\n") == 2 + lines.size());  // the banner, then only these
    // Only a run that goes on waits for a pending restart.
    EXPECT_EQ(Platform().sleeps, std::vector<std::uint32_t>(duplicate ? 0 : 1, 300000));
    // A run that goes on holds the lock file for the rest of the run.
    EXPECT_EQ(Platform().locked.count(kLockFile) > 0, row.lockHeld || !duplicate);
}

using platform::OwnerKind;
INSTANTIATE_TEST_SUITE_P(ByOwnerAndLock, InstanceLockTest, ::testing::Values(
        InstanceRow{Mutex::kNew, OwnerKind::kThisAccount, false, run_result::kFailure, {}},
        // A run that took the lock file while the name was squatted is still going.
        InstanceRow{Mutex::kNew, OwnerKind::kThisAccount, true, run_result::kDuplicate, {kDuplicate}},
        InstanceRow{Mutex::kOwned, OwnerKind::kSystem, false, run_result::kDuplicate, {kDuplicate}},
        InstanceRow{Mutex::kOwned, OwnerKind::kAdministrators, false, run_result::kDuplicate, {kDuplicate}},
        InstanceRow{Mutex::kOwned, OwnerKind::kThisAccount, false, run_result::kDuplicate, {kDuplicate}},
        InstanceRow{Mutex::kOwned, OwnerKind::kUnreadable, false, run_result::kDuplicate, {kDuplicate}},
        InstanceRow{Mutex::kOwned, OwnerKind::kOtherAccount, false, run_result::kFailure, {kSquatted}},
        InstanceRow{Mutex::kOwned, OwnerKind::kOtherAccount, true, run_result::kDuplicate, {kDuplicate, kSquatted}},
        InstanceRow{Mutex::kDenied, OwnerKind::kUnreadable, false, run_result::kFailure, {kDenied}},
        InstanceRow{Mutex::kDenied, OwnerKind::kUnreadable, true, run_result::kDuplicate, {kDuplicate, kDenied}}));

// Without a workspace there is no safe place for the lock: with the mutex squatted the run refuses
// rather than run twice; with the mutex its own it goes on.
TEST_F(EntryTest, WithoutAWorkspaceOnlyTheMutexDecides) {
    Enable();
    const std::wstring workspace = L"C:\\Users\\svc\\AppData\\Local\\Temp\\updatetool-data";
    Platform().folders.erase(workspace);
    Platform().files[workspace] = {};
    Platform().unmovable.insert(workspace);
    ResetWorkspaceForTesting();
    EXPECT_EQ(RunTool(), run_result::kFailure);
    EXPECT_TRUE(Platform().locked.empty());
    Platform().mutexes.clear();
    Platform().deniedMutexes.insert(kSingleInstanceMutexName);
    EXPECT_EQ(RunTool(), run_result::kDuplicate);
    EXPECT_TRUE(Logged(L"wmain: cannot take the instance lock updatetool.lock, exit now: The system cannot find the path specified."));
}

// A marker of any type or value under either root means a restart is pending; both mean one wait.
TEST_F(EntryTest, PendingRestartMarkerOfAnyTypeWaitsFiveMinutesOnce) {
    fake::SetRegistryValue(CurrentProductRoot() + kMarker,
                           {platform::regtype::kDword, {0, 0, 0, 0}});
    WaitForPendingToolReboot();
    fake::SetRegistryString(LegacyProductRoot() + kMarker, L"1");
    WaitForPendingToolReboot();
    Platform().hives.clear();
    fake::SetRegistryValue(LegacyProductRoot() + kMarker, {platform::regtype::kBinary, {}});
    WaitForPendingToolReboot();
    EXPECT_EQ(Platform().sleeps, std::vector<std::uint32_t>(3, 300000));
    EXPECT_TRUE(LoggedLine(L"wmain: Reboot action triggered by Update tool is still pending, waiting for (5) minutes before proceeeding.."));
}

TEST(RunResultName, NamesCodesFromMinus13ToZeroButMinus8) {
    const std::pair<RunResult, const wchar_t*> rows[] = {
        {1, L"Update ERR_1"}, {0, L"ERR_SUCCESS"}, {-8, L"Update ERR_-8"},
        {-13, L"ERR_PREFLIGHTCHECK_UPDATE_INPROGRESS"}, {-14, L"Update ERR_-14"}};
    for (const auto& [code, name] : rows) EXPECT_EQ(RunResultName(code), name);
}

// Text in the registry that is no valid UTF-16 (a lone surrogate) cannot be handed to the content
// client: the download is refused as invalid, and the run still ends through its closing steps.
TEST_F(EntryTest, InvalidRegistryTextIsRefusedAndTheRunStillCloses) {
    const std::wstring key = CurrentUpdates() + L"{BAD}\\";
    ArrangeUpdate(CurrentUpdates(), L"{BAD}", {{L"STATE", L"DOWNLOAD"}, {L"CERTTYPE", L"CERT_SYSTEM_CA"}});
    fake::SetRegistryValue(key + L"URL", {platform::regtype::kMultiSz, {'h', 0, 0, 0xD8, 0, 0, 0, 0}});
    EXPECT_EQ(RunTool(), run_result::kFailure);
    EXPECT_TRUE(LoggedLine(L"Util_DoDownload: update key holds text that is not valid UTF-16"));
    // The outcome was still recorded: an invalid download below the retry limit is retried.
    EXPECT_EQ(RegReadString(key + L"STATE"), L"READY");
    EXPECT_EQ(RegReadString(key + L"RESULT"), L"PROGRESS");
}

}  // namespace
