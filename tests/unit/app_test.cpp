// The run's set-up: the command-line tokenizer, options, the version override file, agent
// selection and the preflight flags, against the fake platform.
#include "app/app.h"

#include <string>
#include <typeinfo>
#include <vector>

#include "agent/generic_agent.h"
#include "agent/orel_agent.h"
#include "core/tokenizer.h"
#include "state/registry.h"
#include "test_support.h"

namespace {

const std::wstring kUpdateKey = L"HKLM\\Software\\Quorvane\\Lumenar\\Agent\\Update\\u1\\";
const std::wstring kProgram = L"\"C:\\Program Files\\Quorvane\\updatetool.exe\"";

class AppTest : public ToolTest {
protected:
    AppTest() { app.workspace = GetWorkspace(); }

    // An update key that passes the record's own checks, with the values given.
    void ArrangeUpdate(const std::vector<std::pair<std::wstring, std::wstring>>& values) {
        fake::SetRegistryValue(kUpdateKey + L"URL", {platform::regtype::kMultiSz,
                                                     core::Utf16BytesFromWide(L"https://a", true)});
        fake::SetRegistryString(kUpdateKey + L"AGENT", L"OTHER");
        for (const auto& [name, text] : values) fake::SetRegistryString(kUpdateKey + name, text);
    }

    void WriteWorkspaceFile(const std::wstring& name, const std::string& bytes) {
        Platform().files[core::PathJoin(GetWorkspace(), name)] = {bytes.begin(), bytes.end()};
    }

    App app;
};

// ---- The tokenizer ----

struct TokenCase {
    const wchar_t* text;
    std::vector<std::wstring> tokens;
};

void PrintTo(const TokenCase& c, std::ostream* os) {
    *os << ::testing::PrintToString(std::wstring(c.text));
}

class CommandLineTokensTest : public ::testing::TestWithParam<TokenCase> {};

TEST_P(CommandLineTokensTest, Splits) {
    EXPECT_EQ(core::SplitTokens(GetParam().text, L" \t\r\n"), GetParam().tokens);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, CommandLineTokensTest,
    ::testing::Values(
        TokenCase{L"", {}},
        TokenCase{L" \t a \r\n\t b  ", {L"a", L"b"}},  // leading and runs of separators
        TokenCase{L"\"C:\\Program Files\\u.exe\" -test", {L"C:\\Program Files\\u.exe", L"-test"}},
        TokenCase{L"'it''s here' x", {L"it's here", L"x"}},
        TokenCase{L"\"say \"\"hi\"\"\" y", {L"say \"hi\"", L"y"}},
        TokenCase{L"'a\"b' c", {L"a\"b", L"c"}},      // the other kind of quote is text
        TokenCase{L"\"a b\"c d", {L"a bc", L"d"}},    // text after the quote joins
        TokenCase{L"ab\"c d\"", {L"ab\"c", L"d\""}},  // quotes count only at a token's start
        TokenCase{L"x \"unclosed  run", {L"x", L"unclosed  run"}},
        TokenCase{L"a \"\" b", {L"a"}}));  // an empty token ends the split

// ---- Options ----

struct OptionCase {
    const wchar_t* arguments;
    bool ok;
    bool force;
    bool test;
    const wchar_t* logged;  // expected log fragment, or nullptr
};

void PrintTo(const OptionCase& c, std::ostream* os) {
    *os << ::testing::PrintToString(std::wstring(c.arguments));
}

class AppOptionsTest : public AppTest, public ::testing::WithParamInterface<OptionCase> {};

TEST_P(AppOptionsTest, SetsFlagsOrRefuses) {
    const std::wstring commandLine = kProgram + GetParam().arguments;
    EXPECT_EQ(app.ParseCmdline(commandLine), GetParam().ok);
    EXPECT_EQ(app.force, GetParam().force);
    EXPECT_EQ(app.test, GetParam().test);
    EXPECT_TRUE(Logged(L"App::ParseCmdline: cmdLine: [" + commandLine + L"]\r\n"));
    if (GetParam().logged) {
        EXPECT_TRUE(Logged(GetParam().logged)) << LogText();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Arguments, AppOptionsTest,
    ::testing::Values(
        OptionCase{L"", true, false, false, nullptr},
        OptionCase{L" /FORCE", true, true, false, L"App::ParseCmdline: force launch enabled\r\n"},
        OptionCase{L" -Test\t-force", true, true, true,
                   L"App::ParseCmdline: test mode enabled\r\n"},
        OptionCase{L" -forced", false, false, false,
                   L"App::ParseCmdline: unknown argument 1: [-forced]\r\n"},
        OptionCase{L" -force  /x -test", false, true, false,
                   L"App::ParseCmdline: unknown argument 2: [/x]\r\n"},
        OptionCase{L" -test -help", false, false, true, L"App::ParseCmdline: invoking help\r\n"}));

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

// ---- The version override file ----

struct OverrideCase {
    const char* content;
    const wchar_t* version;
    const wchar_t* filename;
};

void PrintTo(const OverrideCase& c, std::ostream* os) {
    *os << ::testing::PrintToString(std::string(c.content));
}

class AppOverrideFileTest : public AppTest, public ::testing::WithParamInterface<OverrideCase> {};

TEST_P(AppOverrideFileTest, ReadsTheMainAgentsSettings) {
    WriteWorkspaceFile(L"override.txt", GetParam().content);
    ASSERT_TRUE(app.ParseCmdline(kProgram + L" override.txt"));
    EXPECT_EQ(app.overrideFile, L"override.txt");
    EXPECT_EQ(app.version, GetParam().version);
    EXPECT_EQ(app.filename, GetParam().filename);
    EXPECT_TRUE(Logged(L"App::ParseCmdline: version override filename: [override.txt]\r\n"));
    if (*GetParam().version) {
        EXPECT_TRUE(Logged(std::wstring(L"App::ParseOverrideFile: version for Orel: [") +
                           GetParam().version + L"]\r\n"));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Contents, AppOverrideFileTest,
    ::testing::Values(
        OverrideCase{"Orel.version=8.13.0\nOrel.filename=a.exe\n", L"8.13.0", L"a.exe"},
        OverrideCase{"Orel.version= \t8.13.0 \r\nOrel.filename=\t b c.exe\r\n", L"8.13.0",
                     L"b c.exe"},
        OverrideCase{"Orel.version=1\nOrel.version=2\n", L"1", L""},  // the first line wins
        OverrideCase{"Orel.version\nOrel.version=2\n", L"", L""},     // even when it is empty
        OverrideCase{"Orel.version=1=2\n", L"", L""},                 // more than two parts
        OverrideCase{"Orel.version==2\n", L"", L""},                  // empty parts count too
        OverrideCase{"orel.version=3\nOther.version=4\n", L"", L""},
        OverrideCase{"\xEF\xBB\xBFOrel.version=3", L"3", L""},  // a byte-order mark is no key
        OverrideCase{"\n\nOrel.filename=\xC3\xA4.exe", L"", L"\u00E4.exe"}));

TEST_F(AppTest, OverrideFileProblemsAreOnlyLoggedAndALaterFileReadsToo) {
    WriteWorkspaceFile(L"sub\\first.txt", "Orel.version=1.0.0\nOrel.filename=a.exe");
    WriteWorkspaceFile(L"empty.txt", "");
    WriteWorkspaceFile(L"latin1.txt", "Orel.version=\xE4");
    EXPECT_TRUE(app.ParseCmdline(kProgram + L" sub/first.txt missing.txt latin1.txt empty.txt"));
    EXPECT_EQ(app.overrideFile, L"empty.txt");
    EXPECT_EQ(app.version, L"1.0.0");  // what the first file set stays
    EXPECT_EQ(app.filename, L"a.exe");
    for (const wchar_t* name : {L"missing.txt", L"latin1.txt"})
        EXPECT_TRUE(Logged(std::wstring(L"App::ParseOverrideFile: unable to read from: [") + name +
                           L"]\r\n"));
    EXPECT_TRUE(Logged(L"App::ParseOverrideFile: version override file is empty\r\n"));
}

// ---- Set-up: the update, the agent and the options ----

struct AgentCase {
    const wchar_t* agent;
    const char* kind;  // typeid name of the agent created, or nullptr for none
};

void PrintTo(const AgentCase& c, std::ostream* os) {
    *os << ::testing::PrintToString(std::wstring(c.agent));
}

class AppAgentSelectionTest : public AppTest, public ::testing::WithParamInterface<AgentCase> {};

TEST_P(AppAgentSelectionTest, ComparesTheWholeWordInAnyCase) {
    ArrangeUpdate({{L"AGENT", GetParam().agent}});
    ASSERT_TRUE(app.Setup());
    if (GetParam().kind) {
        ASSERT_EQ(app.agents.size(), 1u);
        const Agent& agent = *app.agents[0];
        EXPECT_STREQ(typeid(agent).name(), GetParam().kind);
    } else {
        EXPECT_TRUE(app.agents.empty());
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, AppAgentSelectionTest,
                         ::testing::Values(AgentCase{L"orel", typeid(OrelAgent).name()},
                                           AgentCase{L"Other", typeid(GenericAgent).name()},
                                           AgentCase{L"ORELX", nullptr},
                                           AgentCase{L"OREL ", nullptr}));

TEST_F(AppTest, RecordValuesReplaceTheOverrideFileForTheMainAgent) {
    WriteWorkspaceFile(L"o.txt", "Orel.version=1.0.0\nOrel.filename=old.exe\n");
    Platform().commandLine = kProgram + L" o.txt";
    ArrangeUpdate({{L"AGENT", L"OREL"}, {L"VERSION", L"8.13.0.5"}});
    ASSERT_TRUE(app.Setup());
    EXPECT_EQ(app.version, L"8.13.0.5");
    EXPECT_EQ(app.filename, L"");  // a missing FILENAME still replaces old.exe
    EXPECT_TRUE(Logged(L"App::ParseOverrideFile: filename for Orel: [old.exe]\r\n"));
    ASSERT_EQ(app.agents.size(), 1u);
    EXPECT_EQ(app.agents[0]->updateVersion(), L"8.13.0.5");
    EXPECT_EQ(app.agents[0]->installerPath(), L"");
}

TEST_F(AppTest, GenericAgentTakesTheRecordsFileFromTheWorkspace) {
    ArrangeUpdate({{L"AGENT", L"OTHER"},
                   {L"FILENAME", L"pkg.msi"},
                   {L"ARCH", L"64-BitAgent"},
                   {L"OPTIONS", L"ADDLOCAL=ALL"}});
    ASSERT_TRUE(app.Setup());
    ASSERT_EQ(app.agents.size(), 1u);
    EXPECT_EQ(app.agents[0]->installerPath(), GetWorkspace() + L"\\pkg.msi");
    EXPECT_EQ(app.arch, L"64-BitAgent");
    EXPECT_EQ(app.options, L"ADDLOCAL=ALL");
}

TEST_F(AppTest, SetupFailsWithoutUsableCommandLineOrUpdate) {
    EXPECT_FALSE(app.Setup());  // no update
    Platform().commandLine = kProgram + L" -x";
    ArrangeUpdate({});
    App refused;
    EXPECT_FALSE(refused.Setup());
    EXPECT_TRUE(refused.record.empty());  // the update was not even read
    fake::SetRegistryString(kUpdateKey + L"AGENT", L"");
    Platform().commandLine = kProgram;
    App noAgent;
    EXPECT_FALSE(noAgent.Setup());  // the record itself requires an agent kind
}

struct PreflightCase {
    const wchar_t* options;
    bool preflight;
    bool legacyWorkflow;
};

void PrintTo(const PreflightCase& c, std::ostream* os) {
    *os << ::testing::PrintToString(std::wstring(c.options));
}

class AppPreflightFlagsTest : public AppTest,
                              public ::testing::WithParamInterface<PreflightCase> {};

TEST_P(AppPreflightFlagsTest, FoundAnywhereInTheOptions) {
    ArrangeUpdate({{L"OPTIONS", GetParam().options}});
    ASSERT_TRUE(app.Setup());
    EXPECT_EQ(app.preflight, GetParam().preflight);
    EXPECT_EQ(app.legacyWorkflow, GetParam().legacyWorkflow);
}

INSTANTIATE_TEST_SUITE_P(
    Options, AppPreflightFlagsTest,
    ::testing::Values(PreflightCase{L"", false, false},
                      PreflightCase{L"PREFLIGHTCHECK_ENABLED=1", true, false},
                      PreflightCase{L"A=1 preflightcheck_enabled=2 B=2", true, true},
                      PreflightCase{L"PREFLIGHTCHECK_ENABLED=1;PREFLIGHTCHECK_ENABLED=2", true,
                                    true},
                      PreflightCase{L"PREFLIGHTCHECK_ENABLED=0", false, false}));

}  // namespace
