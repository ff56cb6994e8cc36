#pragma once
// A scripted content client: records every call, in order, with its arguments as text, and
// answers the download run with runResult.
#include <string>
#include <vector>

namespace fake {

struct ContentClientState {
    bool available = true;           // false: LoadContentClient fails
    int runResult = 0;
    std::vector<std::string> calls;  // "setLogCallback", "usePemFile <path>", ...
    // The arguments of the last createDownload.
    std::string id, pacUrl, checksum;
    long long expectedSize = 0;
    int verifySize = 0, reserved = -1, payloadType = -1;
    std::vector<std::string> urls, thumbprints, proxies;
    bool systemStore = false;
    int liveDownloads = 0;  // created and not yet released
};

ContentClientState& ContentClient();

}  // namespace fake
