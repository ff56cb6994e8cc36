// The preflight run: the Windows Update wait, the disk-space bar, and how the registry checks and
// the reboot-pending probe become one result.
#include "preflight/preflight_checks.h"

#include <algorithm>

#include "test_support.h"

namespace {

using Busy = platform::UpdateInstallerBusy;
constexpr Busy kBusy{0, 0, true}, kIdle{0, 0, false};
constexpr RunResult kOk = run_result::kPreflightOk;

using PreflightTest = FreshTest;

TEST_F(PreflightTest, WindowsUpdateIsAskedAgainEveryMinuteUpToTenTimes) {
    const std::wstring wait = L"App::waitForWindowsUpdateToComplete: ";
    // busy: busy answers before `last`; init: CoInitializeEx's result; line: of isWindowsUpdateInProgress
    const struct { int busy; Busy last; std::int32_t init; std::size_t sleeps; RunResult result;
                   const wchar_t* line; } rows[] = {
        {0, kIdle, 0, 0, kOk, L"Windows updates are not running at this time"},
        {1, kIdle, 0, 0, kOk, nullptr},
        {10, kIdle, 0, 9, kOk, nullptr},
        {11, kIdle, 0, 9, run_result::kPreflightUpdateInProgress, nullptr},
        // An agent that cannot be asked is not busy; a refused CoInitializeEx shows as a failed
        // creation, and an apartment already there (S_FALSE) is no failure.
        {0, {0, -2147467259, 1}, 0, 0, kOk, L"Unable to retrieve IsBusy property, error = [-2147467259]"},
        {0, kBusy, -2147417850, 0, kOk, L"Failed to get IUpdateInstallerInterface, error = [-2147221008]"},
        {0, kIdle, 1, 0, kOk, L"Windows updates are not running at this time"}};
    for (const auto& r : rows) {
        SCOPED_TRACE(&r - rows);
        Fresh();
        Platform().comInitializeResult = r.init;
        Platform().updateInstallerScript.assign(static_cast<std::size_t>(r.busy), kBusy);
        Platform().updateInstallerScript.push_back(r.last);
        EXPECT_EQ(preflight::performPreflightChecks(), r.result);
        EXPECT_EQ(Platform().sleeps, std::vector<std::uint32_t>(r.sleeps, 60000));
        EXPECT_EQ(Platform().updateInstallerQueries, std::min(r.busy + 1, 11));
        EXPECT_EQ(Platform().comInitializeCalls, Platform().updateInstallerQueries);
        EXPECT_EQ(Platform().comUninitializeCalls, Platform().updateInstallerQueries);
        EXPECT_TRUE(LoggedLine(L"App::performPreflightChecks: begin.."));
        EXPECT_TRUE(!r.line || LoggedLine(std::wstring(L"App::isWindowsUpdateInProgress: ") + r.line));
        EXPECT_EQ(LoggedLine(wait + L"Waiting for wait timeout= 10 mins, waitInterval= 60000 ms, maxAttempts=10"),
                  r.busy > 0);
        const int attempts = std::clamp(r.busy - 1, 0, 10);
        EXPECT_EQ(Count(L"for next check, attempt ("), static_cast<std::size_t>(attempts));
        EXPECT_EQ(LoggedLine(wait + L"Windows update installation is still in progress - will wait for (60000) "
                             L"milliseconds for next check, attempt (" + std::to_wstring(attempts) + L")"),
                  attempts > 0);
        const bool gaveUp = r.result == run_result::kPreflightUpdateInProgress;
        EXPECT_EQ(LoggedLine(wait + L"Windows update installation is completed, exiting.."), r.busy > 0 && !gaveUp);
        EXPECT_EQ(LoggedLine(L"App::performPreflightChecks: Windows updates are still running, exiting"), gaveUp);
        EXPECT_EQ(Platform().diskSpaceQueries.size(), gaveUp ? 0u : 1u);
    }
}

TEST_F(PreflightTest, TheVolumesFreeBytesMeetTheBarUnlessTheyCannotBeKnown) {
    // Only the volume's free bytes count, not the caller's quota. line: of the disk-space check.
    const struct { std::uint32_t dirError, diskError; std::uint64_t toCaller, free; bool enough;
                   const wchar_t* line; } rows[] = {
        {0, 0, 314572800, 314572800, true, L"current directory =  [C:\\Program Files\\Quorvane]"},
        {0, 0, 1ull << 40, 314572799, false, L"Insufficient disk space, disk space = [299] MB"},
        {0, 0, 1, 1ull << 30, true, L"Total Disk space= [500] GB, Free disk space = [1] GB"},
        {5, 0, 0, 0, true, L"unable to fetch current directory path, error [5]"},
        {0, 21, 0, 0, true, L"Failed to check diskspace, error  [21]"}};
    for (const auto& r : rows) {
        SCOPED_TRACE(&r - rows);
        Fresh();
        Platform().diskSpace = {r.toCaller, 500ull << 30, r.free};
        Platform().currentDirectoryError = r.dirError;
        Platform().diskSpaceError = r.diskError;
        EXPECT_EQ(preflight::performPreflightChecks(), r.enough ? kOk : run_result::kPreflightInsufficientDisk);
        EXPECT_TRUE(LoggedLine(std::wstring(L"App::isDiskspaceSufficientForUpdate: ") + r.line));
        EXPECT_EQ(Platform().diskSpaceQueries, std::vector<std::wstring>(r.dirError ? 0 : 1, Platform().currentDirectory));
        EXPECT_EQ(LoggedLine(L"App::performPreflightChecks: Disk space is not suffcient"), !r.enough);
    }
}

TEST_F(PreflightTest, AnErrorBeatsARebootAndOnlyAnUndecidedRunAsksIfARestartIsPending) {
    const RunResult kFailed = run_result::kPreflightFailed, kReboot = run_result::kPreflightReboot;
    // actions: one check each; finals: the final actions logged, in order.
    const struct { std::vector<const wchar_t*> actions; bool pending; RunResult result; std::wstring finals; } rows[] = {
        {{L"REBOOT", L"ERROR"}, true, kFailed, L"ERROR REBOOT "},
        {{L"reboot", L"none", L"error", L"REBOOT"}, false, kFailed, L"ERROR NONE REBOOT "},
        {{L"REBOOT"}, false, kReboot, L"REBOOT "}, {{L"NONE"}, false, kOk, L"NONE "},
        {{L"NONE"}, true, kReboot, L"NONE "}, {{}, false, kOk, L""}, {{}, true, kReboot, L""}};
    const std::wstring mark = L"App::performPreflightChecks: preflight final actions: [";
    for (const auto& r : rows) {
        SCOPED_TRACE(&r - rows);
        Fresh();
        fake::CreateRegistryKey(L"HKLM\\Software\\T");
        for (std::size_t i = 0; i < r.actions.size(); ++i) {
            // Listed under the legacy root, its values under the current root.
            const std::wstring check = L"\\Agent\\PreflightChecks\\" + std::to_wstring(i) + L"\\";
            fake::CreateRegistryKey(LegacyProductRoot() + check);
            fake::SetRegistryString(CurrentProductRoot() + check + L"KeyPath", L"HKLM\\Software\\T");
            fake::SetRegistryString(CurrentProductRoot() + check + L"KeyPresentAction", r.actions[i]);
        }
        if (r.pending)
            fake::CreateRegistryKey(L"HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Component Based Servicing\\RebootPending");
        EXPECT_EQ(preflight::performPreflightChecks(), r.result);
        std::wstring finals;
        const std::wstring text = LogText();
        for (auto at = text.find(mark); at != std::wstring::npos; at = text.find(mark, at + 1))
            finals += text.substr(at + mark.size(), text.find(L']', at) - at - mark.size()) + L" ";
        EXPECT_EQ(finals, r.finals);
        EXPECT_EQ(Logged(L"App::isRebootPending: checking registry keys"), finals.empty() || finals == L"NONE ");
    }
}

}  // namespace
