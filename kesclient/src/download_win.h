#pragma once
// One download from start to finish: checks its parameters, tries each mirror over each route,
// verifies size and checksum, and puts the result in place: the file by an atomic rename, or a
// tar package extracted into the folder.
#include <cstdint>
#include <string>
#include <vector>

#include "kesclient/kesclient.h"
#include "run_context_win.h"

namespace kesclient {

// The arguments of ordinal 2, copied: the caller's strings are only borrowed.
struct DownloadRequest {
    std::string id;
    std::int64_t expectedSize = 0;
    bool verifySize = true;
    std::vector<std::string> urls;
    std::vector<std::string> thumbprints;
    std::vector<std::string> proxies;
    std::string pacUrl;
    std::string localFolder;
    std::string checksum;
    int payloadType = KESCLIENT_PAYLOAD_EXE;
};

KesClientResult RunDownload(const DownloadRequest& request, const std::string& runFolder,
                            RunContext& run);

}  // namespace kesclient
