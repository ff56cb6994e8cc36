#include "fake_content_client.h"

#include "fake_platform.h"
#include "platform/content_client.h"

struct KesClientDownload {
    int unused = 0;
};

namespace fake {
namespace {

std::string Text(const KesClientString* s) { return s && s->data ? std::string(s->data, s->size) : ""; }

std::vector<std::string> List(KesClientStringList list) {
    std::vector<std::string> out;
    for (std::size_t i = 0; i < list.count; ++i) out.push_back(Text(&list.items[i]));
    return out;
}

int RunDownloads(const KesClientString* folder, KesClientDownloadList downloads) {
    ContentClient().calls.push_back("runDownloads " + Text(folder) + " " +
                                    std::to_string(downloads.count));
    return ContentClient().runResult;
}

KesClientDownload* CreateDownload(const KesClientString* id, int64_t expectedSize, int verifySize,
                                  KesClientStringList urls, KesClientStringList thumbprints,
                                  KesClientStringList proxies, const KesClientString* pacUrl,
                                  const KesClientString*,
                                  const KesClientString* checksum, int reserved, int payloadType) {
    ContentClientState& s = ContentClient();
    s.calls.push_back("createDownload");
    s.id = Text(id);
    s.expectedSize = expectedSize;
    s.verifySize = verifySize;
    s.urls = List(urls);
    s.thumbprints = List(thumbprints);
    s.proxies = List(proxies);
    s.pacUrl = Text(pacUrl);
    s.checksum = Text(checksum);
    s.reserved = reserved;
    s.payloadType = payloadType;
    ++s.liveDownloads;
    return new KesClientDownload;
}

void ReleaseDownload(KesClientDownload* download) {
    ContentClient().calls.push_back("releaseDownload");
    if (download) --ContentClient().liveDownloads;
    delete download;
}

void SetLogCallback(KesClientLogCallback) { ContentClient().calls.push_back("setLogCallback"); }

void UsePemFile(const KesClientString* path) { ContentClient().calls.push_back("usePemFile " + Text(path)); }

void UseSystemStore(const int* enable) {
    ContentClient().calls.push_back("useSystemStore");
    ContentClient().systemStore = enable && *enable;
}

}  // namespace

ContentClientState& ContentClient() {
    static ContentClientState state;
    return state;
}

}  // namespace fake

namespace platform {

const ContentClient* LoadContentClient(std::wstring& error) {
    static const ContentClient client{&fake::RunDownloads, &fake::CreateDownload,
                                      &fake::ReleaseDownload, &fake::SetLogCallback,
                                      &fake::UsePemFile, &fake::UseSystemStore};
    if (!fake::ContentClient().available) {
        error = L"cannot load C:\\Program Files\\Quorvane\\kesclient.dll (error 126)";
        return nullptr;
    }
    error.clear();
    return &client;
}

}  // namespace platform
