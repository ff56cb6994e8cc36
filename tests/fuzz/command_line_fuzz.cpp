// The tool's command line as the process received it: the run either stops (help, an unknown
// option) or goes on with options the text really spelled, and an override file named by a token.
#include "app/app.h"
#include "core/text.h"
#include "core/tokenizer.h"
#include "fake_platform.h"
#include "fuzz_check.h"
#include "platform/system.h"

constexpr const wchar_t* kWorkspace = L"C:\\ProgramData\\Quorvane\\Workspace";

static void Run(const std::wstring& commandLine) {
    fake::Reset();
    fake::State().commandLine = commandLine;
    fake::State().folders.insert(kWorkspace);
    // Any override file the line names exists with settings, so that the file is read too.
    const std::string settings = "Orel.version=8.13.0.1\nOrel.filename=setup.exe\n";
    const std::vector<std::wstring> tokens = core::SplitTokens(commandLine, L" \t\r\n");
    for (const std::wstring& token : tokens)
        fake::State().files[core::PathJoin(kWorkspace, token)] = {settings.begin(), settings.end()};
    const auto first = tokens.begin() + (tokens.empty() ? 0 : 1);  // after the program's name
    const auto spelled = [&](const std::wstring& option) {
        return std::any_of(first, tokens.end(), [&](const std::wstring& t) {
            return platform::EqualsIgnoreCase(t, L"-" + option) ||
                   platform::EqualsIgnoreCase(t, L"/" + option);
        });
    };
    App app;
    app.workspace = kWorkspace;
    const bool proceed = app.ParseCmdline(platform::CommandLine());
    FUZZ_CHECK((!app.force || spelled(L"force")) && (!app.test || spelled(L"test")));
    FUZZ_CHECK(!proceed || !spelled(L"help"));
    if (!proceed || app.overrideFile.empty()) return;
    FUZZ_CHECK(app.overrideFile.front() != L'-' && app.overrideFile.front() != L'/' &&
               std::find(first, tokens.end(), app.overrideFile) != tokens.end());
    FUZZ_CHECK(app.version == L"8.13.0.1" && app.filename == L"setup.exe");
}

FUZZ_TARGET {
    Run(fuzz::Widened(data, size));
    Run(fuzz::Utf16Le(data, size));
}
