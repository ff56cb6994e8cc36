// The six exported functions (see kesclient.h and kesclient.def). Each one catches everything: a
// C++ exception must never unwind into the tool, which knows nothing of this runtime.
#include <chrono>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "client_state.h"
#include "download_win.h"
#include "kesclient/kesclient.h"
#include "logging.h"
#include "run_settings.h"
#include "wide_text_win.h"

struct KesClientDownload {
    kesclient::DownloadRequest request;
};

namespace {

std::string Text(const KesClientString* text) {
    if (text == nullptr || text->data == nullptr || text->size == 0) return {};
    return std::string(text->data, text->size);
}

std::vector<std::string> Texts(const KesClientStringList& list) {
    std::vector<std::string> texts;
    if (list.items == nullptr) return texts;
    texts.reserve(list.count);
    for (std::size_t i = 0; i < list.count; ++i) texts.push_back(Text(&list.items[i]));
    return texts;
}

std::string Environment(const char* name) {
    std::wstring wideName;
    kesclient::WideFromUtf8(name, &wideName);
    wchar_t value[64];
    const DWORD length = ::GetEnvironmentVariableW(wideName.c_str(), value, 64);
    if (length == 0 || length >= 64) return {};
    return kesclient::Utf8FromWide(std::wstring_view(value, length));
}

// Runs are serialised: they share the trust choice and write into the same folders.
std::mutex g_runMutex;

}  // namespace

extern "C" {

int KesClientRunDownloads(const KesClientString* localFolder, KesClientDownloadList downloads) {
    try {
        const std::lock_guard<std::mutex> lock(g_runMutex);
        kesclient::RunContext run;
        run.settings = kesclient::LoadRunSettings(Environment);
        run.deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(run.settings.runTimeoutMs);
        run.buffer.resize(kesclient::kTransferBufferBytes);
        const std::string folder = Text(localFolder);
        if (downloads.count == 0 || downloads.items == nullptr) {
            kesclient::Log(kesclient::kLogError, "kesclient: nothing to download");
            return KESCLIENT_QUEUE_DOWNLOAD_FAILED;
        }
        for (std::size_t i = 0; i < downloads.count; ++i) {
            const KesClientDownload* download = downloads.items[i];
            if (download == nullptr) {
                kesclient::Log(kesclient::kLogError, "kesclient: download %d is missing",
                               static_cast<int>(i + 1));
                return KESCLIENT_QUEUE_DOWNLOAD_FAILED;
            }
            const KesClientResult result = kesclient::RunDownload(download->request, folder, run);
            if (result != KESCLIENT_SUCCESS) return result;
        }
        return KESCLIENT_SUCCESS;
    } catch (const std::bad_alloc&) {
        kesclient::Log(kesclient::kLogError, "kesclient: out of memory");
    } catch (...) {
        kesclient::Log(kesclient::kLogError, "kesclient: internal error");
    }
    return KESCLIENT_DOWNLOAD_FAILED;
}

KesClientDownload* KesClientCreateDownload(
    const KesClientString* id, int64_t expectedSize, int verifySize, KesClientStringList urls,
    KesClientStringList thumbprints, KesClientStringList proxies, const KesClientString* pacUrl,
    const KesClientString* localFolder, const KesClientString* checksum, int /*reserved*/,
    int payloadType) {
    try {
        auto download = new KesClientDownload;
        kesclient::DownloadRequest& request = download->request;
        request.id = Text(id);
        request.expectedSize = expectedSize;
        request.verifySize = verifySize != 0;
        request.urls = Texts(urls);
        request.thumbprints = Texts(thumbprints);
        request.proxies = Texts(proxies);
        request.pacUrl = Text(pacUrl);
        request.localFolder = Text(localFolder);
        request.checksum = Text(checksum);
        request.payloadType = payloadType;
        return download;
    } catch (...) {
        kesclient::Log(kesclient::kLogError, "kesclient: cannot create a download (out of memory)");
        return nullptr;
    }
}

void KesClientReleaseDownload(KesClientDownload* download) {
    delete download;
}

void KesClientSetLogCallback(KesClientLogCallback callback) {
    kesclient::SetLogSink(callback);
}

void KesClientUsePemFile(const KesClientString* pemPath) {
    try {
        kesclient::SelectPemBundle(Text(pemPath));
    } catch (...) {
        kesclient::Log(kesclient::kLogError,
                       "kesclient: cannot keep the PEM file path (out of memory)");
    }
}

void KesClientUseSystemStore(const int* enable) {
    try {
        kesclient::SelectSystemStore(enable != nullptr && *enable != 0);
    } catch (...) {
        kesclient::Log(kesclient::kLogError, "kesclient: cannot select the system store");
    }
}

}  // extern "C"
