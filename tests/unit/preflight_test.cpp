// The preflight run: the Windows Update wait, the disk-space bar, and how the registry checks and
// the reboot-pending probe become one result.
#include <algorithm>

#include "app/app.h"
#include "preflight/preflight_checks.h"
#include "test_support.h"

namespace {

using platform::UpdateInstallerBusy;

constexpr UpdateInstallerBusy kBusy{0, 0, true};
constexpr UpdateInstallerBusy kIdle{0, 0, false};

class PreflightTest : public ToolTest {
protected:
    bool LoggedLine(const std::wstring& message) const { return Logged(L": " + message + L"\r\n"); }
    std::size_t Count(const std::wstring& fragment) const {
        const std::wstring text = LogText();
        std::size_t count = 0;
        for (auto at = text.find(fragment); at != std::wstring::npos;
             at = text.find(fragment, at + 1))
            ++count;
        return count;
    }
    // A check listed under the legacy root, its values under the current root.
    void AddCheck(const std::wstring& name, const std::wstring& keyPresentAction) {
        CreateRegistryKey(LegacyProductRoot() + L"\\Agent\\PreflightChecks\\" + name);
        const std::wstring values = CurrentProductRoot() + L"\\Agent\\PreflightChecks\\" + name;
        fake::SetRegistryString(values + L"\\KeyPath", L"HKLM\\Software\\Target");
        fake::SetRegistryString(values + L"\\KeyPresentAction", keyPresentAction);
        fake::CreateRegistryKey(L"HKLM\\Software\\Target");
    }
    static void CreateRegistryKey(const std::wstring& path) { fake::CreateRegistryKey(path); }

    App app_;
};

// ---- Windows Update: N busy answers, then idle ----

struct WaitCase {
    int busyAnswers;
    std::size_t sleeps;
    RunResult result;
};

class WindowsUpdateWaitTest : public PreflightTest,
                              public ::testing::WithParamInterface<WaitCase> {};

TEST_P(WindowsUpdateWaitTest, SleepsBetweenChecksButNotAfterTheLast) {
    const WaitCase& c = GetParam();
    Platform().updateInstallerScript.assign(static_cast<std::size_t>(c.busyAnswers), kBusy);
    EXPECT_EQ(app_.performPreflightChecks(), c.result);
    EXPECT_EQ(Platform().sleeps, std::vector<std::uint32_t>(c.sleeps, 60000));
    EXPECT_EQ(Platform().updateInstallerQueries, std::min(c.busyAnswers + 1, 11));
    EXPECT_EQ(Platform().comInitializeCalls, Platform().comUninitializeCalls);
    const bool waited = c.busyAnswers > 0;
    EXPECT_EQ(LoggedLine(L"App::waitForWindowsUpdateToComplete: Waiting for wait timeout= 10 mins, "
                         L"waitInterval= 60000 ms, maxAttempts=10"),
              waited);
    for (int attempt = 1; attempt <= 10; ++attempt)
        EXPECT_EQ(Logged(L"for next check, attempt (" + std::to_wstring(attempt) + L")\r\n"),
                  attempt < c.busyAnswers)
            << attempt;
    const bool gaveUp = c.result == run_result::kPreflightUpdateInProgress;
    EXPECT_EQ(LoggedLine(L"App::waitForWindowsUpdateToComplete: Windows update installation is "
                         L"completed, exiting.."),
              waited && !gaveUp);
    EXPECT_EQ(
        LoggedLine(L"App::performPreflightChecks: Windows updates are still running, exiting"),
        gaveUp);
    // Giving up skips the disk check; otherwise the run goes on to it.
    EXPECT_EQ(Platform().diskSpaceQueries.size(), gaveUp ? 0u : 1u);
}

INSTANTIATE_TEST_SUITE_P(BusyAnswers, WindowsUpdateWaitTest,
                         ::testing::Values(WaitCase{0, 0, run_result::kPreflightOk},
                                           WaitCase{1, 0, run_result::kPreflightOk},
                                           WaitCase{2, 1, run_result::kPreflightOk},
                                           WaitCase{10, 9, run_result::kPreflightOk},
                                           WaitCase{11, 9,
                                                    run_result::kPreflightUpdateInProgress}));

// ---- Windows Update: an agent that cannot be asked is not busy ----

struct ComCase {
    platform::ComResult initialize;
    UpdateInstallerBusy answer;
    const wchar_t* line;
};

class WindowsUpdateComTest : public PreflightTest, public ::testing::WithParamInterface<ComCase> {};

TEST_P(WindowsUpdateComTest, FailuresCountAsNotBusyAndTheApartmentIsLeft) {
    Platform().comInitializeResult = GetParam().initialize;
    Platform().updateInstallerScript = {GetParam().answer};
    EXPECT_FALSE(preflight::isWindowsUpdateInProgress());
    EXPECT_TRUE(LoggedLine(std::wstring(L"App::isWindowsUpdateInProgress: ") + GetParam().line));
    EXPECT_EQ(Platform().comInitializeCalls, 1);
    EXPECT_EQ(Platform().comUninitializeCalls, 1);
}

INSTANTIATE_TEST_SUITE_P(
    Failures, WindowsUpdateComTest,
    ::testing::Values(
        // Class not registered.
        ComCase{0,
                {static_cast<std::int32_t>(0x80040154u), 0, false},
                L"Failed to get IUpdateInstallerInterface, error = [-2147221164]"},
        ComCase{0,
                {0, static_cast<std::int32_t>(0x80004005u), true},
                L"Unable to retrieve IsBusy property, error = [-2147467259]"},
        // CoInitializeEx refused (another apartment model): the creation fails, COM is still left.
        ComCase{static_cast<std::int32_t>(0x80010106u), kBusy,
                L"Failed to get IUpdateInstallerInterface, error = [-2147221008]"},
        // Already initialised on this thread (S_FALSE) is no failure.
        ComCase{1, kIdle, L"Windows updates are not running at this time"}));

// ---- Disk space ----

struct DiskCase {
    std::uint64_t freeToCaller;
    std::uint64_t totalFree;
    RunResult result;
};

class DiskSpaceTest : public PreflightTest, public ::testing::WithParamInterface<DiskCase> {};

TEST_P(DiskSpaceTest, TheVolumesFreeBytesMeetTheBar) {
    Platform().diskSpace = {GetParam().freeToCaller, 500ull << 30, GetParam().totalFree};
    EXPECT_EQ(app_.performPreflightChecks(), GetParam().result);
    EXPECT_EQ(Platform().diskSpaceQueries, std::vector<std::wstring>{Platform().currentDirectory});
    EXPECT_TRUE(
        LoggedLine(L"App::isDiskspaceSufficientForUpdate: current directory =  [C:\\Program "
                   L"Files\\Quorvane]"));
    EXPECT_TRUE(
        LoggedLine(L"App::isDiskspaceSufficientForUpdate: Total Disk space= [500] GB, Free "
                   L"disk space = [0] GB"));
    const bool short_ = GetParam().result == run_result::kPreflightInsufficientDisk;
    EXPECT_EQ(
        LoggedLine(L"App::isDiskspaceSufficientForUpdate: Insufficient disk space, disk space "
                   L"= [299] MB"),
        short_);
    EXPECT_EQ(LoggedLine(L"App::performPreflightChecks: Disk space is not suffcient"), short_);
}

INSTANTIATE_TEST_SUITE_P(
    Boundary, DiskSpaceTest,
    ::testing::Values(DiskCase{314572800, 314572800, run_result::kPreflightOk},
                      DiskCase{314572799, 314572799, run_result::kPreflightInsufficientDisk},
                      // The caller's quota does not count, only the volume's free bytes.
                      DiskCase{1, 314572800, run_result::kPreflightOk},
                      DiskCase{1ull << 40, 314572799, run_result::kPreflightInsufficientDisk}));

TEST_F(PreflightTest, UnknownDirectoryOrSpacePasses) {
    Platform().diskSpace.totalFreeBytes = 0;
    Platform().currentDirectoryError = 5;
    EXPECT_TRUE(preflight::isDiskspaceSufficientForUpdate());
    EXPECT_TRUE(LoggedLine(
        L"App::isDiskspaceSufficientForUpdate: unable to fetch current directory path, error [5]"));
    EXPECT_TRUE(Platform().diskSpaceQueries.empty());

    Platform().currentDirectoryError = 0;
    Platform().diskSpaceError = 21;  // device not ready
    EXPECT_TRUE(preflight::isDiskspaceSufficientForUpdate());
    EXPECT_TRUE(
        LoggedLine(L"App::isDiskspaceSufficientForUpdate: Failed to check diskspace, error  [21]"));
}

// ---- Final actions ----

struct ActionsCase {
    std::vector<const wchar_t*> actions;  // one check each
    bool rebootPending;
    RunResult result;
};

class FinalActionsTest : public PreflightTest, public ::testing::WithParamInterface<ActionsCase> {};

TEST_P(FinalActionsTest, DecideBeforeTheRebootProbe) {
    for (std::size_t i = 0; i < GetParam().actions.size(); ++i)
        AddCheck(L"Check" + std::to_wstring(i), GetParam().actions[i]);
    if (GetParam().rebootPending)
        CreateRegistryKey(
            L"HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Component Based "
            L"Servicing\\RebootPending");
    EXPECT_EQ(app_.performPreflightChecks(), GetParam().result);
    const bool decided = std::any_of(GetParam().actions.begin(), GetParam().actions.end(),
                                     [](const wchar_t* a) { return std::wstring(a) != L"NONE"; });
    EXPECT_EQ(Logged(L"App::isRebootPending: checking registry keys for reboot pending"), !decided);
}

INSTANTIATE_TEST_SUITE_P(
    Sets, FinalActionsTest,
    ::testing::Values(ActionsCase{{L"REBOOT", L"ERROR"}, true, run_result::kPreflightFailed},
                      ActionsCase{{L"REBOOT"}, false, run_result::kPreflightReboot},
                      ActionsCase{{L"NONE"}, false, run_result::kPreflightOk},
                      ActionsCase{{L"NONE"}, true, run_result::kPreflightReboot},
                      ActionsCase{{}, false, run_result::kPreflightOk},
                      ActionsCase{{}, true, run_result::kPreflightReboot}));

TEST_F(PreflightTest, FinalActionsAreLoggedOnceEachInOrder) {
    int index = 0;
    for (const wchar_t* action : {L"reboot", L"none", L"error", L"REBOOT"})
        AddCheck(L"Check" + std::to_wstring(++index), action);
    app_.performPreflightChecks();
    const std::wstring text = LogText();
    const auto error = text.find(L"preflight final actions: [ERROR]");
    const auto none = text.find(L"preflight final actions: [NONE]");
    const auto reboot = text.find(L"preflight final actions: [REBOOT]");
    EXPECT_LT(error, none);
    EXPECT_LT(none, reboot);
    EXPECT_NE(reboot, std::wstring::npos);
    EXPECT_EQ(Count(L"preflight final actions: "), 3u);
}

}  // namespace
