// The run's set-up: the command-line tokenizer, options, the version override file, agent
// selection and the preflight flags, against the fake platform.
#include "app/app.h"

#include <string>
#include <typeinfo>
#include <vector>

#include "agent/generic_agent.h"
#include "agent/orel_agent.h"
#include "core/tokenizer.h"
#include "test_support.h"

namespace {

const std::wstring kProgram = L"\"C:\\Program Files\\Quorvane\\updatetool.exe\"";

class AppTest : public ToolTest {
protected:
    AppTest() { app.workspace = GetWorkspace(); }
    void Arrange(const std::vector<std::pair<std::wstring, std::wstring>>& values) { ArrangeUpdate(CurrentUpdates(), L"u1", values); }
    void WriteWorkspaceFile(const std::wstring& name, const std::string& s) { Platform().files[core::PathJoin(GetWorkspace(), name)] = {s.begin(), s.end()}; }
    App app;
};

// Plain splits, runs of separators and empty tokens are the fuzz target's; these are the quotes.
TEST(CommandLineTokens, QuotesGroupOnlyAtATokensStart) {
    const std::pair<const wchar_t*, std::vector<std::wstring>> rows[] = {
        {L"\"C:\\Program Files\\u.exe\" -test", {L"C:\\Program Files\\u.exe", L"-test"}},
        {L"'it''s here' \"say \"\"hi\"\"\"", {L"it's here", L"say \"hi\""}},
        {L"'a\"b' c", {L"a\"b", L"c"}},
        {L"\"a b\"c d", {L"a bc", L"d"}}, {L"ab\"c d\"", {L"ab\"c", L"d\""}},
        {L"x \"unclosed  run", {L"x", L"unclosed  run"}},
        {L"a \"\" b", {L"a"}},  // an empty token ends the split
    };
    for (const auto& [text, tokens] : rows)
        EXPECT_EQ(core::SplitTokens(text, L" \t\r\n"), tokens) << testing::PrintToString(text);
}

TEST_F(AppTest, OptionsSetFlagsOrStopTheRun) {
    const std::tuple<const wchar_t*, bool, bool, bool, const wchar_t*> rows[] = {{L" /FORCE", true, true, false, L"force launch enabled"},
        {L" -Test\t-force", true, true, true, L"test mode enabled"},
        {L" -forced", false, false, false, L"unknown argument 1: [-forced]"},
        {L" -force  /x -test", false, true, false, L"unknown argument 2: [/x]"},
        {L" -test -help", false, false, true, L"invoking help"},
    };
    for (const auto& [arguments, ok, force, test, said] : rows) {
        SCOPED_TRACE(testing::PrintToString(std::wstring(arguments)));
        StartLog();
        App one;
        const std::wstring line = kProgram + arguments;
        EXPECT_EQ(one.ParseCmdline(line), ok);
        EXPECT_EQ(one.force, force);
        EXPECT_EQ(one.test, test);
        EXPECT_TRUE(Logged(L"App::ParseCmdline: cmdLine: [" + line + L"]\r\n"));
        EXPECT_TRUE(Logged(std::wstring(L"App::ParseCmdline: ") + said + L"\r\n"));
    }
}

TEST_F(AppTest, HelpPrintsTheUsageAndStopsBeforeLaterOptions) {
    Platform().programPath = L"D:\\tools\\updtool.exe";
    EXPECT_FALSE(app.ParseCmdline(kProgram + L" -help -bogus"));
    EXPECT_EQ(Platform().console.substr(Platform().console.find(L"updtool.exe [")),
              L"updtool.exe [-help] [-force] [-test] [<version filename>]\n"
              L"-help              : usage help\n"
              L"-force             : force updates\n"
              L"-test              : don't do updates\n"
              L"<version filename> : version override configuration file\n");
    EXPECT_FALSE(Logged(L"unknown argument"));
}

// That a value is a known key's trimmed text after "=" is the fuzz target's; these are the choices.
TEST_F(AppTest, OverrideFileSetsTheMainAgentsVersionAndInstaller) {
    const std::tuple<const char*, const wchar_t*, const wchar_t*> rows[] = {
        {"Orel.version= \t8.13.0 \r\nOrel.filename=\t b c.exe\r\n", L"8.13.0", L"b c.exe"},
        {"Orel.version=1\nOrel.version=2\n", L"1", L""},  // the first line wins
        {"Orel.version\nOrel.version=2\n", L"", L""},     // even when it is empty
        {"Orel.version=1=2\n", L"", L""},                 // more than two parts
        {"\xEF\xBB\xBFOrel.version=3", L"3", L""},        // a byte-order mark is no key
        {"\n\nOrel.filename=\xC3\xA4.exe", L"", L"\u00E4.exe"},
    };
    for (const auto& [content, version, filename] : rows) {
        SCOPED_TRACE(content);
        StartLog();
        WriteWorkspaceFile(L"override.txt", content);
        App one;
        one.workspace = GetWorkspace();
        ASSERT_TRUE(one.ParseCmdline(kProgram + L" override.txt"));
        EXPECT_EQ(one.version, version);
        EXPECT_EQ(one.filename, filename);
        EXPECT_TRUE(Logged(L"App::ParseCmdline: version override filename: [override.txt]\r\n"));
        EXPECT_EQ(Logged(L"App::ParseOverrideFile: version for Orel: [" + std::wstring(version) + L"]\r\n"), *version != 0);
    }
}

TEST_F(AppTest, OverrideFileProblemsAreOnlyLoggedAndALaterFileReadsToo) {
    WriteWorkspaceFile(L"sub\\first.txt", "Orel.version=1.0.0\nOrel.filename=a.exe");
    WriteWorkspaceFile(L"empty.txt", "");
    WriteWorkspaceFile(L"latin1.txt", "Orel.version=\xE4");
    EXPECT_TRUE(app.ParseCmdline(kProgram + L" sub/first.txt missing.txt latin1.txt empty.txt"));
    EXPECT_EQ(app.overrideFile, L"empty.txt");
    EXPECT_EQ(app.version, L"1.0.0");  // what the first file set stays
    EXPECT_EQ(app.filename, L"a.exe");
    for (const wchar_t* name : {L"missing.txt", L"latin1.txt"})
        EXPECT_TRUE(Logged(L"App::ParseOverrideFile: unable to read from: [" + std::wstring(name) + L"]\r\n"));
    EXPECT_TRUE(Logged(L"App::ParseOverrideFile: version override file is empty\r\n"));
}

TEST_F(AppTest, SetupChoosesTheAgentByWholeWordAndFindsThePreflightFlags) {
    const std::tuple<const wchar_t*, const wchar_t*, const char*, bool, bool> rows[] = {
        {L"orel", L"", typeid(OrelAgent).name(), false, false},
        {L"Other", L"PREFLIGHTCHECK_ENABLED=1", typeid(GenericAgent).name(), true, false},
        {L"ORELX", L"A=1 preflightcheck_enabled=2 B=2", nullptr, true, true},
        {L"OREL ", L"PREFLIGHTCHECK_ENABLED=0", nullptr, false, false},
    };
    for (const auto& [agent, options, kind, preflight, legacy] : rows) {
        SCOPED_TRACE(testing::PrintToString(std::wstring(agent)));
        Arrange({{L"AGENT", agent}, {L"OPTIONS", options}});
        App one;
        ASSERT_TRUE(one.Setup());
        ASSERT_EQ(one.agents.size(), kind ? 1u : 0u);
        EXPECT_STREQ(kind ? typeid(*one.agents[0]).name() : nullptr, kind);
        EXPECT_EQ(one.preflight, preflight);
        EXPECT_EQ(one.legacyWorkflow, legacy);
    }
}

TEST_F(AppTest, RecordValuesReplaceTheOverrideFileForTheMainAgent) {
    WriteWorkspaceFile(L"o.txt", "Orel.version=1.0.0\nOrel.filename=old.exe\n");
    Platform().commandLine = kProgram + L" o.txt";
    Arrange({{L"AGENT", L"OREL"}, {L"VERSION", L"8.13.0.5"}});
    ASSERT_TRUE(app.Setup());
    EXPECT_EQ(app.version, L"8.13.0.5");
    EXPECT_EQ(app.filename, L"");  // a missing FILENAME still replaces old.exe
    EXPECT_TRUE(Logged(L"App::ParseOverrideFile: filename for Orel: [old.exe]\r\n"));
    EXPECT_TRUE(Logged(L"Agent::Agent: override version: 8.13.0.5\r\n"));
    ASSERT_EQ(app.agents.size(), 1u);
    EXPECT_EQ(app.agents[0]->installerPath(), L"");
}

TEST_F(AppTest, SetupFailsWithoutUsableCommandLineOrUpdate) {
    EXPECT_FALSE(app.Setup());  // no update
    Platform().commandLine = kProgram + L" -x";
    Arrange({});
    App refused;
    EXPECT_FALSE(refused.Setup());
    EXPECT_TRUE(refused.record.empty());  // the update was not even read
}

}  // namespace
