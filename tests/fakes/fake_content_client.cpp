#include "fake_content_client.h"

#include "platform/content_client.h"

struct KesClientDownload {};

namespace fake {
namespace {

std::string Text(const KesClientString* s) { return s && s->data ? std::string(s->data, s->size) : ""; }

std::vector<std::string> List(KesClientStringList list) {
    std::vector<std::string> out;
    for (std::size_t i = 0; i < list.count; ++i) out.push_back(Text(&list.items[i]));
    return out;
}

void Call(const std::string& call) { ContentClient().calls.push_back(call); }

KesClientDownload* CreateDownload(const KesClientString* id, int64_t expectedSize, int verifySize,
                                  KesClientStringList urls, KesClientStringList thumbprints,
                                  KesClientStringList proxies, const KesClientString* pacUrl,
                                  const KesClientString*, const KesClientString* checksum,
                                  int reserved, int payloadType) {
    Call("createDownload");
    auto& s = ContentClient();
    s.id = Text(id), s.pacUrl = Text(pacUrl), s.checksum = Text(checksum);
    s.expectedSize = expectedSize, s.verifySize = verifySize, s.reserved = reserved;
    s.payloadType = payloadType, s.urls = List(urls), s.thumbprints = List(thumbprints);
    s.proxies = List(proxies), ++s.liveDownloads;
    return new KesClientDownload;
}

const platform::ContentClient kClient{
    [](const KesClientString* folder, KesClientDownloadList downloads) {
        Call("runDownloads " + Text(folder) + " " + std::to_string(downloads.count));
        return ContentClient().runResult;
    },
    &CreateDownload,
    [](KesClientDownload* download) {
        Call("releaseDownload");
        if (download) --ContentClient().liveDownloads;
        delete download;
    },
    [](KesClientLogCallback) { Call("setLogCallback"); },
    [](const KesClientString* path) { Call("usePemFile " + Text(path)); },
    [](const int* enable) {
        Call("useSystemStore");
        ContentClient().systemStore = enable && *enable;
    }};

}  // namespace

ContentClientState& ContentClient() {
    static ContentClientState state;
    return state;
}

}  // namespace fake

const platform::ContentClient* platform::LoadContentClient(std::wstring& error) {
    const bool loads = fake::ContentClient().available;
    error = loads ? L"" : L"cannot load C:\\Program Files\\Quorvane\\kesclient.dll (error 126)";
    return loads ? &fake::kClient : nullptr;
}
