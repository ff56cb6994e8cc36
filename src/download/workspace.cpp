#include "download/workspace.h"

#include <optional>
#include <random>

#include "core/text.h"
#include "platform/clock.h"
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
constexpr const wchar_t* kFunction = L"GetWorkspace";
// Moves aside before giving up: enough for a race, too few for someone who keeps planting.
constexpr int kMoveAsideAttempts = 3;

// The workspace holds what this elevated process will later run, so only SYSTEM, the
// Administrators and this account may own it. What stands in its place otherwise, as the log
// names it; empty for a folder the tool can keep using.
std::wstring UntrustedKind(const std::optional<platform::ExistingFolder>& found) {
    if (!found) return L"something that cannot be opened";
    if (found->isLink) return L"a link";
    if (!found->isFolder) return L"a file";
    if (!platform::TrustedFolderOwner(found->owner.kind)) return L"a folder";
    return {};
}

std::wstring OwnerText(const std::optional<platform::ExistingFolder>& found) {
    return found && !found->owner.account.empty() ? found->owner.account : L"unknown";
}

// Beside the workspace, named for when it was found; a later attempt of the same run adds its
// number, since the second may well fall in the same second.
std::wstring AsideName(const std::wstring& workspace, int attempt) {
    const std::tm& t = platform::LocalNow().tm;
    std::wstring name = core::Format(L"%s.untrusted-%04d%02d%02d%02d%02d%02d", workspace,
                                     t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour,
                                     t.tm_min, t.tm_sec);
    return attempt ? core::Format(L"%s-%d", name, attempt + 1) : name;
}

// The name with 64 random bits added: anyone can make the names of the seconds to come in
// advance, but not this one.
std::wstring UnguessableName(const std::wstring& name) {
    std::random_device source;
    return core::Format(L"%s-%08x%08x", name, source(), source());
}

// Never deleted: the administrator may want to see what was planted and by whom.
bool MoveAside(const std::wstring& workspace, int attempt,
               const std::optional<platform::ExistingFolder>& found) {
    std::wstring aside = AsideName(workspace, attempt);
    bool moved = platform::MovePath(workspace, aside);
    if (!moved && platform::LastError() == kErrorAlreadyExists) {
        aside = UnguessableName(aside);
        moved = platform::MovePath(workspace, aside);
    }
    if (!moved) {
        LogF(L"%s: cannot move %s (%s, owner %s) aside, not using it: %s", kFunction, workspace,
             UntrustedKind(found), OwnerText(found), platform::SystemMessage(platform::LastError()));
        return false;
    }
    LogF(L"%s: %s (%s, owner %s) cannot be trusted, moved it aside to %s", kFunction, workspace,
         UntrustedKind(found), OwnerText(found), aside);
    return true;
}

// Ours, so still usable; but say so when others may be able to write to it.
void WarnIfNotPrivate(const std::wstring& workspace, const platform::ExistingFolder& folder) {
    if (folder.secureError)
        LogF(L"%s: cannot restrict access to %s to SYSTEM and Administrators: %s", kFunction,
             workspace, platform::SystemMessage(folder.secureError));
}

// The temp folder itself, without the trailing backslash the system gives it.
std::wstring TempFolderItself(const std::wstring& temp) {
    const auto cut = temp.rfind(L'\\');
    return cut == std::wstring::npos ? std::wstring() : temp.substr(0, cut);
}

// The folder in place when it can be trusted, else a fresh private one after moving aside what
// stood there. Empty when that fails or something is planted again each time.
std::wstring TrustedWorkspace(const std::wstring& temp, const std::wstring& workspace) {
    for (int attempt = 0; attempt < kMoveAsideAttempts; ++attempt) {
        if (!platform::PathExists(workspace)) {
            if (platform::CreatePrivateFolder(workspace)) return workspace;
            const std::uint32_t error = platform::LastError();
            if (attempt == 0 && error != kErrorAlreadyExists) return TempFolderItself(temp);
            if (error != kErrorAlreadyExists) {
                LogF(L"%s: cannot create %s after moving the old one aside, not using it: %s",
                     kFunction, workspace, platform::SystemMessage(error));
                return {};
            }
            // Appearing between the two calls counts as existing: another account may have raced us.
        }
        const auto found = platform::SecureExistingFolder(workspace);
        if (UntrustedKind(found).empty()) {
            WarnIfNotPrivate(workspace, *found);
            return workspace;
        }
        if (!MoveAside(workspace, attempt, found)) return {};
    }
    LogF(L"%s: %s was planted again each time it was moved aside, not using it", kFunction,
         workspace);
    return {};
}

std::wstring ComputeWorkspace() {
    std::wstring temp;
    const std::uint32_t length = platform::GetTempFolder(temp);
    // Zero (failure) and anything above the buffer both wrap past 259.
    if (length - 1u > kMaxPath - 1u) temp = L"C:\\Temp\\";
    return TrustedWorkspace(temp, core::PathJoin(temp, L"updatetool-data"));
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
