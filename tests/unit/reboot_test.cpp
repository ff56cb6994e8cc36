#include "report/reboot.h"

#include "state/update_record.h"
#include "test_support.h"

namespace {

class RebootTest : public ToolTest {
protected:
    UpdateRecord& Record() { return ActiveUpdateRecord(); }
};

TEST_F(RebootTest, NothingHappensWithoutTheFlag) {
    Record().retry = 3;
    Util_CheckReboot();
    EXPECT_EQ(Platform().restartRequests, 0);
    EXPECT_TRUE(Platform().sleeps.empty());
}

struct WaitCase {
    const wchar_t* result;
    int retry;
    std::uint32_t period;
    std::vector<std::uint32_t> sleeps;
};

class RebootWaitTest : public RebootTest, public ::testing::WithParamInterface<WaitCase> {};

TEST_P(RebootWaitTest, WaitsRetryTimesThePeriodUnlessAPreflightRestartIsDue) {
    const WaitCase& c = GetParam();
    Record().forceReboot = true;
    Record().result = c.result;
    Record().retry = c.retry;
    Record().retryWaitMs = c.period;
    Util_CheckReboot();
    EXPECT_EQ(Platform().sleeps, c.sleeps);
    EXPECT_EQ(Logged(L"Util_CheckReboot: wait for a while\r\n"), !c.sleeps.empty());
    EXPECT_EQ(Platform().restartRequests, 1);
    EXPECT_TRUE(Logged(L": Initiated system reboot successfully.\r\n"));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, RebootWaitTest,
    ::testing::Values(WaitCase{L"PREFLIGHTCHECK_INPROGRESS", 2, 300000, {}},
                      WaitCase{L"preflightcheck_inprogress", 1, 300000, {300000}},
                      WaitCase{L"PROGRESS", 2, 1000, {2000}},
                      WaitCase{L"PROGRESS", 0, 300000, {0}},
                      // The product is 32 bits wide, as it always was.
                      WaitCase{L"PROGRESS", 20000, 300000, {1705032704u}}));

class RebootFailureTest
    : public RebootTest,
      public ::testing::WithParamInterface<std::pair<platform::RestartOutcome, const wchar_t*>> {};

TEST_P(RebootFailureTest, FailedRestartIsOnlyLogged) {
    Record().forceReboot = true;
    Record().result = L"PREFLIGHTCHECK_INPROGRESS";
    Platform().restartOutcome = GetParam().first;
    Util_CheckReboot();
    if (*GetParam().second) {
        EXPECT_TRUE(Logged(std::wstring(L": ") + GetParam().second + L"\r\n"));
    }
    EXPECT_TRUE(Logged(L": REBOOT FAILED\r\n"));
}

INSTANTIATE_TEST_SUITE_P(
    Outcomes, RebootFailureTest,
    ::testing::Values(std::pair{platform::RestartOutcome::kOpenTokenFailed,
                                L"Unable to open process token for self"},
                      std::pair{platform::RestartOutcome::kAdjustTokenFailed,
                                L"Unable to adjust token privileges"},
                      std::pair{platform::RestartOutcome::kRestartRefused, L""}));

}  // namespace
