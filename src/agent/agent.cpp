#include "agent/agent.h"

#include "agent/error_text.h"
#include "core/text.h"
#include "download/workspace.h"
#include "platform/file_search.h"
#include "platform/installer_database.h"
#include "platform/process.h"
#include "platform/registry.h"
#include "platform/system.h"
#include "platform/system_info.h"
#include "log/tool_log.h"

namespace {

constexpr std::wstring_view kX64Tag = L"x86_64";

std::optional<bool> g_hostX64Override;

bool IsMissingFileError(std::uint32_t error) {
    return error == platform::status::kFileNotFound || error == platform::status::kPathNotFound;
}

std::wstring LastCharacters(const std::wstring& text, std::size_t count) {
    return text.size() > count ? text.substr(text.size() - count) : text;
}

}  // namespace

Agent::Agent(const std::wstring& version, const std::wstring& filename) {
    if (!version.empty()) {
        LogF(L"%s: override version: %s", L"Agent::Agent", version);
        updateVersion_ = version;
    }
    if (!filename.empty()) {
        LogF(L"%s: override filename: %s", L"Agent::Agent", filename);
        installerPath_ = filename.find(L'\\') == std::wstring::npos
                             ? core::PathJoin(GetWorkspace(), filename)
                             : filename;
    }
}

bool Agent::ParseVersion(const std::wstring& text, VersionNumbers& parts) const {
    return ParseVersionText(text, parts);
}

bool Agent::CompVersion() {
    constexpr const wchar_t* kFunction = L"Agent::CompVersion";
    if (installedVersion_.empty()) {
        upgradeNeeded_ = true;
        LogF(L"%s: installed version not found", kFunction);
        return upgradeNeeded_;
    }
    VersionNumbers installed;
    if (!ParseVersion(installedVersion_, installed)) {
        upgradeNeeded_ = true;
        LogF(L"%s: cannot determine installed version: %s", kFunction, installedVersion_);
    }
    VersionNumbers update;
    if (!ParseVersion(updateVersion_, update))
        LogF(L"%s: cannot determine update version: %s", kFunction, updateVersion_);
    upgradeNeeded_ = UpgradeNeeded(installed, update, upgradeNeeded_);
    return upgradeNeeded_;
}

bool Agent::UpdateAvailable(bool force) const {
    constexpr const wchar_t* kFunction = L"Agent::UpdateAvailable";
    if (force || upgradeNeeded_) {
        if (!installerPath_.empty()) return true;
        LogF(L"%s: update installer empty", kFunction);
        return false;
    }
    LogF(L"%s: no need to upgrade", kFunction);
    return false;
}

bool Agent::FindInstalledVersion(const std::wstring& upgradeCode) {
    constexpr const wchar_t* kFunction = L"Agent::FindInstalledVersion";
    std::wstring productCode;
    if (const std::uint32_t status = platform::FirstRelatedProduct(upgradeCode, productCode)) {
        LogF(L"%s: MsiEnumRelatedProducts failed: %u code: %s", kFunction, status, upgradeCode);
        return false;
    }
    std::wstring version;
    if (const std::uint32_t status = platform::ProductVersionString(productCode, version)) {
        LogF(L"%s: MsiGetProductInfo failed: %u code: %s", kFunction, status, productCode);
        return false;
    }
    installedVersion_ = version;
    return true;
}

bool Agent::FindUpdateVersion(const std::wstring& prefix, bool want64,
                              const std::wstring& exclude) {
    constexpr const wchar_t* kFunction = L"Agent::FindUpdateVersion";
    if (installerPath_.empty()) {
        const bool hostX64 = IsHostX64();
        const bool only64 = want64 && hostX64;
        const std::wstring workspace = GetWorkspace();
        std::wstring pattern = core::PathJoin(workspace, prefix);
        if (only64) pattern += L"-x86_64";
        pattern += L"*";

        std::vector<std::wstring> names;
        if (const std::uint32_t error = platform::FindFiles(pattern, names)) {
            LogF(L"%s: FindFirstFile error: %s %s", kFunction, pattern, ErrorCodeText(error));
            return false;
        }
        const std::optional<std::wstring> chosen = ChooseInstallerName(names, exclude, only64);
        if (!chosen) return false;
        installerPath_ = core::PathJoin(workspace, *chosen);
        updateVersion_ = VersionFromInstallerName(*chosen, prefix.size(), hostX64);
    }
    LogF(L"%s: updateFilename: %s", kFunction, installerPath_);
    installerIsMsi_ = platform::EqualsIgnoreCase(LastCharacters(installerPath_, 4), L".msi");
    return true;
}

LaunchResult Agent::LaunchHelper(bool test, const std::wstring& commandLine,
                                 std::uint32_t& exitCode) const {
    constexpr const wchar_t* kFunction = L"Agent::LaunchHelper";
    if (commandLine.empty()) {
        LogF(L"%s: ERROR: update command line empty", kFunction);
        return launch_result::kNothingToRun;
    }
    if (installerPath_.empty()) {
        LogF(L"%s: ERROR: update installer empty", kFunction);
        return launch_result::kNothingToRun;
    }
    LogF(L"%s: launching: %s", kFunction, commandLine);
    if (test) {
        exitCode = 0;
        return launch_result::kDone;
    }
    platform::ProcessRun run = platform::RunProcessAndWait(commandLine, installerPath_);
    if (run.outcome == platform::ProcessOutcome::kHoldFailed && IsMissingFileError(run.error)) {
        // Nothing there to protect: let the plain start report it (CreateProcess's error for a
        // program, msiexec's own exit code for a package).
        run = platform::RunProcessAndWait(commandLine);
    }
    switch (run.outcome) {
        case platform::ProcessOutcome::kHoldFailed:
            LogF(L"%s: ERROR: cannot open %s to keep it unchanged while it runs: %s", kFunction,
                 installerPath_, ErrorCodeText(run.error));
            return launch_result::kNotRun;
        case platform::ProcessOutcome::kCreateFailed:
            LogF(L"%s: ERROR: CreateProcess failed: %s", kFunction, ErrorCodeText(run.error));
            return launch_result::kNotRun;
        case platform::ProcessOutcome::kExitCodeFailed:
            LogF(L"%s: ERROR: GetExitCodeProcess failed: %s", kFunction, ErrorCodeText(run.error));
            return launch_result::kNotRun;
        case platform::ProcessOutcome::kExited:
            break;
    }
    exitCode = run.exitCode;
    LogF(L"%s: %s returned: %s", kFunction, commandLine, ErrorCodeText(exitCode));
    return launch_result::kDone;
}

bool Agent::DetectHostX64() {
    const bool x64 =
        platform::NativeProcessorArchitecture() == platform::kProcessorArchitectureAmd64;
    LogF(L"%s: host system: %s", L"Agent::IsHostX64", x64 ? L"64-bit" : L"32-bit");
    return x64;
}

bool Agent::IsHostX64() {
    if (g_hostX64Override) return *g_hostX64Override;
    static const bool x64 = DetectHostX64();
    return x64;
}

ScopedHostX64ForTesting::ScopedHostX64ForTesting(bool x64) : previous_(g_hostX64Override) {
    g_hostX64Override = x64;
}

ScopedHostX64ForTesting::~ScopedHostX64ForTesting() {
    g_hostX64Override = previous_;
}

std::wstring CommandLinePath(const std::wstring& installerPath) {
    const bool quoted =
        installerPath.size() >= 2 && installerPath.front() == L'"' && installerPath.back() == L'"';
    if (quoted || installerPath.find_first_of(L" \t") == std::wstring::npos) return installerPath;
    return L"\"" + installerPath + L"\"";
}

std::optional<std::wstring> ChooseInstallerName(const std::vector<std::wstring>& names,
                                                const std::wstring& exclude, bool only64) {
    const std::wstring excluded = core::ToLower(exclude);
    for (const std::wstring& name : names) {
        const std::wstring lower = core::ToLower(name);
        if (!excluded.empty() && lower.find(excluded) != std::wstring::npos) continue;
        if ((lower.find(kX64Tag) != std::wstring::npos) == only64) return name;
    }
    return std::nullopt;
}

std::wstring VersionFromInstallerName(const std::wstring& name, std::size_t prefixLength,
                                      bool hostX64) {
    std::wstring version = name.substr(0, name.rfind(L'.'));
    version.erase(0, prefixLength);
    if (hostX64) {
        // Case-insensitive, like the search that picked the name.
        std::size_t at = 0;
        while ((at = core::ToLower(version).find(kX64Tag)) != std::wstring::npos)
            version.erase(at, kX64Tag.size());
    }
    const auto first = version.find_first_not_of(L"-_");
    if (first == std::wstring::npos) return {};
    return version.substr(first, version.find_last_not_of(L"-_") - first + 1);
}
