#include "core/run_result.h"

#include <gtest/gtest.h>

TEST(RunResultName, NamesEveryCodeFromMinus13ToZeroButMinus8) {
    EXPECT_EQ(RunResultName(0), L"ERR_SUCCESS");
    EXPECT_EQ(RunResultName(-1), L"ERR_FAILURE");
    EXPECT_EQ(RunResultName(-4), L"ERR_NOAGENT");
    EXPECT_EQ(RunResultName(-7), L"ERR_REBOOT");
    EXPECT_EQ(RunResultName(-9), L"ERR_PREFLIGHTCHECK_OK");
    EXPECT_EQ(RunResultName(-13), L"ERR_PREFLIGHTCHECK_UPDATE_INPROGRESS");
}

TEST(RunResultName, UnnamedCodesAreFormatted) {
    EXPECT_EQ(RunResultName(-8), L"Update ERR_-8");
    EXPECT_EQ(RunResultName(5), L"Update ERR_5");
    EXPECT_EQ(RunResultName(-14), L"Update ERR_-14");
    EXPECT_EQ(RunResultName(INT32_MIN), L"Update ERR_-2147483648");
}
