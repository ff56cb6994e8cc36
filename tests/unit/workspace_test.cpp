#include "download/workspace.h"

#include <optional>

#include "platform/files.h"
#include "state/registry.h"
#include "test_support.h"

namespace {

const std::wstring kTemp = L"C:\\Users\\svc\\AppData\\Local\\Temp";
const std::wstring kWorkspace = kTemp + L"\\updatetool-data";
using platform::OwnerKind;

class WorkspaceTest : public ToolTest {
protected:
    std::wstring FreshWorkspace() {
        ResetWorkspaceForTesting();
        return GetWorkspace();
    }
    void Again() {  // a fresh run for the next row
        fake::Reset();
        StartLog();
    }
};

// Under the temp folder, made private, decided once a run; C:\Temp when the system's temp path
// is unusable, and the temp folder itself when the subfolder cannot be created.
TEST_F(WorkspaceTest, IsCreatedUnderAUsableTempFolderOnce) {
    const std::wstring longTemp = L"C:\\" + std::wstring(256, L'x') + L"\\";
    // count: the temp path API's result, nullopt for its own
    struct Row { std::optional<std::uint32_t> count; std::wstring temp, uncreatable, expected; };
    const Row rows[] = {
        {std::nullopt, L"", L"", kWorkspace},
        {0, L"", L"", L"C:\\Temp\\updatetool-data"},
        {261, L"", L"", L"C:\\Temp\\updatetool-data"},
        {260, longTemp, L"", longTemp + L"updatetool-data"},  // the largest that fits
        {std::nullopt, L"", kWorkspace, kTemp}};
    for (const Row& c : rows) {
        SCOPED_TRACE(c.expected);
        Again();
        Platform().folders.insert(L"C:\\Temp");
        Platform().folders.erase(kWorkspace);
        Platform().tempFolderResult = c.count;
        if (!c.temp.empty()) Platform().tempFolder = c.temp;
        if (!c.temp.empty()) Platform().folders.insert(c.temp.substr(0, 259));
        if (!c.uncreatable.empty()) Platform().uncreatableFolders.insert(c.uncreatable);
        EXPECT_EQ(FreshWorkspace(), c.expected);
        if (c.uncreatable.empty()) { EXPECT_TRUE(Platform().folderSecurity[c.expected].isPrivate); }
        Platform().tempFolder = L"D:\\elsewhere\\";
        EXPECT_EQ(GetWorkspace(), c.expected);
    }
}

// Still ours when its access cannot be narrowed, but the log says so.
TEST_F(WorkspaceTest, ExistingWorkspaceThatCannotBeMadePrivateIsUsedWithAWarning) {
    Platform().folders.insert(kWorkspace);
    Platform().folderSecurity[kWorkspace].secureError = 5;
    EXPECT_EQ(FreshWorkspace(), kWorkspace);
    EXPECT_TRUE(LoggedLine(L"GetWorkspace: cannot restrict access to " + kWorkspace +
                           L" to SYSTEM and Administrators: Access is denied."));
}

// What stands at the workspace's place, by kind and owner: a plain folder of SYSTEM, the
// Administrators or this account is used (and made private); anything else another account could
// still change before the install is moved aside with one line, and a private folder created.
enum class Planted { kAbsent, kFolder, kFile, kLink, kUnopenable };
// moved: "(<what>, owner <account>)" in the line; nullptr: used in place
struct PlantedRow { Planted planted; OwnerKind owner; const wchar_t *account, *moved; };
class PlantedWorkspaceTest : public WorkspaceTest, public testing::WithParamInterface<PlantedRow> {
};

TEST_P(PlantedWorkspaceTest, IsUsedOrMovedAsideAndCreatedAfresh) {
    const PlantedRow& row = GetParam();
    Platform().folders.erase(kWorkspace);  // the log may have made it already
    auto& security = Platform().folderSecurity[kWorkspace] = {};
    security.owner = {row.owner, row.account};
    security.isLink = row.planted == Planted::kLink;
    security.inspectError = row.planted == Planted::kUnopenable ? 5 : 0;
    if (row.planted == Planted::kFile) Platform().files[kWorkspace] = {7};
    if (row.planted != Planted::kFile && row.planted != Planted::kAbsent)
        Platform().folders.insert(kWorkspace);
    const std::wstring aside = kWorkspace + L".untrusted-20260302140309";

    EXPECT_EQ(FreshWorkspace(), kWorkspace);
    EXPECT_TRUE(Platform().folders.count(kWorkspace) &&
                Platform().folderSecurity[kWorkspace].isPrivate);
    EXPECT_FALSE(Platform().files.count(kWorkspace));
    EXPECT_EQ(platform::PathExists(aside), row.moved != nullptr);  // kept for the administrator
    const std::wstring moved = row.moved ? row.moved : L"";
    EXPECT_EQ(Logged(L"GetWorkspace:"), row.moved != nullptr);
    EXPECT_EQ(LoggedLine(L"GetWorkspace: " + kWorkspace + L" " + moved +
                         L" cannot be trusted, moved it aside to " + aside), row.moved != nullptr);
}

constexpr const wchar_t* kNt = L"NT AUTHORITY\\SYSTEM";
constexpr const wchar_t* kBuiltin = L"BUILTIN\\Administrators";
constexpr const wchar_t* kMallory = L"PC\\mallory";
using P = PlantedRow;
using enum Planted;
using enum OwnerKind;
// clang-format off
INSTANTIATE_TEST_SUITE_P(ByKindAndOwner, PlantedWorkspaceTest, ::testing::Values(
    P{kAbsent, kSystem, L"", nullptr},
    P{kFolder, kSystem, kNt, nullptr},
    P{kFolder, kAdministrators, kBuiltin, nullptr},
    P{kFolder, kThisAccount, L"PC\\svc", nullptr},
    P{kFolder, kOtherAccount, kMallory, L"(a folder, owner PC\\mallory)"},
    P{kFolder, kUnreadable, L"", L"(a folder, owner unknown)"},
    P{kUnopenable, kSystem, L"", L"(something that cannot be opened, owner unknown)"},
    P{kFile, kSystem, kNt, L"(a file, owner NT AUTHORITY\\SYSTEM)"},
    P{kFile, kAdministrators, kBuiltin, L"(a file, owner BUILTIN\\Administrators)"},
    P{kFile, kOtherAccount, kMallory, L"(a file, owner PC\\mallory)"},
    P{kFile, kUnreadable, L"", L"(a file, owner unknown)"},
    P{kLink, kSystem, kNt, L"(a link, owner NT AUTHORITY\\SYSTEM)"},
    P{kLink, kAdministrators, kBuiltin, L"(a link, owner BUILTIN\\Administrators)"},
    P{kLink, kOtherAccount, kMallory, L"(a link, owner PC\\mallory)"},
    P{kLink, kUnreadable, L"", L"(a link, owner unknown)"}));
// clang-format on

// A file planted by another account, and what then goes wrong: the workspace is refused (empty,
// so the run's set-up fails) with the line that says why, or found on a later attempt.
TEST_F(WorkspaceTest, MovingAsideThatFailsOrKeepsBeingUndoneIsRefused) {
    const std::wstring ws = kWorkspace;
    using S = fake::PlatformState;
    const std::wstring kDenied = L"Access is denied.";
    // line: after "GetWorkspace: "
    const struct { const char* name; void (*arrange)(S&); bool used; std::wstring line; } rows[] = {
        {"move fails", [](S& s) { s.unmovable.insert(kWorkspace); }, false,
         L"cannot move " + ws + L" (a file, owner PC\\mallory) aside, not using it: " + kDenied},
        {"creation fails", [](S& s) { s.uncreatableFolders.insert(kWorkspace); }, false,
         L"cannot create " + ws + L" after moving the old one aside, not using it: " + kDenied},
        {"planted again each time", [](S& s) { s.replantedOnMove = 3; }, false,
         ws + L" was planted again each time it was moved aside, not using it"},
        {"planted again once", [](S& s) { s.replantedOnMove = 1; }, true,
         ws + L" (a file, owner NT AUTHORITY\\SYSTEM) cannot be trusted, moved it aside to " + ws +
             L".untrusted-20260302140309-2"},
    };
    for (const auto& row : rows) {
        Again();
        Platform().files[kWorkspace] = {7};
        Platform().folderSecurity[kWorkspace].owner = {OwnerKind::kOtherAccount, kMallory};
        row.arrange(Platform());
        EXPECT_EQ(FreshWorkspace(), row.used ? ws : L"") << row.name;
        EXPECT_TRUE(LoggedLine(L"GetWorkspace: " + row.line)) << row.name << LogText();
    }
}

// Whoever can plant the workspace can also make the names of the seconds to come: the move then
// takes a name with 64 random bits added, and what stood at the first name stays as it was.
TEST_F(WorkspaceTest, AsideNameMadeInAdvanceGetsRandomBitsAdded) {
    const std::wstring aside = kWorkspace + L".untrusted-20260302140309";
    Platform().folders.erase(kWorkspace);  // the log's lookup made it
    Platform().files[kWorkspace] = {7};
    Platform().folderSecurity[kWorkspace].owner = {OwnerKind::kOtherAccount, kMallory};
    Platform().files[aside] = {1};
    EXPECT_EQ(FreshWorkspace(), kWorkspace);
    std::vector<std::wstring> moved;
    for (const auto& [path, bytes] : Platform().files)
        if (path.starts_with(aside + L"-") && bytes == std::vector<std::uint8_t>{7})
            moved.push_back(path);
    ASSERT_EQ(moved.size(), 1u);
    EXPECT_TRUE(moved[0].size() == aside.size() + 17 &&
                moved[0].find_first_not_of(L"0123456789abcdef", aside.size() + 1) == moved[0].npos)
        << moved[0];
    EXPECT_EQ(Platform().files[aside], std::vector<std::uint8_t>{1});
    EXPECT_TRUE(LoggedLine(L"GetWorkspace: " + kWorkspace + L" (a file, owner PC\\mallory) " +
                           L"cannot be trusted, moved it aside to " + moved[0]));
}

// The install folder's certificate, the current product's first; else the DaaS agent's, whose
// folder must exist.
TEST_F(WorkspaceTest, PemFileComesFromAnInstallFolderThenTheDaasAgent) {
    const std::wstring legacyPem = L"C:\\Legacy\\cert\\cacert.pem";
    const std::wstring pem = L"C:\\Agent\\cert\\cacert.pem";
    // files and folders that exist -> the path
    const std::tuple<std::vector<std::wstring>, std::wstring> rows[] = {
        {{legacyPem}, legacyPem},
        {{legacyPem, pem}, pem},
        {{L"C:\\Daas", L"C:\\OldDaas"}, L"C:\\Daas\\daas.pem"},
        {{L"C:\\OldDaas"}, L"C:\\OldDaas\\old.pem"},
        {std::vector<std::wstring>{}, L""}};
    for (const auto& [present, expected] : rows) {
        SCOPED_TRACE(expected);
        Again();
        fake::SetRegistryString(CurrentProductRoot() + L"\\AgentInstallPath", L"C:\\Agent");
        fake::SetRegistryString(LegacyProductRoot() + L"\\AgentInstallPath", L"C:\\Legacy");
        fake::SetRegistryString(L"HKLM\\Software\\Quorvane\\DaaS Agent\\CertFolder", L"C:\\Daas");
        fake::SetRegistryString(L"HKLM\\Software\\Quorvane\\DaaS Agent\\CertFileName", L"daas.pem");
        const std::wstring old = L"HKLM\\Software\\Tessix, Inc.\\Tessix DaaS Agent\\";
        fake::SetRegistryString(old + L"CertFolder", L"C:\\OldDaas");
        fake::SetRegistryString(old + L"CertFileName", L"old.pem");
        for (const std::wstring& path : present) {
            if (path.ends_with(L".pem")) Platform().files[path] = {};
            if (!path.ends_with(L".pem")) Platform().folders.insert(path);
        }
        EXPECT_EQ(UtilGetPEMFilePath(), expected);
        EXPECT_EQ(Count(L"UtilGetPEMFilePath: cert file '" + legacyPem + L"' does not exist, "
                        L"returning legacy agent cert path \r\n"),
                  expected.ends_with(L"cacert.pem") ? 0u : 1u);
    }
}

TEST_F(WorkspaceTest, CleanupDeletesTheDownloadedFileOnly) {
    EXPECT_TRUE(UtilCleanupWorkspace());  // nothing downloaded
    const std::wstring file = FreshWorkspace() + L"\\package.msi";
    Platform().files[file] = {1, 2, 3};
    SetDownloadedFilePath(file);
    Platform().locked.insert(file);
    EXPECT_FALSE(UtilCleanupWorkspace());
    EXPECT_TRUE(LoggedLine(L"UtilCleanupWorkspace: delete failed: " + file +
                           L" error: The process cannot access the file because it is being used "
                           L"by another process."));
    Platform().locked.clear();
    EXPECT_TRUE(UtilCleanupWorkspace());
    EXPECT_FALSE(Platform().files.count(file));
    EXPECT_TRUE(Platform().folders.count(GetWorkspace()));
}

}  // namespace
