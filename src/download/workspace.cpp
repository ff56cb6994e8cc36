#include "download/workspace.h"

#include <optional>

#include "core/text.h"
#include "platform/content_client.h"
#include "platform/files.h"
#include "platform/system.h"
#include "log/tool_log.h"
#include "state/registry.h"

namespace {

constexpr std::uint32_t kMaxPath = 260;

struct WorkspaceState {
    std::optional<std::wstring> workspace;
};

WorkspaceState& State() {
    static WorkspaceState state;
    return state;
}

constexpr std::uint32_t kErrorAlreadyExists = 183;

// The workspace holds what this elevated process will later run, so only SYSTEM and the
// Administrators may change it. A folder that another account made, or a link in its place, could
// still be changed by that account between the download and the install: it is not used.
bool UsableExistingWorkspace(const std::wstring& path) {
    constexpr const wchar_t* kFunction = L"GetWorkspace";
    const auto folder = platform::SecureExistingFolder(path);
    if (!folder) {
        LogF(L"%s: cannot check who owns %s, not using it: %s", kFunction, path,
             platform::SystemMessage(platform::LastError()));
        return false;
    }
    if (!folder->isFolder || folder->isLink) {
        LogF(L"%s: %s is not a plain folder (a file or a link), not using it", kFunction, path);
        return false;
    }
    if (!folder->ownerTrusted) {
        LogF(L"%s: %s was created by another account (owner %s), not using it", kFunction, path,
             folder->owner);
        return false;
    }
    if (folder->secureError) {
        // Ours, so still usable; but say so, since others may be able to write to it.
        LogF(L"%s: cannot restrict access to %s to SYSTEM and Administrators: %s", kFunction, path,
             platform::SystemMessage(folder->secureError));
    }
    return true;
}

std::wstring ComputeWorkspace() {
    std::wstring temp;
    const std::uint32_t length = platform::GetTempFolder(temp);
    // Zero (failure) and anything above the buffer both wrap past 259.
    if (length - 1u > kMaxPath - 1u) temp = L"C:\\Temp\\";

    std::wstring workspace = core::PathJoin(temp, L"updatetool-data");
    if (platform::PathExists(workspace))
        return UsableExistingWorkspace(workspace) ? workspace : std::wstring();
    if (platform::CreatePrivateFolder(workspace)) return workspace;
    // Appearing between the two calls counts as existing: another account may have raced us.
    if (platform::LastError() == kErrorAlreadyExists)
        return UsableExistingWorkspace(workspace) ? workspace : std::wstring();
    // The temp folder itself, without the trailing backslash the system gives it.
    const auto cut = temp.rfind(L'\\');
    workspace = cut == std::wstring::npos ? std::wstring() : temp.substr(0, cut);
    return workspace;
}

std::wstring CertificateUnderInstallPath(const std::wstring& root) {
    const std::wstring installPath = RegReadString(root + L"\\AgentInstallPath", L"");
    if (installPath.empty()) return {};
    return core::PathJoin(installPath, L"cert\\cacert.pem");
}

// Hands the tool log's callback to the content client; a missing library is reported by the
// download step, not here.
void RegisterContentClientLog() {
    std::wstring error;
    if (const platform::ContentClient* client = platform::LoadContentClient(error))
        client->setLogCallback(&ToolLogLibraryCallback);
}

}  // namespace

std::wstring GetWorkspace() {
    WorkspaceState& state = State();
    if (!state.workspace) {
        state.workspace = ComputeWorkspace();
        // The log's lazy dependency: the first to ask is usually the log choosing its folder
        // (app/run_log.h), so this is where the content client's lines start reaching it.
        RegisterContentClientLog();
    }
    return *state.workspace;
}

std::wstring UtilGetPEMFilePath() {
    std::wstring lastTried;
    for (const std::wstring& root : {CurrentProductRoot(), LegacyProductRoot()}) {
        const std::wstring candidate = CertificateUnderInstallPath(root);
        if (candidate.empty()) continue;
        lastTried = candidate;
        if (platform::PathExists(candidate)) return candidate;
    }
    LogF(L"%s: cert file '%s' does not exist, returning legacy agent cert path ",
         L"UtilGetPEMFilePath", lastTried);
    return DaasAgentCertificatePath();
}

std::wstring DaasAgentCertificatePath() {
    for (const wchar_t* key : {L"HKLM\\Software\\Quorvane\\DaaS Agent",
                               L"HKLM\\Software\\Tessix, Inc.\\Tessix DaaS Agent"}) {
        const std::wstring folder = RegReadString(std::wstring(key) + L"\\CertFolder", L"");
        if (folder.empty() || !platform::PathExists(folder)) continue;
        const std::wstring file = RegReadString(std::wstring(key) + L"\\CertFileName", L"");
        return core::PathJoin(folder, file);
    }
    return {};
}

void ResetWorkspaceForTesting() {
    State() = WorkspaceState{};
    SetDownloadedFilePath({});
}
