#pragma once
// How a download decides that it talks to the right server. One of three modes:
//  - pinned: the leaf certificate's SHA-1 or SHA-256 thumbprint is one of the download's pins
//    (the pin names the exact certificate: chain, name and dates are not what decides);
//  - PEM bundle: the chain ends at a certificate of the bundle (our own chain engine, with the
//    bundle as its exclusive roots) and the certificate names the host;
//  - system store: WinHTTP's own validation against the machine's trusted roots.
// In the first two modes WinHTTP is told to ignore exactly the failures our check replaces (unknown
// root, dates, name, usage) and our check runs once the TLS session exists, before a single byte
// of the answer is read. The check also runs, for the presence of a certificate, in the third.
#include <string>
#include <vector>

#include "client_state.h"
#include "digest_text.h"
#include "handles_win.h"
#include "kesclient/kesclient.h"

namespace kesclient {

class ServerTrust {
public:
    enum class Mode { kPinned, kPemBundle, kSystemStore };

    // KESCLIENT_SUCCESS, or the code that ends the download: no valid pin (INVALID_THUMBPRINT), an
    // unreadable, empty or invalid bundle (PEM_FILE_FAILED), no mode chosen (INIT_FAILED).
    KesClientResult Configure(const std::vector<std::string>& thumbprints,
                              const TrustSelection& selection, std::string* why);

    Mode mode() const { return mode_; }
    const char* Describe() const;

    // WINHTTP_OPTION_SECURITY_FLAGS for a request: 0 in system-store mode.
    DWORD IgnoredFailures() const;

    // After WinHttpSendRequest, before WinHttpReceiveResponse. host as in the URL.
    KesClientResult CheckServer(HINTERNET request, const std::string& host, std::string* why) const;

private:
    KesClientResult LoadBundle(const std::string& path, std::string* why);
    KesClientResult CheckPins(PCCERT_CONTEXT certificate, std::string* why) const;
    KesClientResult CheckChain(PCCERT_CONTEXT certificate, const std::string& host,
                               std::string* why) const;

    Mode mode_ = Mode::kSystemStore;
    std::vector<Digest> pins_;
    UniqueCertStore roots_;
    UniqueChainEngine engine_;
};

}  // namespace kesclient
