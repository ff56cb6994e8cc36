#include "download/download.h"

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "core/core_exception.h"
#include "core/format.h"
#include "core/text.h"
#include "download/workspace.h"
#include "platform/content_client.h"
#include "platform/system.h"
#include "log/tool_log.h"
#include "state/update_record.h"

namespace {

constexpr const wchar_t* kFunction = L"Util_DoDownload";

// UTF-8 texts with views onto them in the library's own types. The views point into `texts`,
// so the storage is reserved up front and never reallocated.
class Utf8List {
public:
    explicit Utf8List(const std::vector<std::wstring>& items, bool skipEmpty = false) {
        texts_.reserve(items.size());
        for (const auto& item : items)
            if (!skipEmpty || !item.empty()) texts_.push_back(core::Utf8FromWide(item));
        for (const auto& text : texts_) views_.push_back({text.data(), text.size()});
    }
    KesClientStringList list() const { return {views_.data(), views_.size()}; }
    std::size_t size() const { return texts_.size(); }

private:
    std::vector<std::string> texts_;
    std::vector<KesClientString> views_;
};

KesClientString View(const std::string& text) { return {text.data(), text.size()}; }

enum class CertMode { kPem, kThumbprint, kSystem };

// How the server is to be trusted: only what CERTTYPE names, nothing else.
struct Trust {
    CertMode mode = CertMode::kSystem;
    std::string pemPath;  // UTF-8, kPem only
};

// The trust mode from CERTTYPE, decided from the record alone; nullopt (RESULT "INVALID") when the
// configuration cannot work.
std::optional<Trust> ChooseTrust(const UpdateRecord& record) {
    const std::wstring& type = record.certType;
    if (type.empty()) {
        LogF(L"%s: certificate type not specified", kFunction);
        return std::nullopt;
    }
    if (platform::EqualsIgnoreCase(type, L"CERT_PEM")) {
        const std::wstring pem = UtilGetPEMFilePath();
        if (pem.empty()) {
            LogF(L"%s: CertType is specified as CERT_PEM, but certificate PEM filePath is empty",
                 kFunction);
            return std::nullopt;
        }
        LogF(L"%s: certificate PEM filePath: %s", kFunction, pem);
        return Trust{CertMode::kPem, core::Utf8FromWide(pem)};
    }
    if (platform::EqualsIgnoreCase(type, L"THUMBPRINT")) {
        if (record.thumbprints.empty()) {
            LogF(L"%s: CertType is specified as THUMBPRINT, but thumbprints are not provided for "
                 L"server cert validation. ",
                 kFunction);
            return std::nullopt;
        }
        LogF(L"%s: Using thumbprints for verifying server certificate. Thumbprint count: %d",
             kFunction, static_cast<int>(record.thumbprints.size()));
        return Trust{CertMode::kThumbprint, {}};
    }
    if (platform::EqualsIgnoreCase(type, L"CERT_SYSTEM_CA")) {
        LogF(L"%s: Using system CA for certificate type", kFunction);
        return Trust{CertMode::kSystem, {}};
    }
    LogF(L"%s: Invalid certificate type specified", kFunction);
    return std::nullopt;
}

// Tells the library how to check the server. Thumbprints travel with the download itself.
void ApplyTrust(const platform::ContentClient& client, const Trust& trust) {
    if (trust.mode == CertMode::kPem) {
        const KesClientString view = View(trust.pemPath);
        client.usePemFile(&view);
    } else if (trust.mode == CertMode::kSystem) {
        const int enable = 1;
        client.useSystemStore(&enable);
    }
}

// The package's local path and how the library treats it, from the first URL's last component.
std::wstring LocalPackagePath(const UpdateRecord& record, const std::wstring& workspace,
                              int& payloadType) {
    std::wstring url = record.urls.front();
    for (wchar_t& c : url)
        if (c == L'/') c = L'\\';
    const std::wstring name = core::FileNameOf(url);
    std::wstring path = workspace;
    if (core::ContainsIgnoreCase(name, L".tar")) {
        payloadType = KESCLIENT_PAYLOAD_TAR;
        if (!record.relativeFolderPath.empty()) path = core::PathJoin(path, record.relativeFolderPath);
        if (!record.packageFileName.empty()) path = core::PathJoin(path, record.packageFileName);
    } else {
        // Zip archives too: the library is never asked to unpack one.
        payloadType = KESCLIENT_PAYLOAD_EXE;
        path = core::PathJoin(path, name);
    }
    return path;
}

// FILESIZE as the library's expected size; text that is no number means "unknown" (0).
long long ExpectedSize(const std::wstring& text) {
    std::int64_t size = 0;
    if (!core::ParseInt64(core::Trim(text), size) || size < 0) return 0;
    return size;
}

// Whether every text the library is handed converts to UTF-8: an unpaired surrogate from the
// registry does not.
bool LibraryCanTakeTexts(const UpdateRecord& record) {
    std::vector<std::wstring> texts{record.keyId, record.checksum, record.pacUrl};
    for (const auto* list : {&record.urls, &record.proxies, &record.thumbprints})
        texts.insert(texts.end(), list->begin(), list->end());
    try {
        for (const auto& text : texts) core::Utf8FromWide(text);
    } catch (const CORE::coreException&) {
        return false;
    }
    return true;
}

bool Invalid(UpdateRecord& record) {
    record.result = L"INVALID";
    return false;
}

// The path of an earlier run's package, so that completing the install can delete it. Only a file
// inside the workspace counts: the tool never deletes what it did not download.
void RememberEarlierPackage(const UpdateRecord& record) {
    const std::wstring workspace = GetWorkspace();
    if (record.fileName.size() > workspace.size() + 1 &&
        core::ToLower(record.fileName.substr(0, workspace.size() + 1)) ==
            core::ToLower(workspace + L"\\"))
        SetDownloadedFilePath(record.fileName);
    else if (!record.fileName.empty())
        LogF(L"%s: %s is not inside the workspace %s, it will not be deleted", kFunction,
             record.fileName, workspace);
}

}  // namespace

std::wstring KesClientResultName(int code) {
    static constexpr std::array<const wchar_t*, 14> kNames{
        L"KESCLIENT_SUCCESS",
        L"KESCLIENT_PEM_FILE_FAILED",
        L"KESCLIENT_CREATE_CLIENT_FAILED",
        L"KESCLIENT_INIT_FAILED",
        L"KESCLIENT_DOWNLOAD_PENDING",
        L"KESCLIENT_INVALID_THUMBPRINT",
        L"KESCLIENT_QUEUE_DOWNLOAD_FAILED",
        L"KESCLIENT_DOWNLOAD_FAILED",
        L"KESCLIENT_VERIFY_FAILED",
        L"KESCLIENT_HTTP_CERTIFICATE_ERROR",
        L"KESCLIENT_WRONG_SIZE_ERROR",
        L"KESCLIENT_WRONG_CHECKSUM_ERROR",
        L"KESCLIENT_TRANSFER_INVALID_URI_ERROR",
        L"KESCLIENT_MAXCOUNT",
    };
    if (code < 0 || code >= static_cast<int>(kNames.size())) return L"KESCLIENT_MAXCOUNT";
    return kNames[static_cast<std::size_t>(code)];
}

std::wstring KesClientPayloadTypeName(int type) {
    switch (type) {
        case KESCLIENT_PAYLOAD_EXE: return L"KesClientPayloadType::EXE";
        case KESCLIENT_PAYLOAD_TAR: return L"KesClientPayloadType::TAR";
        case KESCLIENT_PAYLOAD_ZIP: return L"KesClientPayloadType::ZIP";
        default: return core::Format(L"PayloadType ERR_%d", type);
    }
}

bool Util_DoDownload() {
    UpdateRecord& record = ActiveUpdateRecord();
    LogF(L"%s: Update key: %s state: %s", kFunction, record.keyId, stateStr(record.state));
    if (record.state == update_state::kUpdating) {
        RememberEarlierPackage(record);
        return true;
    }
    if (record.state != update_state::kDownload) return false;

    // Configuration faults are the record's, whatever state the library is in.
    const std::optional<Trust> trust = ChooseTrust(record);
    if (!trust) return Invalid(record);
    if (record.urls.empty()) {
        LogF(L"%s: download URL empty", kFunction);
        return Invalid(record);
    }
    if (!LibraryCanTakeTexts(record)) {
        // As unusable as a missing location, and the service has to hear so.
        LogF(L"%s: update key holds text that is not valid UTF-16", kFunction);
        return Invalid(record);
    }

    std::wstring loadError;
    const platform::ContentClient* client = platform::LoadContentClient(loadError);
    if (client == nullptr) {
        // Without the library nothing can be fetched; say why, and let the retry logic decide.
        LogF(L"%s: content client unavailable: %s", kFunction, loadError);
        record.result = L"FAILURE";
        record.errorCode = KesClientResultName(KESCLIENT_INIT_FAILED);
        record.errorDesc = loadError;
        return false;
    }
    ApplyTrust(*client, *trust);

    const std::wstring workspace = GetWorkspace();
    const std::string id = core::Utf8FromWide(record.keyId);
    const std::string checksum = core::Utf8FromWide(record.checksum);
    const std::string folder = core::Utf8FromWide(workspace);
    const long long expectedSize = ExpectedSize(record.fileSize);

    if (record.fileName.empty()) record.retry = 0;
    int payloadType = KESCLIENT_PAYLOAD_EXE;
    record.fileName = LocalPackagePath(record, workspace, payloadType);
    LogF(L"%s: localPath: %s workspace: %s localFile: %s payloadType: %s", kFunction, workspace,
         workspace, record.fileName, KesClientPayloadTypeName(payloadType));

    const Utf8List urls(record.urls);
    // Pins only when the administrator chose them: in the other modes the library checks the PEM
    // file or the system store, and a thumbprint must not widen that.
    const Utf8List thumbprints(
        trust->mode == CertMode::kThumbprint ? record.thumbprints : std::vector<std::wstring>{},
        true);
    const Utf8List proxies(record.proxies);
    const std::string pacUrl = core::Utf8FromWide(record.pacUrl);
    const KesClientString idView = View(id), pacView = View(pacUrl), folderView = View(folder),
                          checksumView = View(checksum);

    KesClientDownload* download = client->createDownload(
        &idView, expectedSize, 1, urls.list(), thumbprints.list(), proxies.list(), &pacView,
        &folderView, &checksumView, 0, payloadType);
    KesClientDownload* const handles[] = {download};
    const int code = client->runDownloads(&folderView, {handles, download ? 1u : 0u});

    if (code == KESCLIENT_SUCCESS) {
        record.result = L"OK";
        LogF(L"%s: download done", kFunction);
        SetDownloadedFilePath(record.fileName);
    } else {
        record.result = L"FAILURE";
        if (code >= 0 && code < KESCLIENT_MAXCOUNT)
            LogF(L"%s: download failed: %d [%s]", kFunction, code, KesClientResultName(code));
        else
            LogF(L"%s: download failed: %d", kFunction, code);
        record.errorCode = KesClientResultName(code);
    }
    client->releaseDownload(download);
    return false;
}
