#include "log/tool_log.h"

#include <cstdarg>

#include "state/registry.h"
#include "test_support.h"

namespace {

std::tm Tm(int year, int month, int day, int hour, int minute, int second) {
    std::tm tm{};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    return tm;
}

constexpr const wchar_t* kWorkspaceLogs =
    L"C:\\Users\\svc\\AppData\\Local\\Temp\\updatetool-data\\updatetool";
constexpr const wchar_t* kFileName = L"Quorvane_Agent_Update_20260302140309.log";

class ToolLogTest : public ToolTest {
protected:
    void SetLogsDir(const std::wstring& root, const std::wstring& dir) {
        fake::SetRegistryString(root + L"\\InstallLogsDir", dir);
        Platform().folders.insert(dir.back() == L'\\' ? dir.substr(0, dir.size() - 1) : dir);
    }
};

TEST_F(ToolLogTest, FallsBackToTheWorkspaceWithoutALogsFolder) {
    EXPECT_EQ(StartLog().path(), std::wstring(kWorkspaceLogs) + L"\\" + kFileName);
    EXPECT_TRUE(Platform().files.count(StartLog().path()));
}

TEST_F(ToolLogTest, PrefersTheCurrentThenTheLegacyLogsFolder) {
    SetLogsDir(LegacyProductRoot(), L"D:\\legacy");
    EXPECT_EQ(StartLog().path(), std::wstring(L"D:\\legacy\\updatetool\\") + kFileName);
    SetLogsDir(CurrentProductRoot(), L"D:\\current\\");  // trailing backslash: not doubled
    EXPECT_EQ(StartLog().path(), std::wstring(L"D:\\current\\updatetool\\") + kFileName);
}

TEST_F(ToolLogTest, FileIsBomThenEveryLineWithCrLf) {
    ToolLog& log = StartLog();
    log.Log(L"a/b\\c");
    const std::vector<std::uint8_t>& bytes = Platform().files.at(log.path());
    ASSERT_GE(bytes.size(), 2u);
    EXPECT_EQ(bytes[0], 0xFF);
    EXPECT_EQ(bytes[1], 0xFE);
    EXPECT_EQ(fake::FileText(log.path()),
              L"2026-03-02 14.03.09: === Begin === \r\n"
              L"2026-03-02 14.03.09: Updatetool Version: 8.16.2.3\r\n"
              L"2026-03-02 14.03.09: a/b\\c\r\n");
    EXPECT_NE(Platform().console.find(L"2026-03-02 14.03.09: a/b\\c\n"), std::wstring::npos);
    EXPECT_EQ(Platform().console.find(L"\r"), std::wstring::npos);
}

TEST_F(ToolLogTest, EndBannerIsTheLastLine) {
    std::wstring path;
    {
        ToolLog log(&RunLogFolder);
        path = log.path();
    }
    const std::wstring text = fake::FileText(path);
    EXPECT_EQ(text.substr(text.size() - 34), L"2026-03-02 14.03.09: === End ===\r\n");
}

TEST_F(ToolLogTest, VersionLineDegradesWithoutAVersion) {
    Platform().fileVersion.reset();
    EXPECT_TRUE(StartLog().text().find(L": Updatetool Version: \r\n") != std::wstring::npos);
    Platform().programPathError = 122;
    EXPECT_TRUE(StartLog().text().find(L": WARNING: Unable to read this file version: (122)\r\n") !=
                std::wstring::npos);
}

TEST_F(ToolLogTest, LockedFileCatchesUpWithTheNextLine) {
    ToolLog& log = StartLog();
    Platform().locked.insert(log.path());
    Platform().lastError = 1234;
    log.Log(L"while locked");
    EXPECT_EQ(Platform().lastError, 32u);  // why the write failed, not what came before
    EXPECT_EQ(fake::FileText(log.path()).find(L"while locked"), std::wstring::npos);
    Platform().locked.clear();
    log.Log(L"after");
    const std::wstring text = fake::FileText(log.path());
    EXPECT_LT(text.find(L"while locked\r\n"), text.find(L"after\r\n"));
}

TEST_F(ToolLogTest, UnwritableFolderKeepsTheRunGoing) {
    fake::SetRegistryString(CurrentProductRoot() + L"\\InstallLogsDir", L"Q:\\nowhere");
    ToolLog& log = StartLog();
    log.Log(L"still logged");
    EXPECT_FALSE(Platform().files.count(log.path()));
    EXPECT_NE(log.text().find(L"still logged"), std::wstring::npos);
}

TEST_F(ToolLogTest, LibraryCallbackTagsByLevel) {
    auto call = [](int level, const char* format, ...) {
        std::va_list args;
        va_start(args, format);
        ToolLogLibraryCallback(level, format, args);
        va_end(args);
    };
    call(0, "%s %d", "debug", 1);
    call(3, "caf\xC3\xA9");
    call(2, "%s", std::string(20000, 'x').c_str());  // longer than the first buffer
    call(9, "out of range");
    call(1, "caf\xC3\xA9 \xFF na\xC3\xAFve %s", "\xE2\x82");
    EXPECT_TRUE(Logged(L": [DEBUG] debug 1\r\n"));
    EXPECT_TRUE(Logged(L": [ERROR] caf\u00e9\r\n"));
    EXPECT_TRUE(Logged(L": [WARNING] " + std::wstring(20000, L'x') + L"\r\n"));
    EXPECT_TRUE(Logged(L": out of range\r\n"));
    EXPECT_TRUE(Logged(L": [INFO] caf\u00e9 \uFFFD na\u00efve \uFFFD\r\n"));
}

struct TimestampCase {
    wchar_t date;
    wchar_t time;
    wchar_t millis;
    const wchar_t* expected;
};

class FormatTimestampTest : public ::testing::TestWithParam<TimestampCase> {};

TEST_P(FormatTimestampTest, LeavesOutPartsWithoutSeparator) {
    const auto& c = GetParam();
    EXPECT_EQ(FormatTimestamp(Tm(2026, 3, 2, 4, 3, 9), c.date, c.time, c.millis, 7), c.expected);
}

INSTANTIATE_TEST_SUITE_P(Separators, FormatTimestampTest,
                         ::testing::Values(TimestampCase{L'-', L'.', 0, L"2026-03-02 04.03.09"},
                                           TimestampCase{L'-', L':', L'.', L"2026-03-02 04:03:09.007"},
                                           TimestampCase{0, L':', 0, L"04:03:09"},
                                           TimestampCase{L'/', 0, 0, L"2026/03/02"},
                                           TimestampCase{0, 0, L',', L",007"},
                                           TimestampCase{0, 0, 0, L""}));

TEST(ToolLogFileName, PadsEveryFieldButTheYear) {
    EXPECT_EQ(ToolLogFileName(Tm(2026, 1, 5, 0, 7, 59)), L"Quorvane_Agent_Update_20260105000759.log");
}

}  // namespace
