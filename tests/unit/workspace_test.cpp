#include "download/workspace.h"

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

TEST_F(WorkspaceTest, ExistingWorkspaceOfOursIsKeptAndMadePrivate) {
    Platform().uncreatableFolders.insert(kWorkspace);
    Platform().folders.insert(kWorkspace);
    EXPECT_EQ(FreshWorkspace(), kWorkspace);
    EXPECT_TRUE(Platform().folderSecurity[kWorkspace].isPrivate);

    // Still ours when its access cannot be narrowed, but the log says so.
    Platform().folderSecurity[kWorkspace] = {};
    Platform().folderSecurity[kWorkspace].secureError = 5;
    EXPECT_EQ(FreshWorkspace(), kWorkspace);
    EXPECT_TRUE(Logged(L"GetWorkspace: cannot restrict access to " + std::wstring(kWorkspace) +
                       L" to SYSTEM and Administrators: Access is denied."));
}

// What another account could still change between the download and the install is never used:
// the workspace is empty, so the run's set-up fails, and the log says why.
TEST_F(WorkspaceTest, ExistingWorkspaceThatOthersControlIsRefused) {
    struct Case {
        const char* name;
        void (*arrange)(fake::PlatformState&);
        std::wstring logged;
    };
    const Case cases[] = {
        {"another owner",
         [](fake::PlatformState& s) {
             s.folderSecurity[kWorkspace].owner = L"S-1-5-21-1-2-3-1001";
             s.folderSecurity[kWorkspace].ownerTrusted = false;
         },
         L" was created by another account (owner S-1-5-21-1-2-3-1001), not using it"},
        {"a link", [](fake::PlatformState& s) { s.folderSecurity[kWorkspace].isLink = true; },
         L" is not a plain folder (a file or a link), not using it"},
        {"a file",
         [](fake::PlatformState& s) {
             s.folders.erase(kWorkspace);
             s.files[kWorkspace] = {};
         },
         L" is not a plain folder (a file or a link), not using it"},
        {"unreadable owner",
         [](fake::PlatformState& s) { s.folderSecurity[kWorkspace].inspectError = 5; },
         L"GetWorkspace: cannot check who owns " + std::wstring(kWorkspace) +
             L", not using it: Access is denied."},
    };
    for (const Case& c : cases) {
        Platform().folderSecurity.erase(kWorkspace);
        Platform().files.erase(kWorkspace);
        Platform().folders.insert(kWorkspace);
        c.arrange(Platform());
        const std::size_t logged = LogText().size();
        EXPECT_EQ(FreshWorkspace(), L"") << c.name;
        EXPECT_NE(LogText().find(c.logged, logged), std::wstring::npos) << c.name;
        EXPECT_FALSE(Platform().folderSecurity[kWorkspace].isPrivate) << c.name;
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
