#include "download/download.h"

#include <algorithm>

#include "fake_content_client.h"
#include "kesclient/kesclient.h"
#include "state/registry.h"
#include "state/update_record.h"
#include "test_support.h"

namespace {

const std::wstring kWorkspace = L"C:\\Users\\svc\\AppData\\Local\\Temp\\updatetool-data";

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
        r.urls = {L"https://cdn.example/pkg/agent-8.13.msi", L"https://mirror.example/a.msi"};
        r.proxies = {L"proxy1:8080"};
        r.pacUrl = L"https://pac.example/proxy.pac";
        r.fileSize = L"4096";
        r.checksum = L"sha256:ab";
    }
    fake::ContentClientState& Client() { return fake::ContentClient(); }
};

TEST_F(DownloadTest, HandsTheWholeJobToTheLibraryInOrder) {
    EXPECT_FALSE(Util_DoDownload());
    const std::string run = "runDownloads " + core::Utf8FromWide(kWorkspace) + " 1";
    EXPECT_EQ(Client().calls, (std::vector<std::string>{"useSystemStore", "createDownload", run,
                                                         "releaseDownload"}));
    const auto& l = Client();
    EXPECT_EQ(l.id + " " + l.pacUrl + " " + l.checksum + " " + l.proxies.at(0) + " " + l.urls[1],
              "{5A1E} https://pac.example/proxy.pac sha256:ab proxy1:8080 "
              "https://mirror.example/a.msi");
    EXPECT_EQ(std::tuple(l.systemStore, l.verifySize, l.reserved, l.liveDownloads, l.urls.size()),
              std::tuple(true, 1, 0, 0, 2u));
    EXPECT_EQ(Record().result, L"OK");
    EXPECT_EQ(DownloadedFilePath(), kWorkspace + L"\\agent-8.13.msi");
    EXPECT_TRUE(LoggedLine(L"Util_DoDownload: Update key: {5A1E} state: DOWNLOAD"));
    EXPECT_TRUE(LoggedLine(L"Util_DoDownload: localPath: " + kWorkspace + L" workspace: " +
                           kWorkspace + L" localFile: " + Record().fileName +
                           L" payloadType: KesClientPayloadType::EXE"));
    EXPECT_TRUE(LoggedLine(L"Util_DoDownload: download done"));
}

// The first URL's last component names the file and the kind (1: an archive, unpacked);
// FILESIZE the expected size, 0 when it is no size.
TEST_F(DownloadTest, FirstUrlNamesTheFileAndTheKindAndFileSizeTheSize) {
    struct Row { const wchar_t *url, *dir, *pkg; int kind; const wchar_t *to, *size; int64_t n; };
    // clang-format off
    const Row rows[] = {
        {L"https://h/p/package.tar.gz", L"agent", L"setup.exe", 1, L"\\agent\\setup.exe", L" 12 ",
         12},
        {L"https://h/p/PACKAGE.TAR", L"", L"setup.exe", 1, L"\\setup.exe", L"x", 0},
        {L"https://h/p/package.tgz", L"", L"", 0, L"\\package.tgz", L"-1", 0},
        {L"https://h/p/package.tar.gz", L"a/b", L"", 1, L"\\a\\b", L"", 0},
        // A zip archive is handed over as a plain file: the library never unpacks one.
        {L"https://h/p/bundle.zip", L"ignored", L"ignored", 0, L"\\bundle.zip",
         L"9223372036854775807", INT64_MAX},
        {L"https:\\\\h\\p\\back.msi", L"", L"", 0, L"\\back.msi", L"4096", 4096}};
    // clang-format on
    for (const Row& c : rows) {
        SCOPED_TRACE(c.url);
        Record().fileName.clear();
        Record().urls = {c.url};
        Record().relativeFolderPath = c.dir;
        Record().packageFileName = c.pkg;
        Record().fileSize = c.size;
        Util_DoDownload();
        EXPECT_EQ(Client().payloadType, c.kind);
        EXPECT_EQ(Record().fileName, kWorkspace + c.to);
        EXPECT_EQ(Client().expectedSize, c.n);
    }
    EXPECT_TRUE(Logged(L" payloadType: KesClientPayloadType::TAR\r\n"));
}

// withThumbprints: METADATA holds "", "AB:CD"; trustCall: the library's trust set-up before
// createDownload, "" for none; line: after "Util_DoDownload: ".
struct CertCase {
    const wchar_t* certType;
    bool pemExists, withThumbprints;
    const wchar_t *line, *result;
    const char* trustCall;
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
    EXPECT_TRUE(LoggedLine(std::wstring(L"Util_DoDownload: ") + c.line));
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
    L"CertType is specified as THUMBPRINT, but thumbprints are "
    L"not provided for server cert validation. ";
constexpr const wchar_t* kNoPem =
    L"CertType is specified as CERT_PEM, but certificate PEM filePath is empty";
constexpr const char* kPemCall = "usePemFile C:\\Agent\\cert\\cacert.pem";
constexpr const wchar_t* kPem = L"certificate PEM filePath: C:\\Agent\\cert\\cacert.pem";
constexpr const wchar_t* kPins =
    L"Using thumbprints for verifying server certificate. Thumbprint count: 2";
constexpr const wchar_t* kNoType = L"certificate type not specified";
constexpr const wchar_t* kBadType = L"Invalid certificate type specified";
constexpr const wchar_t* kSystem = L"Using system CA for certificate type";
const std::vector<std::string> kNone;

using C = CertCase;
// clang-format off
INSTANTIATE_TEST_SUITE_P(Types, CertificateModeTest, ::testing::Values(
    C{L"", true, true, kNoType, L"INVALID", "", kNone},
    // The PEM file decides even when METADATA names the server's certificate.
    C{L"cert_pem", true, true, kPem, L"OK", kPemCall, kNone},
    C{L"CERT_PEM", false, true, kNoPem, L"INVALID", "", kNone},
    C{L"CERT_PEMX", true, true, kBadType, L"INVALID", "", kNone},
    C{L"THUMBPRINT", true, false, kNoThumbprints, L"INVALID", "", kNone},
    // Empty entries count but are not handed on.
    C{L"Thumbprint", true, true, kPins, L"OK", "", {"AB:CD"}},
    // The system store decides even when METADATA names a self-signed server.
    C{L"cert_System_CA", true, true, kSystem, L"OK", "useSystemStore", kNone}));
// clang-format on

// fault: what is wrong in the record; line: after "Util_DoDownload: "
struct ConfigFaultCase {
    const char* fault;
    const wchar_t *result, *errorCode, *line;
};
class ConfigurationFaultTest : public DownloadTest,
                               public testing::WithParamInterface<ConfigFaultCase> {};

// A fault in the record is the administrator's to fix even without the library; only a valid
// record can fail for want of it.
TEST_P(ConfigurationFaultTest, IsInvalidEvenWithoutTheLibrary) {
    const ConfigFaultCase& c = GetParam();
    const std::string fault = c.fault;
    if (fault == "unknown type") Record().certType = L"PINNED";
    if (fault == "no URL") Record().urls.clear();
    if (fault == "unpaired surrogate") Record().proxies = {std::wstring(1, wchar_t(0xD800))};
    Client().available = false;
    EXPECT_FALSE(Util_DoDownload());
    EXPECT_EQ(Record().result, c.result);
    EXPECT_EQ(Record().errorCode, c.errorCode);
    EXPECT_TRUE(Logged(std::wstring(L"Util_DoDownload: ") + c.line)) << LogText();
    EXPECT_TRUE(Client().calls.empty());
}

using F = ConfigFaultCase;
// clang-format off
INSTANTIATE_TEST_SUITE_P(Faults, ConfigurationFaultTest, ::testing::Values(
    F{"unknown type", L"INVALID", L"", kBadType},
    F{"no URL", L"INVALID", L"", L"download URL empty\r\n"},
    F{"unpaired surrogate", L"INVALID", L"",
      L"update key holds text that is not valid UTF-16\r\n"},
    F{"none", L"FAILURE", L"KESCLIENT_INIT_FAILED", L"content client unavailable: cannot load "}));
// clang-format on

// A failing library: the result names the code inside the table, else the table's bound.
TEST_F(DownloadTest, LibraryFailureIsRecordedAndTheDownloadStillReleased) {
    const std::tuple<int, const wchar_t*, std::wstring> rows[] = {
        {12, L" [KESCLIENT_TRANSFER_INVALID_URI_ERROR]", L"KESCLIENT_TRANSFER_INVALID_URI_ERROR"},
        {13, L"", L"KESCLIENT_MAXCOUNT"},
        {-1, L"", L"KESCLIENT_MAXCOUNT"}};
    for (const auto& [code, name, errorCode] : rows) {
        Client().runResult = code;
        EXPECT_FALSE(Util_DoDownload());
        EXPECT_EQ(Record().result + L" " + Record().errorCode, L"FAILURE " + errorCode);
        EXPECT_TRUE(LoggedLine(L"Util_DoDownload: download failed: " + std::to_wstring(code) +
                               name));
        EXPECT_EQ(Client().calls.back(), "releaseDownload");
        EXPECT_EQ(Client().liveDownloads, 0);
    }
    EXPECT_EQ(KesClientResultName(0), L"KESCLIENT_SUCCESS");
}

// Only DOWNLOAD downloads; UPDATING goes on, adopting an earlier package only inside the workspace.
TEST_F(DownloadTest, OnlyDownloadStateDownloadsAndUpdatingGoesOn) {
    // clang-format off
    const std::tuple<int, std::wstring, bool, bool> rows[] = {
        {update_state::kDone, kWorkspace + L"\\a.msi", false, false},
        {update_state::kUpdating, L"c:\\users\\SVC\\appdata\\local\\temp\\UPDATETOOL-DATA\\a", true,
         true},
        {update_state::kUpdating, kWorkspace + L"\\", true, false},
        {update_state::kUpdating, L"C:\\Windows\\System32\\kernel32.dll", true, false}};
    // clang-format on
    for (const auto& [state, file, goesOn, adopted] : rows) {
        SCOPED_TRACE(file);
        SetDownloadedFilePath({});
        Record().state = state;
        Record().fileName = file;
        EXPECT_EQ(Util_DoDownload(), goesOn);
        EXPECT_TRUE(Client().calls.empty());
        EXPECT_EQ(DownloadedFilePath(), adopted ? file : L"");  // the install run may delete it
        EXPECT_EQ(LoggedLine(L"Util_DoDownload: " + file + L" is not inside the workspace " +
                             kWorkspace + L", it will not be deleted"),
                  goesOn && !adopted);
    }
}

TEST_F(DownloadTest, RetryCountStartsOverForANewPackageAndTheLogCallbackOncePerWorkspace) {
    Record().retry = 2;
    Util_DoDownload();
    EXPECT_EQ(Record().retry, 0);
    Record().retry = 2;  // FILENAME is set now: an attempt in progress keeps its count
    Util_DoDownload();
    EXPECT_EQ(Record().retry, 2);
    Client().calls.clear();
    GetWorkspace();
    EXPECT_TRUE(Client().calls.empty());  // registered by the workspace's first lookup only
}

}  // namespace
