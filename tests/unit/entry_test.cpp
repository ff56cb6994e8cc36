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
    Platform().mutexes.insert(kSingleInstanceMutexName);
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
