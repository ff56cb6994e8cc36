#include "app/entry.h"

#include "state/registry.h"
#include "test_support.h"

namespace {

class EntryTest : public ToolTest {
protected:
    std::wstring LinesAfterBanner() {
        const std::wstring text = LogText();
        return text.substr(text.find(L"Updatetool Version:"));
    }
};

TEST_F(EntryTest, KillSwitchRefusesSilentlyBeforeTheMutex) {
    for (const wchar_t* off : {L"0", L"false", L"no", L""}) {
        fake::SetRegistryString(CurrentProductRoot() + L"\\Agent\\Update\\Enabled", off);
        EXPECT_EQ(RunTool(), -2) << off;
    }
    EXPECT_TRUE(Platform().mutexes.empty());
    EXPECT_EQ(LinesAfterBanner().find(L"\r\n"), LinesAfterBanner().size() - 2);  // no line after it
    EXPECT_TRUE(Platform().dllSearchRestricted);  // even a refused run loads nothing from elsewhere
}

TEST_F(EntryTest, DllSearchThatCannotBeRestrictedIsLoggedAndTheRunGoesOn) {
    Platform().dllSearchError = 5;
    fake::SetRegistryDword(CurrentProductRoot() + L"\\Agent\\Update\\Enabled", 1);
    EXPECT_EQ(RunTool(), -1);
    EXPECT_TRUE(Logged(L"wmain: cannot restrict the DLL search to System32 and the program folder: "
                       L"Access is denied."));
    EXPECT_TRUE(Logged(L": wmain: Updatetool rc = ERR_FAILURE\r\n"));
}

TEST_F(EntryTest, SecondInstanceLeavesOneLineWithTheProgramName) {
    Platform().mutexes[kSingleInstanceMutexName] = {};  // whose, unreadable: as under Wine
    fake::SetRegistryString(CurrentProductRoot() + L"\\Agent\\UpdateStatusVolatile\\NeedReboot", L"1");
    EXPECT_EQ(RunTool(), -3);
    EXPECT_EQ(LinesAfterBanner().substr(LinesAfterBanner().find(L"\r\n") + 2),
              L"2026-03-02 14.03.09: updatetool.exe duplicate instance, exit now\n\r\n");
    EXPECT_TRUE(Platform().sleeps.empty());
}

TEST_F(EntryTest, RunThatPassesTheMutexLogsItsResultName) {
    EXPECT_EQ(RunTool(), -1);  // the kill switch is on by default
    Platform().mutexes.clear();
    fake::SetRegistryDword(CurrentProductRoot() + L"\\Agent\\Update\\Enabled", 1);
    EXPECT_EQ(RunTool(), -1);
    EXPECT_TRUE(Platform().mutexes.count(kSingleInstanceMutexName));
    EXPECT_TRUE(Logged(L": wmain: Updatetool rc = ERR_FAILURE\r\n"));
    EXPECT_TRUE(Platform().sleeps.empty());
}

// Who holds the instance mutex decides: a real run (SYSTEM, Administrators, this account, or an
// owner that cannot be read) makes this one a duplicate; another account only squats the name, so
// the run takes a lock file in the workspace instead and is a duplicate only when that is held.
enum class Mutex { kNew, kOwned, kDenied };
struct InstanceRow {
    Mutex mutex;
    platform::OwnerKind owner;
    bool lockHeld;
    RunResult code;
    std::vector<std::wstring> lines;  // every line between the banner and the final one
};

class InstanceLockTest : public EntryTest, public ::testing::WithParamInterface<InstanceRow> {};

constexpr const wchar_t* kLockFile = L"C:\\Users\\svc\\AppData\\Local\\Temp\\updatetool-data\\updatetool.lock";
const std::wstring kDuplicate = L"updatetool.exe duplicate instance, exit now\n";
const std::wstring kSquatted =
    L"wmain: the instance mutex is held by PC\\mallory, no run of this tool: taking the lock file instead";
const std::wstring kDenied =
    L"wmain: the instance mutex cannot be opened (another account made it): taking the lock file instead";

TEST_P(InstanceLockTest, RunsOrRefusesAsADuplicate) {
    const InstanceRow& row = GetParam();
    fake::SetRegistryDword(CurrentProductRoot() + L"\\Agent\\Update\\Enabled", 1);
    if (row.mutex == Mutex::kOwned) Platform().mutexes[kSingleInstanceMutexName] = {row.owner, L"PC\\mallory"};
    if (row.mutex == Mutex::kDenied) Platform().deniedMutexes.insert(kSingleInstanceMutexName);
    if (row.lockHeld) Platform().locked.insert(kLockFile);

    EXPECT_EQ(RunTool(), row.code);
    std::vector<std::wstring> lines;
    for (const std::wstring& wanted : {kDuplicate, kSquatted, kDenied})
        if (Logged(wanted + L"\r\n")) lines.push_back(wanted);
    EXPECT_EQ(lines, row.lines);
    // A run that took the lock file holds it for the rest of the run.
    const bool tookLock = row.code == run_result::kFailure && row.mutex != Mutex::kNew;
    EXPECT_EQ(Platform().locked.count(kLockFile) > 0, row.lockHeld || tookLock);
}

using platform::OwnerKind;
INSTANTIATE_TEST_SUITE_P(
    ByOwnerAndLock, InstanceLockTest,
    ::testing::Values(
        InstanceRow{Mutex::kNew, OwnerKind::kThisAccount, true, run_result::kFailure, {}},
        InstanceRow{Mutex::kOwned, OwnerKind::kSystem, false, run_result::kDuplicate, {kDuplicate}},
        InstanceRow{Mutex::kOwned, OwnerKind::kAdministrators, false, run_result::kDuplicate, {kDuplicate}},
        InstanceRow{Mutex::kOwned, OwnerKind::kThisAccount, false, run_result::kDuplicate, {kDuplicate}},
        InstanceRow{Mutex::kOwned, OwnerKind::kUnreadable, false, run_result::kDuplicate, {kDuplicate}},
        InstanceRow{Mutex::kOwned, OwnerKind::kOtherAccount, false, run_result::kFailure, {kSquatted}},
        InstanceRow{Mutex::kOwned, OwnerKind::kOtherAccount, true, run_result::kDuplicate, {kDuplicate, kSquatted}},
        InstanceRow{Mutex::kDenied, OwnerKind::kUnreadable, false, run_result::kFailure, {kDenied}},
        InstanceRow{Mutex::kDenied, OwnerKind::kUnreadable, true, run_result::kDuplicate, {kDuplicate, kDenied}}));

// Without a workspace there is no safe place for the lock: the run refuses rather than run twice.
TEST_F(EntryTest, SquattedMutexWithoutAWorkspaceRefuses) {
    fake::SetRegistryDword(CurrentProductRoot() + L"\\Agent\\Update\\Enabled", 1);
    Platform().deniedMutexes.insert(kSingleInstanceMutexName);
    const std::wstring workspace = L"C:\\Users\\svc\\AppData\\Local\\Temp\\updatetool-data";
    Platform().folders.erase(workspace);
    Platform().files[workspace] = {};
    Platform().unmovable.insert(workspace);
    ResetWorkspaceForTesting();
    EXPECT_EQ(RunTool(), run_result::kDuplicate);
    EXPECT_TRUE(Logged(L"wmain: cannot take the instance lock updatetool.lock, exit now: The system "
                       L"cannot find the path specified."));
}

class PendingRebootTest : public ToolTest,
                          public ::testing::WithParamInterface<std::pair<bool, platform::RegistryValue>> {};

TEST_P(PendingRebootTest, WaitsFiveMinutesOnceForAnyMarker) {
    const auto& [legacy, value] = GetParam();
    const std::wstring root = legacy ? LegacyProductRoot() : CurrentProductRoot();
    fake::SetRegistryValue(root + L"\\Agent\\UpdateStatusVolatile\\NeedReboot", value);
    EXPECT_EQ(RunTool(), -1);
    EXPECT_EQ(Platform().sleeps, std::vector<std::uint32_t>{300000});
    EXPECT_TRUE(Logged(L"wmain: Reboot action triggered by Update tool is still pending, waiting "
                       L"for (5) minutes before proceeeding..\r\n"));
}

INSTANTIATE_TEST_SUITE_P(
    Markers, PendingRebootTest,
    ::testing::Values(
        std::pair{false, platform::RegistryValue{platform::regtype::kSz, core::Utf16BytesFromWide(L"1", true)}},
        std::pair{true, platform::RegistryValue{platform::regtype::kSz, core::Utf16BytesFromWide(L"0", true)}},
        std::pair{true, platform::RegistryValue{platform::regtype::kBinary, {}}},
        std::pair{false, platform::RegistryValue{platform::regtype::kDword, {0, 0, 0, 0}}}));

TEST_F(EntryTest, BothMarkersStillWaitOnlyOnce) {
    fake::SetRegistryString(CurrentProductRoot() + L"\\Agent\\UpdateStatusVolatile\\NeedReboot", L"1");
    fake::SetRegistryString(LegacyProductRoot() + L"\\Agent\\UpdateStatusVolatile\\NeedReboot", L"1");
    WaitForPendingToolReboot();
    EXPECT_EQ(Platform().sleeps.size(), 1u);
}

// Text in the registry that is no valid UTF-16 (a lone surrogate) cannot be handed to the content
// client: the download is refused as invalid, and the run still ends through its closing steps.
TEST_F(EntryTest, InvalidRegistryTextIsRefusedAndTheRunStillCloses) {
    const std::wstring key = CurrentProductRoot() + L"\\Agent\\Update\\{BAD}\\";
    fake::SetRegistryString(key + L"STATE", L"DOWNLOAD");
    fake::SetRegistryString(key + L"AGENT", L"OTHER");
    fake::SetRegistryString(key + L"CERTTYPE", L"CERT_SYSTEM_CA");
    fake::SetRegistryValue(key + L"URL", {platform::regtype::kMultiSz,
                                          {'h', 0, 0x00, 0xD8, '.', 0, 'm', 0, 0, 0, 0, 0}});
    EXPECT_EQ(RunTool(), -1);
    EXPECT_TRUE(Logged(L"Util_DoDownload: update key holds text that is not valid UTF-16\r\n"));
    EXPECT_FALSE(Logged(L"failed: to_mstr Failed"));
    EXPECT_TRUE(Logged(L"wmain: Updatetool rc = ERR_FAILURE\r\n"));
    // The outcome was still recorded: an invalid download below the retry limit is retried.
    EXPECT_EQ(RegReadString(key + L"STATE"), L"READY");
    EXPECT_EQ(RegReadString(key + L"RESULT"), L"PROGRESS");
    EXPECT_EQ(RegReadString(key + L"RETRY"), L"1");
}

}  // namespace
