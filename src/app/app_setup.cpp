// The run's set-up: workspace, command line, version override file, the active update and the
// agent that will carry it out.
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/generic_agent.h"
#include "agent/orel_agent.h"
#include "app/app.h"
#include "core/core_exception.h"
#include "core/format.h"
#include "core/text.h"
#include "core/tokenizer.h"
#include "download/workspace.h"
#include "platform/files.h"
#include "platform/system.h"
#include "log/tool_log.h"

namespace {

constexpr std::wstring_view kCommandLineSeparators = L" \t\r\n";

// Agents whose version and installer an override file may name, as "<name>.version" and
// "<name>.filename".
constexpr const wchar_t* kOverridableAgents[] = {L"Orel"};

std::wstring Property(const UpdateProperties& record, const wchar_t* name) {
    const auto it = record.find(name);
    return it == record.end() ? std::wstring() : it->second;
}

bool IsOption(const std::wstring& token, const wchar_t* name) {
    return platform::EqualsIgnoreCase(token, std::wstring(L"-") + name) ||
           platform::EqualsIgnoreCase(token, std::wstring(L"/") + name);
}

void ShowHelp() {
    std::uint32_t error = 0;
    const std::wstring program = core::FileNameOf(platform::ProgramPath(error));
    platform::WriteStdout(
        core::Format(L"%s [-help] [-force] [-test] [<version filename>]\n", program));
    platform::WriteStdout(L"-help              : usage help\n");
    platform::WriteStdout(L"-force             : force updates\n");
    platform::WriteStdout(L"-test              : don't do updates\n");
    platform::WriteStdout(L"<version filename> : version override configuration file\n");
}

// key=value lines. A line with no "=" or more than one gives its key an empty value; the first
// line of a key wins.
std::map<std::wstring, std::wstring> ParseSettings(const std::wstring& text) {
    std::map<std::wstring, std::wstring> settings;
    for (std::wstring line : core::Split(text, L'\n')) {
        if (!line.empty() && line.back() == L'\r') line.pop_back();
        if (line.empty()) continue;
        const std::vector<std::wstring> parts = core::Split(line, L'=');
        settings.emplace(parts[0], parts.size() == 2 ? parts[1] : std::wstring());
    }
    return settings;
}

std::wstring Setting(const std::map<std::wstring, std::wstring>& settings,
                     const std::wstring& key) {
    const auto it = settings.find(key);
    return it == settings.end() ? std::wstring() : core::Trim(it->second);
}

}  // namespace

bool App::Setup() {
    workspace = GetWorkspace();
    if (workspace.empty()) return false;

    if (!ParseCmdline(platform::CommandLine())) return false;

    if (!Util_GetUpdateState(record)) return false;

    const std::wstring agent = Property(record, L"AGENT");
    if (platform::EqualsIgnoreCase(agent, L"OREL")) {
        // The record has the last word: what an override file named only shows in the log.
        version = Property(record, L"VERSION");
        filename = Property(record, L"FILENAME");
        agents.push_back(std::make_unique<OrelAgent>(version, filename));
    } else if (platform::EqualsIgnoreCase(agent, L"OTHER")) {
        agents.push_back(std::make_unique<GenericAgent>(Property(record, L"FILENAME")));
    }
    // Any other kind gets no agent; the version check then ends the run.

    arch = Property(record, L"ARCH");
    options = Property(record, L"OPTIONS");
    if (!options.empty()) {
        if (core::ContainsIgnoreCase(options, L"PREFLIGHTCHECK_ENABLED=1")) preflight = true;
        if (core::ContainsIgnoreCase(options, L"PREFLIGHTCHECK_ENABLED=2")) {
            preflight = true;
            legacyWorkflow = true;
        }
    }
    return true;
}

bool App::ParseCmdline(const std::wstring& commandLine) {
    constexpr const wchar_t* kFunction = L"App::ParseCmdline";
    LogF(L"%s: cmdLine: [%s]", kFunction, commandLine);

    const std::vector<std::wstring> tokens = core::SplitTokens(commandLine, kCommandLineSeparators);
    // Token 0 is the program itself.
    for (std::size_t index = 1; index < tokens.size(); ++index) {
        const std::wstring& token = tokens[index];
        if (token.empty()) continue;
        if (IsOption(token, L"help")) {
            LogF(L"%s: invoking help", kFunction);
            ShowHelp();
            return false;
        }
        if (IsOption(token, L"force")) {
            force = true;
            LogF(L"%s: force launch enabled", kFunction);
        } else if (IsOption(token, L"test")) {
            test = true;
            LogF(L"%s: test mode enabled", kFunction);
        } else if (token.front() == L'-' || token.front() == L'/') {
            LogF(L"%s: unknown argument %u: [%s]", kFunction, static_cast<unsigned>(index), token);
            return false;
        } else {
            overrideFile = token;
            LogF(L"%s: version override filename: [%s]", kFunction, overrideFile);
            ParseOverrideFile();
        }
    }
    return true;
}

void App::ParseOverrideFile() {
    constexpr const wchar_t* kFunction = L"App::ParseOverrideFile";
    if (overrideFile.empty()) return;

    const std::optional<std::vector<std::uint8_t>> bytes =
        platform::ReadWholeFile(core::PathJoin(workspace, overrideFile));
    std::optional<std::wstring> text;
    if (bytes) {
        std::string_view utf8(reinterpret_cast<const char*>(bytes->data()), bytes->size());
        if (utf8.substr(0, 3) == "\xEF\xBB\xBF") utf8.remove_prefix(3);  // as editors save it
        try {
            text = core::WideFromUtf8(utf8);
        } catch (const CORE::coreException&) {
            // Not UTF-8: the file is as unusable as a missing one, and only a convenience.
        }
    }
    if (!text) {
        LogF(L"%s: unable to read from: [%s]", kFunction, overrideFile);
        return;
    }

    const std::map<std::wstring, std::wstring> settings = ParseSettings(*text);
    if (settings.empty()) {
        LogF(L"%s: version override file is empty", kFunction);
        return;
    }
    for (const wchar_t* name : kOverridableAgents) {
        const std::wstring agentName = name;
        const std::wstring overrideVersion = Setting(settings, agentName + L".version");
        if (!overrideVersion.empty()) {
            LogF(L"%s: version for %s: [%s]", kFunction, agentName, overrideVersion);
            version = overrideVersion;
        }
        const std::wstring overrideFilename = Setting(settings, agentName + L".filename");
        if (!overrideFilename.empty()) {
            LogF(L"%s: filename for %s: [%s]", kFunction, agentName, overrideFilename);
            filename = overrideFilename;
        }
    }
}
