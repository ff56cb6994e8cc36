#pragma once
// The content client library, loaded from the program's own folder only (never the default search
// order: the tool runs elevated) and bound by ordinal.
#include <string>

#include "kesclient/kesclient.h"

namespace platform {

struct ContentClient {
    KesClientRunDownloadsFn runDownloads = nullptr;      // ordinal 1
    KesClientCreateDownloadFn createDownload = nullptr;  // ordinal 2
    KesClientReleaseDownloadFn releaseDownload = nullptr;  // ordinal 3
    KesClientSetLogCallbackFn setLogCallback = nullptr;  // ordinal 4
    KesClientUsePemFileFn usePemFile = nullptr;          // ordinal 5
    KesClientUseSystemStoreFn useSystemStore = nullptr;  // ordinal 8
};

// The bound library, loaded on first use and kept for the process; null when the module or one
// of its ordinals is missing, with the reason in `error` (every call repeats the same answer).
const ContentClient* LoadContentClient(std::wstring& error);

}  // namespace platform
