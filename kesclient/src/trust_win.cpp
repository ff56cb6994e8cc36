#include "trust_win.h"

#include <cstddef>
#include <cstdio>

#include "digest_win.h"
#include "files_win.h"
#include "logging.h"
#include "pem_bundle.h"
#include "wide_text_win.h"

namespace kesclient {
namespace {

std::string ChainErrorText(DWORD status) {
    struct Flag {
        DWORD bit;
        const char* text;
    };
    static constexpr Flag kFlags[] = {
        {CERT_TRUST_IS_NOT_TIME_VALID, "expired or not yet valid"},
        {CERT_TRUST_IS_REVOKED, "revoked"},
        {CERT_TRUST_IS_NOT_SIGNATURE_VALID, "bad signature"},
        {CERT_TRUST_IS_NOT_VALID_FOR_USAGE, "not for server authentication"},
        {CERT_TRUST_IS_UNTRUSTED_ROOT, "root not in the bundle"},
        {CERT_TRUST_IS_CYCLIC, "cyclic chain"},
        {CERT_TRUST_INVALID_EXTENSION, "invalid extension"},
        {CERT_TRUST_INVALID_POLICY_CONSTRAINTS, "invalid policy constraints"},
        {CERT_TRUST_INVALID_BASIC_CONSTRAINTS, "invalid basic constraints"},
        {CERT_TRUST_INVALID_NAME_CONSTRAINTS, "invalid name constraints"},
        {CERT_TRUST_IS_PARTIAL_CHAIN, "incomplete chain"},
    };
    std::string text;
    for (const Flag& flag : kFlags) {
        if (status & flag.bit) text += (text.empty() ? "" : ", ") + std::string(flag.text);
    }
    if (text.empty()) {
        char hex[16];
        std::snprintf(hex, sizeof hex, "0x%08lx", static_cast<unsigned long>(status));
        text = std::string("chain status ") + hex;
    }
    return text;
}

}  // namespace

const char* ServerTrust::Describe() const {
    switch (mode_) {
        case Mode::kPinned:
            return "pinned thumbprints";
        case Mode::kPemBundle:
            return "PEM bundle";
        case Mode::kSystemStore:
            return "system store";
    }
    return "unknown";
}

KesClientResult ServerTrust::Configure(const std::vector<std::string>& thumbprints,
                                       const TrustSelection& selection, std::string* why) {
    bool anyPin = false;
    for (const std::string& text : thumbprints) {
        if (text.empty()) continue;
        anyPin = true;
        const auto pin = ParseThumbprint(text);
        if (pin) {
            pins_.push_back(*pin);
        } else {
            Log(kLogWarning, "kesclient: ignoring a thumbprint that is not 40 or 64 hex digits: %s",
                text.c_str());
        }
    }
    if (anyPin) {
        mode_ = Mode::kPinned;
        if (pins_.empty()) {
            *why = "no valid thumbprint to pin";
            return KESCLIENT_INVALID_THUMBPRINT;
        }
        return KESCLIENT_SUCCESS;
    }
    switch (selection.choice) {
        case TrustChoice::kPemBundle:
            mode_ = Mode::kPemBundle;
            return LoadBundle(selection.pemPath, why);
        case TrustChoice::kSystemStore:
            mode_ = Mode::kSystemStore;
            return KESCLIENT_SUCCESS;
        case TrustChoice::kNone:
            break;
    }
    *why = "no way to validate servers was chosen (PEM file, system store or thumbprints)";
    return KESCLIENT_INIT_FAILED;
}

KesClientResult ServerTrust::LoadBundle(const std::string& path, std::string* why) {
    std::wstring widePath;
    std::string text;
    if (path.empty() || !WideFromUtf8(path, &widePath)) {
        *why = "PEM file path is empty or not UTF-8";
        return KESCLIENT_PEM_FILE_FAILED;
    }
    if (!ReadSmallFile(widePath, kMaxPemBundleBytes, &text)) {
        *why = "cannot read PEM file " + path + ": " + ErrorText(::GetLastError());
        return KESCLIENT_PEM_FILE_FAILED;
    }
    std::string reason;
    const auto certificates = ParsePemCertificates(text, &reason);
    if (!certificates) {
        *why = "PEM file " + path + ": " + reason;
        return KESCLIENT_PEM_FILE_FAILED;
    }
    roots_.reset(
        ::CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, CERT_STORE_CREATE_NEW_FLAG, nullptr));
    if (!roots_) {
        *why = "cannot create a certificate store: " + ErrorText(::GetLastError());
        return KESCLIENT_PEM_FILE_FAILED;
    }
    for (std::size_t i = 0; i < certificates->size(); ++i) {
        const auto& der = (*certificates)[i];
        if (!::CertAddEncodedCertificateToStore(roots_.get(), X509_ASN_ENCODING, der.data(),
                                                static_cast<DWORD>(der.size()),
                                                CERT_STORE_ADD_USE_EXISTING, nullptr)) {
            *why = "PEM file " + path + ": certificate " + std::to_string(i + 1) +
                   " is not valid: " + ErrorText(::GetLastError());
            return KESCLIENT_PEM_FILE_FAILED;
        }
    }
    CERT_CHAIN_ENGINE_CONFIG config{};
    // The size up to the exclusive roots: Wine refuses the newer structure (with dwExclusiveFlags)
    // that MinGW's headers declare, and Windows accepts this older one.
    config.cbSize = offsetof(CERT_CHAIN_ENGINE_CONFIG, dwExclusiveFlags);
    config.hExclusiveRoot = roots_.get();
    if (!::CertCreateCertificateChainEngine(&config, engine_.put())) {
        *why = "cannot create a chain engine for the PEM roots: " + ErrorText(::GetLastError());
        return KESCLIENT_PEM_FILE_FAILED;
    }
    Log(kLogDebug, "kesclient: PEM file %s holds %d certificate(s)", path.c_str(),
        static_cast<int>(certificates->size()));
    return KESCLIENT_SUCCESS;
}

DWORD ServerTrust::IgnoredFailures() const {
    if (mode_ == Mode::kSystemStore) return 0;
    return SECURITY_FLAG_IGNORE_UNKNOWN_CA | SECURITY_FLAG_IGNORE_CERT_DATE_INVALID |
           SECURITY_FLAG_IGNORE_CERT_CN_INVALID | SECURITY_FLAG_IGNORE_CERT_WRONG_USAGE;
}

KesClientResult ServerTrust::CheckServer(HINTERNET request, const std::string& host,
                                         std::string* why) const {
    PCCERT_CONTEXT raw = nullptr;
    DWORD size = sizeof(raw);
    if (!::WinHttpQueryOption(request, WINHTTP_OPTION_SERVER_CERT_CONTEXT, &raw, &size) ||
        raw == nullptr) {
        // No TLS session: a proxy answered the tunnel request itself. Nothing it says is trusted,
        // but no certificate was refused either; the route failed.
        *why = "no server certificate (did the proxy refuse the tunnel?)";
        return KESCLIENT_DOWNLOAD_FAILED;
    }
    const UniqueCertContext certificate(raw);
    switch (mode_) {
        case Mode::kPinned:
            return CheckPins(certificate.get(), why);
        case Mode::kPemBundle:
            return CheckChain(certificate.get(), host, why);
        case Mode::kSystemStore:
            break;
    }
    return KESCLIENT_SUCCESS;
}

KesClientResult ServerTrust::CheckPins(PCCERT_CONTEXT certificate, std::string* why) const {
    const std::string sha1 =
        DigestHex(DigestAlgorithm::kSha1, certificate->pbCertEncoded, certificate->cbCertEncoded);
    const std::string sha256 =
        DigestHex(DigestAlgorithm::kSha256, certificate->pbCertEncoded, certificate->cbCertEncoded);
    if (sha1.empty() || sha256.empty()) {
        *why = "cannot hash the server certificate";
        return KESCLIENT_INVALID_THUMBPRINT;
    }
    for (const Digest& pin : pins_) {
        if (pin.hex != (pin.algorithm == DigestAlgorithm::kSha1 ? sha1 : sha256)) continue;
        // The pin names this very certificate, so its dates do not decide; they are worth a word.
        if (::CertVerifyTimeValidity(nullptr, certificate->pCertInfo) != 0) {
            Log(kLogWarning,
                "kesclient: the pinned server certificate is outside its validity period");
        }
        return KESCLIENT_SUCCESS;
    }
    *why = "server certificate matches no pinned thumbprint (SHA-1 " + sha1 + ", SHA-256 " +
           sha256 + ")";
    return KESCLIENT_INVALID_THUMBPRINT;
}

KesClientResult ServerTrust::CheckChain(PCCERT_CONTEXT certificate, const std::string& host,
                                        std::string* why) const {
    LPSTR usages[] = {const_cast<LPSTR>(szOID_PKIX_KP_SERVER_AUTH)};
    CERT_CHAIN_PARA para{};
    para.cbSize = sizeof(para);
    para.RequestedUsage.dwType = USAGE_MATCH_TYPE_AND;
    para.RequestedUsage.Usage.cUsageIdentifier = 1;
    para.RequestedUsage.Usage.rgpszUsageIdentifier = usages;
    UniqueChainContext chain;
    // The server's own intermediates come with its certificate's store; revocation is not
    // checked: private roots of a bundle rarely publish lists a fleet can reach.
    if (!::CertGetCertificateChain(engine_.get(), certificate, nullptr, certificate->hCertStore,
                                   &para, 0, nullptr, chain.put())) {
        *why = "cannot build the certificate chain: " + ErrorText(::GetLastError());
        return KESCLIENT_HTTP_CERTIFICATE_ERROR;
    }
    const DWORD status = chain.get()->TrustStatus.dwErrorStatus;
    if (status != CERT_TRUST_NO_ERROR) {
        *why = "certificate chain not trusted by the PEM bundle: " + ChainErrorText(status);
        return KESCLIENT_HTTP_CERTIFICATE_ERROR;
    }
    // Belt and braces: the anchor must be one of the bundle's certificates, whatever the engine
    // did.
    const CERT_SIMPLE_CHAIN* simple = chain.get()->cChain > 0 ? chain.get()->rgpChain[0] : nullptr;
    if (simple == nullptr || simple->cElement == 0) {
        *why = "empty certificate chain";
        return KESCLIENT_HTTP_CERTIFICATE_ERROR;
    }
    PCCERT_CONTEXT anchor = simple->rgpElement[simple->cElement - 1]->pCertContext;
    const UniqueCertContext found(::CertFindCertificateInStore(
        roots_.get(), X509_ASN_ENCODING, 0, CERT_FIND_EXISTING, anchor, nullptr));
    if (!found) {
        *why = "certificate chain does not end at a certificate of the PEM bundle";
        return KESCLIENT_HTTP_CERTIFICATE_ERROR;
    }

    std::wstring wideHost;
    std::string bare = host;
    if (bare.size() > 2 && bare.front() == '[' && bare.back() == ']')
        bare = bare.substr(1, bare.size() - 2);
    WideFromUtf8(bare, &wideHost);
    SSL_EXTRA_CERT_CHAIN_POLICY_PARA ssl{};
    ssl.cbSize = sizeof(ssl);
    ssl.dwAuthType = AUTHTYPE_SERVER;
    ssl.pwszServerName = wideHost.data();
    CERT_CHAIN_POLICY_PARA policy{};
    policy.cbSize = sizeof(policy);
    policy.pvExtraPolicyPara = &ssl;
    CERT_CHAIN_POLICY_STATUS policyStatus{};
    policyStatus.cbSize = sizeof(policyStatus);
    if (!::CertVerifyCertificateChainPolicy(CERT_CHAIN_POLICY_SSL, chain.get(), &policy,
                                            &policyStatus)) {
        *why = "cannot verify the chain policy: " + ErrorText(::GetLastError());
        return KESCLIENT_HTTP_CERTIFICATE_ERROR;
    }
    if (policyStatus.dwError != 0) {
        const char* what = policyStatus.dwError == static_cast<DWORD>(CERT_E_CN_NO_MATCH)
                               ? "certificate does not name host "
                               : "certificate refused for host ";
        *why = what + host + ": " + ErrorText(policyStatus.dwError);
        return KESCLIENT_HTTP_CERTIFICATE_ERROR;
    }
    return KESCLIENT_SUCCESS;
}

}  // namespace kesclient
