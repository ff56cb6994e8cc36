// The tool's command line, as the process received it (fake::State().commandLine). Whatever it
// holds, the run either stops (help, an unknown option) or goes on with options that the text
// really spelled, and an override file name that is not an option.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "app/app.h"
#include "core/text.h"
#include "core/tokenizer.h"
#include "fake_platform.h"
#include "fuzz_check.h"
#include "platform/system.h"

namespace {

constexpr const wchar_t* kWorkspace = L"C:\\ProgramData\\Quorvane\\Workspace";

std::wstring FromUtf16Le(const std::uint8_t* data, std::size_t size) {
    std::wstring text;
    for (std::size_t i = 0; i + 1 < size; i += 2)
        text.push_back(static_cast<wchar_t>(data[i] | (data[i + 1] << 8)));
    return text;
}

bool Spelled(const std::vector<std::wstring>& tokens, const wchar_t* option) {
    for (std::size_t i = 1; i < tokens.size(); ++i) {
        if (platform::EqualsIgnoreCase(tokens[i], std::wstring(L"-") + option) ||
            platform::EqualsIgnoreCase(tokens[i], std::wstring(L"/") + option))
            return true;
    }
    return false;
}

void Run(const std::wstring& commandLine) {
    fake::Reset();
    fake::State().commandLine = commandLine;
    fake::State().folders.insert(kWorkspace);
    // Any override file the command line names exists, with a setting, so the file is read too.
    const std::string settings = "Orel.version=8.13.0.1\nOrel.filename=setup.exe\n";
    for (const std::wstring& token : core::SplitTokens(commandLine, L" \t\r\n"))
        fake::State().files[core::PathJoin(kWorkspace, token)] =
            std::vector<std::uint8_t>(settings.begin(), settings.end());

    App app;
    app.workspace = kWorkspace;
    const bool proceed = app.ParseCmdline(platform::CommandLine());

    const std::vector<std::wstring> tokens = core::SplitTokens(commandLine, L" \t\r\n");
    if (app.force) FUZZ_CHECK(Spelled(tokens, L"force"));
    if (app.test) FUZZ_CHECK(Spelled(tokens, L"test"));
    if (!proceed) return;
    FUZZ_CHECK(!Spelled(tokens, L"help"));
    if (!app.overrideFile.empty()) {
        FUZZ_CHECK(app.overrideFile.front() != L'-' && app.overrideFile.front() != L'/');
        bool named = false;
        for (std::size_t i = 1; i < tokens.size(); ++i) named = named || tokens[i] == app.overrideFile;
        FUZZ_CHECK(named);
        FUZZ_CHECK(app.version == L"8.13.0.1" && app.filename == L"setup.exe");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Run(std::wstring(data, data + size));
    Run(FromUtf16Le(data, size));
    return 0;
}
