#include "log/tool_log.h"

#include <cstdarg>

#include "test_support.h"

namespace {

std::tm Tm(int year, int month, int day, int hour, int minute, int second) {
    std::tm tm{};
    std::tie(tm.tm_year, tm.tm_mon, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec) = std::tuple(year - 1900, month - 1, day, hour, minute, second);
    return tm;
}

using ToolLogTest = ToolTest;

// The current product's logs folder, then the legacy one's, then the workspace.
TEST_F(ToolLogTest, FolderFollowsTheLogsDirOfEitherProductThenTheWorkspace) {
    const std::wstring name = L"\\updatetool\\Quorvane_Agent_Update_20260302140309.log";
    EXPECT_EQ(StartLog().path(), L"C:\\Users\\svc\\AppData\\Local\\Temp\\updatetool-data" + name);
    EXPECT_TRUE(Platform().files.count(StartLog().path()));
    const std::tuple<std::wstring, const wchar_t*, const wchar_t*> rows[] = {  // the backslash is not doubled
        {LegacyProductRoot(), L"D:\\legacy", L"D:\\legacy"}, {CurrentProductRoot(), L"D:\\current\\", L"D:\\current"}};
    for (const auto& [root, dir, folder] : rows) {
        fake::SetRegistryString(root + L"\\InstallLogsDir", dir);
        Platform().folders.insert(folder);
        EXPECT_EQ(StartLog().path(), folder + name);
    }
}

TEST_F(ToolLogTest, FileIsBomThenEveryLineWithCrLfAndTheConsoleGetsLf) {
    std::wstring path;
    {
        ToolLog log(&RunLogFolder);
        log.Log(L"a/b\\c");
        path = log.path();
    }
    const std::vector<std::uint8_t>& bytes = Platform().files.at(path);
    EXPECT_EQ(std::vector<std::uint8_t>(bytes.begin(), bytes.begin() + 2), (std::vector<std::uint8_t>{0xFF, 0xFE}));
    EXPECT_EQ(fake::FileText(path), L"2026-03-02 14.03.09: === Begin === \r\n"
                                    L"2026-03-02 14.03.09: Updatetool Version: 8.16.2.3\r\n"
                                    L"2026-03-02 14.03.09: a/b\\c\r\n"
                                    L"2026-03-02 14.03.09: === End ===\r\n");
    EXPECT_NE(Platform().console.find(L"2026-03-02 14.03.09: a/b\\c\n"), std::wstring::npos);
    EXPECT_EQ(Platform().console.find(L"\r"), std::wstring::npos);
}

TEST_F(ToolLogTest, VersionLineDegradesWithoutAVersion) {
    Platform().fileVersion.reset();
    StartLog();
    EXPECT_TRUE(LoggedLine(L"Updatetool Version: "));
    Platform().programPathError = 122;
    StartLog();
    EXPECT_TRUE(LoggedLine(L"WARNING: Unable to read this file version: (122)"));
}

// A write that fails keeps the text in memory: a locked file catches up with the next line, and
// a folder that cannot be made keeps the run going.
TEST_F(ToolLogTest, FailedWritesLoseNoLine) {
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

    fake::SetRegistryString(CurrentProductRoot() + L"\\InstallLogsDir", L"Q:\\nowhere");
    ToolLog& lost = StartLog();
    lost.Log(L"still logged");
    EXPECT_FALSE(Platform().files.count(lost.path()));
    EXPECT_TRUE(Logged(L": still logged\r\n"));
}

// Levels 0 to 3 are tagged, others not; the library's text may be long or no valid UTF-8.
TEST_F(ToolLogTest, LibraryCallbackTagsByLevel) {
    auto call = [](int level, const char* format, ...) {
        std::va_list args;
        va_start(args, format);
        ToolLogLibraryCallback(level, format, args);
        va_end(args);
    };
    const std::tuple<int, std::string, std::wstring> rows[] = {{-1, "below", L"below"}, {0, "debug", L"[DEBUG] debug"},
        {1, "caf\xC3\xA9 \xFF.\xE2\x82", L"[INFO] caf\u00e9 \uFFFD.\uFFFD"},
        {2, std::string(9000, 'x'), L"[WARNING] " + std::wstring(9000, L'x')},  // over one buffer
        {3, "error", L"[ERROR] error"}, {4, "above", L"above"}};
    for (const auto& [level, text, line] : rows) {
        call(level, "%s %d", text.c_str(), 7);
        EXPECT_TRUE(LoggedLine(line + L" 7")) << level;
    }
}

TEST(ToolLogFormat, TimestampLeavesOutPartsWithoutSeparatorAndFileNamesArePadded) {
    const std::tuple<wchar_t, wchar_t, wchar_t, const wchar_t*> rows[] = {
        {L'-', L'.', 0, L"2026-03-02 04.03.09"}, {L'-', L':', L'.', L"2026-03-02 04:03:09.007"},
        {0, L':', 0, L"04:03:09"},               {L'/', 0, 0, L"2026/03/02"},
        {0, 0, L',', L",007"},                   {0, 0, 0, L""}};
    for (const auto& [date, time, millis, expected] : rows)
        EXPECT_EQ(FormatTimestamp(Tm(2026, 3, 2, 4, 3, 9), date, time, millis, 7), expected);
    EXPECT_EQ(ToolLogFileName(Tm(2026, 1, 5, 0, 7, 59)), L"Quorvane_Agent_Update_20260105000759.log");
}

}  // namespace
