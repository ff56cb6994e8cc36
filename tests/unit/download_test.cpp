#include "download/download.h"

#include <algorithm>

#include "app/entry.h"
#include "fake_content_client.h"
#include "kesclient/kesclient.h"
#include "state/registry.h"
#include "state/update_record.h"
#include "test_support.h"

namespace {

constexpr const wchar_t* kWorkspace = L"C:\\Users\\svc\\AppData\\Local\\Temp\\updatetool-data";

class DownloadTest : public ToolTest {
protected:
    void SetUp() override {
        // The run's first workspace lookup (by the log) registered the log callback.
        ASSERT_EQ(Client().calls, std::vector<std::string>{"setLogCallback"});
        Client().calls.clear();
        UpdateRecord& r = Record();
        r.keyId = L"{5A1E}";
        r.state = update_state::kDownload;
        r.agent = L"OTHER";
        r.certType = L"CERT_SYSTEM_CA";
        r.urls = {L"https://cdn.example/pkg/agent-8.13.msi", L"https://mirror.example/agent-8.13.msi"};
        r.proxies = {L"proxy1:8080"};
        r.pacUrl = L"https://pac.example/proxy.pac";
        r.fileSize = L"4096";
        r.checksum = L"sha256:ab";
    }
    UpdateRecord& Record() { return ActiveUpdateRecord(); }
    fake::ContentClientState& Client() { return fake::ContentClient(); }
};

TEST_F(DownloadTest, HandsTheWholeJobToTheLibraryInOrder) {
    EXPECT_FALSE(Util_DoDownload());
    EXPECT_EQ(Client().calls,
              (std::vector<std::string>{"useSystemStore", "createDownload",
                                        std::string("runDownloads ") +
                                            "C:\\Users\\svc\\AppData\\Local\\Temp\\updatetool-data 1",
                                        "releaseDownload"}));
    EXPECT_TRUE(Client().systemStore);
    EXPECT_EQ(Client().id, "{5A1E}");
    EXPECT_EQ(Client().expectedSize, 4096);
    EXPECT_EQ(Client().verifySize, 1);
    EXPECT_EQ(Client().reserved, 0);
    EXPECT_EQ(Client().urls.size(), 2u);
    EXPECT_EQ(Client().proxies, std::vector<std::string>{"proxy1:8080"});
    EXPECT_EQ(Client().pacUrl, "https://pac.example/proxy.pac");
    EXPECT_EQ(Client().checksum, "sha256:ab");
    EXPECT_EQ(Client().payloadType, KESCLIENT_PAYLOAD_EXE);
    EXPECT_EQ(Client().liveDownloads, 0);
    EXPECT_EQ(Record().result, L"OK");
    EXPECT_EQ(Record().fileName, std::wstring(kWorkspace) + L"\\agent-8.13.msi");
    EXPECT_EQ(DownloadedFilePath(), Record().fileName);
    EXPECT_TRUE(Logged(L"Util_DoDownload: Update key: {5A1E} state: DOWNLOAD\r\n"));
    EXPECT_TRUE(Logged(L"Util_DoDownload: localPath: " + std::wstring(kWorkspace) + L" workspace: " +
                       kWorkspace + L" localFile: " + Record().fileName +
                       L" payloadType: KesClientPayloadType::EXE\r\n"));
    EXPECT_TRUE(Logged(L"Util_DoDownload: download done\r\n"));
}

struct PathCase {
    const wchar_t* url;
    const wchar_t* folder;
    const wchar_t* package;
    int payload;
    const wchar_t* local;  // after the workspace
};

class LocalPathTest : public DownloadTest, public ::testing::WithParamInterface<PathCase> {};

TEST_P(LocalPathTest, FirstUrlNamesTheFileAndTheKind) {
    Record().urls = {GetParam().url};
    Record().relativeFolderPath = GetParam().folder;
    Record().packageFileName = GetParam().package;
    Util_DoDownload();
    EXPECT_EQ(Client().payloadType, GetParam().payload);
    EXPECT_EQ(Record().fileName, std::wstring(kWorkspace) + GetParam().local);
}

INSTANTIATE_TEST_SUITE_P(
    Urls, LocalPathTest,
    ::testing::Values(
        PathCase{L"https://h/p/package.tar.gz", L"agent", L"setup.exe", 1, L"\\agent\\setup.exe"},
        PathCase{L"https://h/p/PACKAGE.TAR", L"", L"setup.exe", 1, L"\\setup.exe"},
        PathCase{L"https://h/p/package.tgz", L"", L"", 0, L"\\package.tgz"},
        PathCase{L"https://h/p/package.tar.gz", L"a/b", L"", 1, L"\\a\\b"},
        PathCase{L"https://h/p/setup.exe", L"ignored", L"ignored", 0, L"\\setup.exe"},
        // A zip archive is handed over as a plain file: the library never unpacks one.
        PathCase{L"https://h/p/bundle.zip", L"", L"", 0, L"\\bundle.zip"},
        PathCase{L"https:\\\\h\\p\\back.msi", L"", L"", 0, L"\\back.msi"}));

struct CertCase {
    const wchar_t* certType;
    bool pemExists;
    bool withThumbprints;  // METADATA holds "", "AB:CD"
    const wchar_t* line;   // after "Util_DoDownload: "
    const wchar_t* result;
    const char* trustCall;  // the library's trust set-up before createDownload; "" for none
    std::vector<std::string> pins;
};

class CertificateModeTest : public DownloadTest, public ::testing::WithParamInterface<CertCase> {};

TEST_P(CertificateModeTest, HandsTheLibraryOnlyWhatTheModeNames) {
    const CertCase& c = GetParam();
    Record().certType = c.certType;
    if (c.withThumbprints) Record().thumbprints = {L"", L"AB:CD"};
    if (c.pemExists) {
        fake::SetRegistryString(CurrentProductRoot() + L"\\AgentInstallPath", L"C:\\Agent");
        Platform().files[L"C:\\Agent\\cert\\cacert.pem"] = {};
    }
    EXPECT_FALSE(Util_DoDownload());
    EXPECT_TRUE(Logged(std::wstring(L"Util_DoDownload: ") + c.line + L"\r\n"));
    EXPECT_EQ(Record().result, c.result);
    if (std::wstring(c.result) == L"INVALID") {
        EXPECT_TRUE(Client().calls.empty());
        return;
    }
    const auto create = std::find(Client().calls.begin(), Client().calls.end(), "createDownload");
    ASSERT_NE(create, Client().calls.end());
    EXPECT_EQ(std::vector<std::string>(Client().calls.begin(), create),
              *c.trustCall ? std::vector<std::string>{c.trustCall} : std::vector<std::string>{});
    EXPECT_EQ(Client().thumbprints, c.pins);
}

constexpr const wchar_t* kNoThumbprints =
    L"CertType is specified as THUMBPRINT, but thumbprints are not provided for server cert "
    L"validation. ";
constexpr const char* kPemCall = "usePemFile C:\\Agent\\cert\\cacert.pem";
constexpr const wchar_t* kPemLine = L"certificate PEM filePath: C:\\Agent\\cert\\cacert.pem";
constexpr const wchar_t* kPinLine =
    L"Using thumbprints for verifying server certificate. Thumbprint count: 2";
const std::vector<std::string> kNoPins;

INSTANTIATE_TEST_SUITE_P(
    Types, CertificateModeTest,
    ::testing::Values(
        CertCase{L"", true, false, L"certificate type not specified", L"INVALID", "", kNoPins},
        CertCase{L"", true, true, L"certificate type not specified", L"INVALID", "", kNoPins},
        CertCase{L"CERT_PEM", true, false, kPemLine, L"OK", kPemCall, kNoPins},
        // The PEM file decides even when METADATA names the server's certificate.
        CertCase{L"cert_pem", true, true, kPemLine, L"OK", kPemCall, kNoPins},
        CertCase{L"CERT_PEM", false, true,
                 L"CertType is specified as CERT_PEM, but certificate PEM filePath is empty",
                 L"INVALID", "", kNoPins},
        CertCase{L"CERT_PEMX", true, true, L"Invalid certificate type specified", L"INVALID", "",
                 kNoPins},
        CertCase{L"THUMBPRINT", true, false, kNoThumbprints, L"INVALID", "", kNoPins},
        // Empty entries count but are not handed on.
        CertCase{L"Thumbprint", true, true, kPinLine, L"OK", "", {"AB:CD"}},
        CertCase{L"THUMBPRINT ", false, true, L"Invalid certificate type specified", L"INVALID", "",
                 kNoPins},
        CertCase{L"CERT_SYSTEM_CA", false, false, L"Using system CA for certificate type", L"OK",
                 "useSystemStore", kNoPins},
        // The system store decides even when METADATA names a self-signed server.
        CertCase{L"cert_System_CA", true, true, L"Using system CA for certificate type", L"OK",
                 "useSystemStore", kNoPins}));

struct ConfigFaultCase {
    const char* fault;
    bool libraryPresent;
    const wchar_t* result;
    const wchar_t* errorCode;
};

class ConfigurationFaultTest : public DownloadTest,
                               public ::testing::WithParamInterface<ConfigFaultCase> {};

// A fault in the record is the administrator's to fix whatever the library's state; only a valid
// record can fail for want of the library.
TEST_P(ConfigurationFaultTest, IsInvalidWhateverTheLibrary) {
    const ConfigFaultCase& c = GetParam();
    const std::string fault = c.fault;
    if (fault == "no type") Record().certType = L"";
    if (fault == "unknown type") Record().certType = L"PINNED";
    if (fault == "no PEM file") Record().certType = L"CERT_PEM";
    if (fault == "no thumbprints") Record().certType = L"THUMBPRINT";
    if (fault == "no URL") Record().urls.clear();
    Client().available = c.libraryPresent;
    Record().errorCode = L"";
    EXPECT_FALSE(Util_DoDownload());
    EXPECT_EQ(Record().result, c.result);
    EXPECT_EQ(Record().errorCode, c.errorCode);
    if (fault != "none") {
        EXPECT_TRUE(Client().calls.empty());
    } else if (!c.libraryPresent) {
        EXPECT_TRUE(Logged(L"Util_DoDownload: content client unavailable: cannot load "));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Faults, ConfigurationFaultTest,
    ::testing::Values(ConfigFaultCase{"no type", true, L"INVALID", L""},
                      ConfigFaultCase{"no type", false, L"INVALID", L""},
                      ConfigFaultCase{"unknown type", false, L"INVALID", L""},
                      ConfigFaultCase{"no PEM file", true, L"INVALID", L""},
                      ConfigFaultCase{"no PEM file", false, L"INVALID", L""},
                      ConfigFaultCase{"no thumbprints", false, L"INVALID", L""},
                      ConfigFaultCase{"no URL", true, L"INVALID", L""},
                      ConfigFaultCase{"no URL", false, L"INVALID", L""},
                      ConfigFaultCase{"none", true, L"OK", L""},
                      ConfigFaultCase{"none", false, L"FAILURE", L"KESCLIENT_INIT_FAILED"}));

struct FailureCase {
    int code;
    const wchar_t* line;
    const wchar_t* errorCode;
};

class LibraryFailureTest : public DownloadTest, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(LibraryFailureTest, RecordsTheFailureAndStillReleases) {
    Client().runResult = GetParam().code;
    EXPECT_FALSE(Util_DoDownload());
    EXPECT_EQ(Record().result, L"FAILURE");
    EXPECT_EQ(Record().errorCode, GetParam().errorCode);
    EXPECT_TRUE(Logged(std::wstring(L"Util_DoDownload: ") + GetParam().line + L"\r\n"));
    EXPECT_EQ(Client().calls.back(), "releaseDownload");
    EXPECT_EQ(Client().liveDownloads, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Codes, LibraryFailureTest,
    ::testing::Values(
        FailureCase{4, L"download failed: 4 [KESCLIENT_DOWNLOAD_PENDING]", L"KESCLIENT_DOWNLOAD_PENDING"},
        FailureCase{11, L"download failed: 11 [KESCLIENT_WRONG_CHECKSUM_ERROR]",
                    L"KESCLIENT_WRONG_CHECKSUM_ERROR"},
        FailureCase{12, L"download failed: 12 [KESCLIENT_TRANSFER_INVALID_URI_ERROR]",
                    L"KESCLIENT_TRANSFER_INVALID_URI_ERROR"},
        FailureCase{13, L"download failed: 13", L"KESCLIENT_MAXCOUNT"},
        FailureCase{-1, L"download failed: -1", L"KESCLIENT_MAXCOUNT"}));

TEST_F(DownloadTest, OnlyDownloadStateDownloadsAndUpdatingGoesOn) {
    for (int state : {update_state::kReady, update_state::kWait, update_state::kNoLogon,
                      update_state::kDone, update_state::kInvalid}) {
        Record().state = state;
        EXPECT_FALSE(Util_DoDownload()) << state;
    }
    Record().state = update_state::kUpdating;
    Record().fileName = std::wstring(kWorkspace) + L"\\agent.msi";
    EXPECT_TRUE(Util_DoDownload());
    EXPECT_TRUE(Client().calls.empty());
    EXPECT_EQ(DownloadedFilePath(), Record().fileName);  // the install run may delete it after
}

TEST_F(DownloadTest, UpdatingNeverAdoptsAFileOutsideTheWorkspace) {
    Record().state = update_state::kUpdating;
    Record().fileName = L"C:\\Windows\\System32\\kernel32.dll";
    EXPECT_TRUE(Util_DoDownload());
    EXPECT_EQ(DownloadedFilePath(), L"");
}

TEST_F(DownloadTest, RetryCountStartsOverForANewPackage) {
    Record().retry = 2;
    Util_DoDownload();
    EXPECT_EQ(Record().retry, 0);
    Record().retry = 2;  // FILENAME is set now: an attempt in progress keeps its count
    Util_DoDownload();
    EXPECT_EQ(Record().retry, 2);
}

TEST_F(DownloadTest, LogCallbackIsRegisteredOncePerWorkspace) {
    GetWorkspace();
    EXPECT_TRUE(Client().calls.empty());
    ResetWorkspaceForTesting();
    GetWorkspace();
    EXPECT_EQ(Client().calls, std::vector<std::string>{"setLogCallback"});
}

TEST(KesClientNames, PayloadTypeTableAndItsBound) {  // result names: LibraryFailureTest
    EXPECT_EQ(KesClientPayloadTypeName(2), L"KesClientPayloadType::ZIP");
    EXPECT_EQ(KesClientPayloadTypeName(7), L"PayloadType ERR_7");
}

}  // namespace
