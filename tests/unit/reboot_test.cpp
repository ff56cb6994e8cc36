#include "report/reboot.h"

#include "test_support.h"

namespace {

using platform::RestartOutcome;
constexpr auto kOk = RestartOutcome::kInitiated, kToken = RestartOutcome::kOpenTokenFailed,
               kAdjust = RestartOutcome::kAdjustTokenFailed;

using RebootTest = FreshTest;

TEST_F(RebootTest, WaitsRetryTimesThePeriodUnlessAPreflightRestartIsDue) {
    const wchar_t* const kPreflight = L"PREFLIGHTCHECK_INPROGRESS";
    // reason: why the restart failed
    const struct { bool force; const wchar_t* result; int retry; std::uint32_t period; RestartOutcome outcome;
                   std::vector<std::uint32_t> sleeps; const wchar_t* reason; } rows[] = {
        {false, L"PROGRESS", 3, 1000, kOk, {}, nullptr},
        {true, kPreflight, 2, 300000, kOk, {}, nullptr},
        {true, L"preflightcheck_inprogress", 1, 300000, kOk, {300000}, nullptr},
        {true, L"PROGRESS", 0, 300000, kOk, {0}, nullptr},
        {true, L"PROGRESS", 20000, 300000, kOk, {1705032704u}, nullptr},  // a 32-bit product
        {true, kPreflight, 1, 1, kToken, {}, L"Unable to open process token for self"},
        {true, L"PROGRESS", 1, 1, kAdjust, {1}, L"Unable to adjust token privileges"}};
    for (const auto& r : rows) {
        SCOPED_TRACE(&r - rows);
        Fresh();
        Record().forceReboot = r.force;
        Record().result = r.result;
        Record().retry = r.retry;
        Record().retryWaitMs = r.period;
        Platform().restartOutcome = r.outcome;
        Util_CheckReboot();
        EXPECT_EQ(Platform().sleeps, r.sleeps);
        EXPECT_EQ(Platform().restartRequests, r.force ? 1 : 0);
        EXPECT_EQ(Count(L"Util_CheckReboot: wait for a while\r\n"), r.sleeps.size());
        EXPECT_EQ(Count(L"Util_CheckReboot: done waiting\r\n"), r.sleeps.size());
        EXPECT_TRUE(!r.reason || Logged(std::wstring(L": ") + r.reason + L"\r\n"));
        EXPECT_EQ(Logged(L": Initiated system reboot successfully.\r\n"), r.force && !r.reason);
        EXPECT_EQ(Logged(L": REBOOT FAILED\r\n"), r.force && r.reason);
    }
}

}  // namespace
