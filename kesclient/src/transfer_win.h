#pragma once
// One attempt to fetch a location over one route (a proxy or direct): TLS and the trust check,
// redirects followed one validated hop at a time, resume with Range and If-Range, the body counted
// against what the server and the caller announced, and written to the partial file.
#include <cstdint>
#include <optional>
#include <string>

#include "kesclient/kesclient.h"
#include "partial_file_win.h"
#include "proxy_config.h"
#include "run_context_win.h"
#include "trust_win.h"

namespace kesclient {

enum class NextStep {
    kDone,        // the whole body is in the partial file
    kNextRoute,   // this way to the server failed; another proxy may work
    kNextMirror,  // the server or its answer failed; try the next location
    kStop,        // nothing else can work (local disk, run time)
};

struct TransferOutcome {
    KesClientResult code = KESCLIENT_SUCCESS;
    NextStep next = NextStep::kDone;
    std::string reason;
};

struct TransferTarget {
    std::string id;  // for the log
    std::string url;
    Route route;
    const ServerTrust* trust = nullptr;
    std::optional<std::uint64_t> expectedSize;  // when the caller asked for the size to be checked
};

TransferOutcome Transfer(const TransferTarget& target, PartialFile& partial, RunContext& run);

// The routes a PAC script gives for url; *why tells when it could not be evaluated.
std::vector<Route> RoutesFromPac(const std::string& pacUrl, const std::string& url,
                                 const RunContext& run, std::vector<std::string>* skipped,
                                 std::string* why);

}  // namespace kesclient
