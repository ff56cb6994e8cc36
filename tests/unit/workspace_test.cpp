#include "download/workspace.h"

#include "platform/files.h"
#include "state/registry.h"
#include "test_support.h"

namespace {

class WorkspaceTest : public ToolTest {
protected:
    std::wstring FreshWorkspace() {
        ResetWorkspaceForTesting();
        return GetWorkspace();
    }
};

TEST_F(WorkspaceTest, IsCreatedUnderTheTempFolderOnce) {
    EXPECT_EQ(FreshWorkspace(), L"C:\\Users\\svc\\AppData\\Local\\Temp\\updatetool-data");
    EXPECT_TRUE(Platform().folders.count(L"C:\\Users\\svc\\AppData\\Local\\Temp\\updatetool-data"));
    EXPECT_TRUE(Platform().folderSecurity[L"C:\\Users\\svc\\AppData\\Local\\Temp\\updatetool-data"].isPrivate);
    Platform().tempFolder = L"D:\\elsewhere\\";
    EXPECT_EQ(GetWorkspace(), L"C:\\Users\\svc\\AppData\\Local\\Temp\\updatetool-data");
}

TEST_F(WorkspaceTest, UnusableTempPathFallsBackToCTemp) {
    Platform().folders.insert(L"C:\\Temp");
    for (std::uint32_t count : {0u, 261u, 4000u}) {
        Platform().tempFolderResult = count;
        EXPECT_EQ(FreshWorkspace(), L"C:\\Temp\\updatetool-data") << count;
    }
    Platform().tempFolderResult = 260;  // the largest count that fits
    Platform().tempFolder = std::wstring(L"C:\\") + std::wstring(256, L'x') + L"\\";
    Platform().folders.insert(Platform().tempFolder.substr(0, 259));
    EXPECT_EQ(FreshWorkspace(), Platform().tempFolder + L"updatetool-data");
}

TEST_F(WorkspaceTest, UncreatableSubfolderFallsBackToTheTempFolder) {
    Platform().tempFolderResult = 0;
    Platform().uncreatableFolders.insert(L"C:\\Temp\\updatetool-data");
    EXPECT_EQ(FreshWorkspace(), L"C:\\Temp");

    Platform().tempFolderResult.reset();
    Platform().folders.erase(L"C:\\Users\\svc\\AppData\\Local\\Temp\\updatetool-data");
    Platform().uncreatableFolders.insert(L"C:\\Users\\svc\\AppData\\Local\\Temp\\updatetool-data");
    EXPECT_EQ(FreshWorkspace(), L"C:\\Users\\svc\\AppData\\Local\\Temp");
}

constexpr const wchar_t* kWorkspace = L"C:\\Users\\svc\\AppData\\Local\\Temp\\updatetool-data";

// Still ours when its access cannot be narrowed, but the log says so.
TEST_F(WorkspaceTest, ExistingWorkspaceThatCannotBeMadePrivateIsUsedWithAWarning) {
    Platform().folders.insert(kWorkspace);
    Platform().folderSecurity[kWorkspace].secureError = 5;
    EXPECT_EQ(FreshWorkspace(), kWorkspace);
    EXPECT_TRUE(Logged(L"GetWorkspace: cannot restrict access to " + std::wstring(kWorkspace) +
                       L" to SYSTEM and Administrators: Access is denied."));
}

// What stands at the workspace's place, by kind and owner: a plain folder of SYSTEM, the
// Administrators or this account is used (and made private); anything else another account could
// still change before the install is moved aside with one line, and a private folder created.
enum class Planted { kAbsent, kFolder, kFile, kLink, kUnopenable };
struct PlantedRow {
    Planted planted;
    platform::OwnerKind owner;
    const wchar_t* account;
    const wchar_t* moved;  // "(<what>, owner <account>)" in the line; nullptr: used in place
};

class PlantedWorkspaceTest : public WorkspaceTest, public ::testing::WithParamInterface<PlantedRow> {};

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
    const std::wstring aside = std::wstring(kWorkspace) + L".untrusted-20260302140309";

    EXPECT_EQ(FreshWorkspace(), kWorkspace);
    EXPECT_TRUE(Platform().folders.count(kWorkspace) && Platform().folderSecurity[kWorkspace].isPrivate);
    EXPECT_FALSE(Platform().files.count(kWorkspace));
    if (!row.moved) {
        EXPECT_FALSE(Logged(L"GetWorkspace:"));
        EXPECT_FALSE(platform::PathExists(aside));
        return;
    }
    EXPECT_TRUE(Logged(L"GetWorkspace: " + std::wstring(kWorkspace) + L" " + row.moved +
                       L" cannot be trusted, moved it aside to " + aside + L"\r\n"))
        << LogText();
    EXPECT_TRUE(platform::PathExists(aside));  // kept for the administrator to look at
}

using platform::OwnerKind;
INSTANTIATE_TEST_SUITE_P(
    ByKindAndOwner, PlantedWorkspaceTest,
    ::testing::Values(
        PlantedRow{Planted::kAbsent, OwnerKind::kSystem, L"", nullptr},
        PlantedRow{Planted::kFolder, OwnerKind::kSystem, L"NT AUTHORITY\\SYSTEM", nullptr},
        PlantedRow{Planted::kFolder, OwnerKind::kAdministrators, L"BUILTIN\\Administrators", nullptr},
        PlantedRow{Planted::kFolder, OwnerKind::kThisAccount, L"PC\\svc", nullptr},
        PlantedRow{Planted::kFolder, OwnerKind::kOtherAccount, L"PC\\mallory", L"(a folder, owner PC\\mallory)"},
        PlantedRow{Planted::kFolder, OwnerKind::kUnreadable, L"", L"(a folder, owner unknown)"},
        PlantedRow{Planted::kUnopenable, OwnerKind::kSystem, L"", L"(something that cannot be opened, owner unknown)"},
        PlantedRow{Planted::kFile, OwnerKind::kSystem, L"NT AUTHORITY\\SYSTEM", L"(a file, owner NT AUTHORITY\\SYSTEM)"},
        PlantedRow{Planted::kFile, OwnerKind::kAdministrators, L"BUILTIN\\Administrators", L"(a file, owner BUILTIN\\Administrators)"},
        PlantedRow{Planted::kFile, OwnerKind::kOtherAccount, L"PC\\mallory", L"(a file, owner PC\\mallory)"},
        PlantedRow{Planted::kFile, OwnerKind::kUnreadable, L"", L"(a file, owner unknown)"},
        PlantedRow{Planted::kLink, OwnerKind::kSystem, L"NT AUTHORITY\\SYSTEM", L"(a link, owner NT AUTHORITY\\SYSTEM)"},
        PlantedRow{Planted::kLink, OwnerKind::kAdministrators, L"BUILTIN\\Administrators", L"(a link, owner BUILTIN\\Administrators)"},
        PlantedRow{Planted::kLink, OwnerKind::kOtherAccount, L"PC\\mallory", L"(a link, owner PC\\mallory)"},
        PlantedRow{Planted::kLink, OwnerKind::kUnreadable, L"", L"(a link, owner unknown)"}));

// A file planted by another account, and what then goes wrong: the workspace is refused (empty,
// so the run's set-up fails) with the line that says why, or found on a later attempt.
struct RefusalRow {
    const char* name;
    void (*arrange)(fake::PlatformState&);
    bool used;
    std::wstring line;  // after "GetWorkspace: "
};

TEST_F(WorkspaceTest, MovingAsideThatFailsOrKeepsBeingUndoneIsRefused) {
    const std::wstring ws = kWorkspace;
    const RefusalRow rows[] = {
        {"move fails", [](fake::PlatformState& s) { s.unmovable.insert(kWorkspace); }, false,
         L"cannot move " + ws + L" (a file, owner PC\\mallory) aside, not using it: Access is denied."},
        {"creation fails", [](fake::PlatformState& s) { s.uncreatableFolders.insert(kWorkspace); }, false,
         L"cannot create " + ws + L" after moving the old one aside, not using it: Access is denied."},
        {"planted again each time", [](fake::PlatformState& s) { s.replantedOnMove = 3; }, false,
         ws + L" was planted again each time it was moved aside, not using it"},
        {"planted again once", [](fake::PlatformState& s) { s.replantedOnMove = 1; }, true,
         ws + L" (a file, owner NT AUTHORITY\\SYSTEM) cannot be trusted, moved it aside to " + ws +
             L".untrusted-20260302140309-2"},
    };
    for (const RefusalRow& row : rows) {
        fake::Reset();
        StartLog();
        Platform().files[kWorkspace] = {7};
        Platform().folderSecurity[kWorkspace].owner = {OwnerKind::kOtherAccount, L"PC\\mallory"};
        row.arrange(Platform());
        EXPECT_EQ(FreshWorkspace(), row.used ? ws : L"") << row.name;
        EXPECT_TRUE(Logged(L"GetWorkspace: " + row.line + L"\r\n")) << row.name << LogText();
    }
}

class PemPathTest : public ToolTest {
protected:
    void SetUp() override {
        fake::SetRegistryString(CurrentProductRoot() + L"\\AgentInstallPath", L"C:\\Agent");
        fake::SetRegistryString(LegacyProductRoot() + L"\\AgentInstallPath", L"C:\\Legacy");
        fake::SetRegistryString(L"HKLM\\Software\\Quorvane\\DaaS Agent\\CertFolder", L"C:\\Daas");
        fake::SetRegistryString(L"HKLM\\Software\\Quorvane\\DaaS Agent\\CertFileName", L"daas.pem");
        fake::SetRegistryString(L"HKLM\\Software\\Tessix, Inc.\\Tessix DaaS Agent\\CertFolder",
                                L"C:\\OldDaas");
        fake::SetRegistryString(L"HKLM\\Software\\Tessix, Inc.\\Tessix DaaS Agent\\CertFileName",
                                L"old.pem");
    }
};

TEST_F(PemPathTest, PrefersTheCurrentThenTheLegacyInstallFolder) {
    Platform().files[L"C:\\Legacy\\cert\\cacert.pem"] = {};
    EXPECT_EQ(UtilGetPEMFilePath(), L"C:\\Legacy\\cert\\cacert.pem");
    Platform().files[L"C:\\Agent\\cert\\cacert.pem"] = {};
    EXPECT_EQ(UtilGetPEMFilePath(), L"C:\\Agent\\cert\\cacert.pem");
    EXPECT_FALSE(Logged(L"does not exist"));
}

TEST_F(PemPathTest, FallsBackToTheDaasAgentCertificateAndSaysSoOnce) {
    Platform().folders.insert(L"C:\\Daas");
    EXPECT_EQ(UtilGetPEMFilePath(), L"C:\\Daas\\daas.pem");
    const std::wstring line = L"UtilGetPEMFilePath: cert file 'C:\\Legacy\\cert\\cacert.pem' does "
                              L"not exist, returning legacy agent cert path \r\n";
    const std::wstring text = LogText();
    EXPECT_NE(text.find(line), std::wstring::npos);
    EXPECT_EQ(text.find(line), text.rfind(line));
}

TEST_F(PemPathTest, DaasCertificateNeedsAnExistingFolder) {
    EXPECT_EQ(DaasAgentCertificatePath(), L"");
    Platform().folders.insert(L"C:\\OldDaas");
    EXPECT_EQ(DaasAgentCertificatePath(), L"C:\\OldDaas\\old.pem");
}

TEST_F(WorkspaceTest, CleanupDeletesTheDownloadedFileOnly) {
    EXPECT_TRUE(UtilCleanupWorkspace());  // nothing downloaded
    const std::wstring file = FreshWorkspace() + L"\\package.msi";
    Platform().files[file] = {1, 2, 3};
    SetDownloadedFilePath(file);
    Platform().locked.insert(file);
    EXPECT_FALSE(UtilCleanupWorkspace());
    EXPECT_TRUE(Logged(L"UtilCleanupWorkspace: delete failed: " + file +
                       L" error: The process cannot access the file because it is being used by "
                       L"another process."));
    Platform().locked.clear();
    EXPECT_TRUE(UtilCleanupWorkspace());
    EXPECT_FALSE(Platform().files.count(file));
    EXPECT_TRUE(Platform().folders.count(GetWorkspace()));
}

}  // namespace
