#include "download_win.h"

#include <chrono>
#include <map>

#include "client_state.h"
#include "digest_text.h"
#include "entry_name.h"
#include "extract_win.h"
#include "files_win.h"
#include "logging.h"
#include "partial_file_win.h"
#include "proxy_config.h"
#include "transfer_win.h"
#include "trust_win.h"
#include "url.h"
#include "wide_text_win.h"

namespace kesclient {
namespace {

const char* ResultName(KesClientResult code) {
    switch (code) {
        case KESCLIENT_SUCCESS:
            return "KESCLIENT_SUCCESS";
        case KESCLIENT_PEM_FILE_FAILED:
            return "KESCLIENT_PEM_FILE_FAILED";
        case KESCLIENT_CREATE_CLIENT_FAILED:
            return "KESCLIENT_CREATE_CLIENT_FAILED";
        case KESCLIENT_INIT_FAILED:
            return "KESCLIENT_INIT_FAILED";
        case KESCLIENT_DOWNLOAD_PENDING:
            return "KESCLIENT_DOWNLOAD_PENDING";
        case KESCLIENT_INVALID_THUMBPRINT:
            return "KESCLIENT_INVALID_THUMBPRINT";
        case KESCLIENT_QUEUE_DOWNLOAD_FAILED:
            return "KESCLIENT_QUEUE_DOWNLOAD_FAILED";
        case KESCLIENT_DOWNLOAD_FAILED:
            return "KESCLIENT_DOWNLOAD_FAILED";
        case KESCLIENT_VERIFY_FAILED:
            return "KESCLIENT_VERIFY_FAILED";
        case KESCLIENT_HTTP_CERTIFICATE_ERROR:
            return "KESCLIENT_HTTP_CERTIFICATE_ERROR";
        case KESCLIENT_WRONG_SIZE_ERROR:
            return "KESCLIENT_WRONG_SIZE_ERROR";
        case KESCLIENT_WRONG_CHECKSUM_ERROR:
            return "KESCLIENT_WRONG_CHECKSUM_ERROR";
        case KESCLIENT_TRANSFER_INVALID_URI_ERROR:
            return "KESCLIENT_TRANSFER_INVALID_URI_ERROR";
        case KESCLIENT_MAXCOUNT:
            break;
    }
    return "KESCLIENT_MAXCOUNT";
}

KesClientResult Fail(const DownloadRequest& request, KesClientResult code, const std::string& why) {
    Log(kLogError, "kesclient: [%s] %s: %s", request.id.c_str(), ResultName(code), why.c_str());
    return code;
}

// The failure a download reports when no mirror succeeded: the first one that says something about
// the server or the content (certificate, pin, size, checksum, location) outranks plain transfer
// failures, which may only mean that a mirror was down.
class Verdict {
public:
    void Note(KesClientResult code) {
        if (code_ == KESCLIENT_SUCCESS ||
            (code_ == KESCLIENT_DOWNLOAD_FAILED && code != KESCLIENT_DOWNLOAD_FAILED)) {
            code_ = code;
        }
    }
    KesClientResult code() const {
        return code_ == KESCLIENT_SUCCESS ? KESCLIENT_DOWNLOAD_FAILED : code_;
    }

private:
    KesClientResult code_ = KESCLIENT_SUCCESS;
};

// Between mirrors and at the end of the run: bytes stay only when the next attempt can resume
// them, which needs the server's validator; without one they would only be emptied later.
void Park(PartialFile& partial) {
    if (partial.validator().empty()) {
        partial.Discard();
    } else {
        partial.CloseKeepingProgress();
    }
}

class Download {
public:
    Download(const DownloadRequest& request, RunContext& run) : request_(request), run_(run) {}

    KesClientResult Run(const std::string& runFolder) {
        const auto began = std::chrono::steady_clock::now();
        const KesClientResult code = Prepare(runFolder);
        if (code != KESCLIENT_SUCCESS) return code;
        const KesClientResult result = Fetch();
        if (result != KESCLIENT_SUCCESS) return result;
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
        Log(kLogInfo, "kesclient: [%s] done: %s bytes in %s s (%s MiB/s)", request_.id.c_str(),
            Decimal(bytes_).c_str(), OneDecimal(seconds).c_str(),
            OneDecimal(seconds > 0 ? static_cast<double>(bytes_) / (1024.0 * 1024.0) / seconds
                                   : 0.0)
                .c_str());
        return KESCLIENT_SUCCESS;
    }

private:
    KesClientResult Prepare(const std::string& runFolder) {
        if (request_.urls.empty())
            return Fail(request_, KESCLIENT_QUEUE_DOWNLOAD_FAILED, "no download location");
        const std::string& folder = request_.localFolder.empty() ? runFolder : request_.localFolder;
        std::wstring wideFolder;
        if (folder.empty() || !WideFromUtf8(folder, &wideFolder)) {
            return Fail(request_, KESCLIENT_QUEUE_DOWNLOAD_FAILED, "no usable local folder");
        }
        folder_ = FullPath(wideFolder);
        if (!EnsureDirectory(folder_)) {
            return Fail(request_, KESCLIENT_QUEUE_DOWNLOAD_FAILED,
                        "cannot create " + folder + ": " + ErrorText(::GetLastError()));
        }

        name_ = FileNameFromUrl(request_.urls.front());
        std::string why;
        if (!IsAcceptableComponent(name_, &why) || !WideFromUtf8(name_, &wideName_)) {
            return Fail(request_, KESCLIENT_TRANSFER_INVALID_URI_ERROR,
                        "location " + UrlForLog(request_.urls.front()) +
                            " does not end in a usable file name: " + why);
        }
        target_ = JoinPath(folder_, wideName_);
        if (IsDirectory(target_)) {
            return Fail(request_, KESCLIENT_QUEUE_DOWNLOAD_FAILED,
                        "a folder is in the place of " + name_);
        }

        const auto checksum = ParseChecksum(request_.checksum);
        if (!checksum) {
            return Fail(
                request_, KESCLIENT_WRONG_CHECKSUM_ERROR,
                "expected checksum is not hex SHA-256 or SHA-512: \"" + request_.checksum + "\"");
        }
        checksum_ = *checksum;
        if (checksum_.algorithm == DigestAlgorithm::kNone) {
            Log(kLogWarning, "kesclient: [%s] no checksum given: the content is not verified",
                request_.id.c_str());
        }

        const KesClientResult trusted =
            trust_.Configure(request_.thumbprints, CurrentTrustSelection(), &why);
        if (trusted != KESCLIENT_SUCCESS) return Fail(request_, trusted, why);

        if (request_.verifySize && request_.expectedSize > 0) {
            expectedSize_ = static_cast<std::uint64_t>(request_.expectedSize);
        }
        Log(kLogInfo, "kesclient: [%s] %s from %d location(s), trust: %s, payload: %s",
            request_.id.c_str(), name_.c_str(), static_cast<int>(request_.urls.size()),
            trust_.Describe(), request_.payloadType == KESCLIENT_PAYLOAD_TAR ? "tar" : "file");
        return KESCLIENT_SUCCESS;
    }

    std::vector<Route> Routes(const std::string& url, std::string* why) {
        std::vector<std::string> skipped;
        std::vector<Route> pacRoutes;
        const bool pac = !request_.pacUrl.empty();
        if (pac) {
            pacRoutes = RoutesFromPac(request_.pacUrl, url, run_, &skipped, why);
            if (!why->empty())
                Log(kLogWarning, "kesclient: [%s] %s", request_.id.c_str(), why->c_str());
        }
        std::vector<Route> routes = PlanRoutes(pac, pacRoutes, request_.proxies, &skipped);
        for (const std::string& entry : skipped) {
            Log(kLogWarning, "kesclient: [%s] skipping unusable proxy entry \"%s\"",
                request_.id.c_str(), entry.c_str());
        }
        if (routes.empty()) *why = "no usable proxy (PAC answer and proxy list)";
        return routes;
    }

    KesClientResult Fetch() {
        Verdict verdict;
        const std::wstring partialPath = target_ + L".partial";
        PartialFile partial(partialPath, target_ + L".resume", checksum_);
        const int mirrors = static_cast<int>(request_.urls.size());
        for (int m = 0; m < mirrors; ++m) {
            // Before the partial file is opened for this mirror, which would drop another's bytes.
            if (TimeUp(verdict)) return verdict.code();
            const std::string& url = request_.urls[static_cast<std::size_t>(m)];
            std::string why;
            if (!ParseHttpsUrl(url, &why)) {
                verdict.Note(Fail(request_, KESCLIENT_TRANSFER_INVALID_URI_ERROR,
                                  "location " + UrlForLog(url) + ": " + why));
                continue;
            }
            const std::vector<Route> routes = Routes(url, &why);
            if (routes.empty()) {
                verdict.Note(Fail(request_, KESCLIENT_DOWNLOAD_FAILED, why));
                continue;
            }
            if (!partial.Open(url, run_, &why))
                return Fail(request_, KESCLIENT_DOWNLOAD_FAILED, why);

            for (std::size_t r = 0; r < routes.size(); ++r) {
                if (TimeUp(verdict)) {
                    Park(partial);
                    return verdict.code();
                }
                Log(kLogInfo, "kesclient: [%s] location %d of %d: %s via %s, trust: %s",
                    request_.id.c_str(), m + 1, mirrors, UrlForLog(url).c_str(),
                    routes[r].Describe().c_str(), trust_.Describe());
                const TransferTarget target{request_.id, url, routes[r], &trust_, expectedSize_};
                const TransferOutcome outcome = Transfer(target, partial, run_);
                if (outcome.next == NextStep::kDone) {
                    const KesClientResult placed = Verify(partial);
                    if (placed == KESCLIENT_SUCCESS || placed == KESCLIENT_VERIFY_FAILED)
                        return placed;
                    verdict.Note(placed);
                    break;  // wrong content: another route to the same mirror gives the same bytes
                }
                verdict.Note(outcome.code);
                const char* then = outcome.next == NextStep::kNextRoute && r + 1 < routes.size()
                                       ? "trying the next route"
                                   : outcome.next == NextStep::kStop || m + 1 == mirrors
                                       ? "giving up"
                                       : "trying the next location";
                Log(kLogWarning, "kesclient: [%s] %s: %s; %s", request_.id.c_str(),
                    ResultName(outcome.code), outcome.reason.c_str(), then);
                if (outcome.next == NextStep::kStop) {
                    Park(partial);
                    return verdict.code();
                }
                if (outcome.next != NextStep::kNextRoute) break;
                if (!partial.open()) break;  // discarded: the content was wrong, not the route
            }
            Park(partial);
        }
        const KesClientResult code = verdict.code();
        Log(kLogError, "kesclient: [%s] failed: %s", request_.id.c_str(), ResultName(code));
        return code;
    }

    bool TimeUp(Verdict& verdict) const {
        if (!run_.TimeUp()) return false;
        verdict.Note(KESCLIENT_DOWNLOAD_FAILED);
        Log(kLogError, "kesclient: [%s] time limit of the run reached; giving up",
            request_.id.c_str());
        return true;
    }

    // The whole body is in the partial file: check it, then put it in place.
    KesClientResult Verify(PartialFile& partial) {
        bytes_ = partial.size();
        if (expectedSize_ && partial.size() != *expectedSize_) {
            partial.Discard();
            return Fail(
                request_, KESCLIENT_WRONG_SIZE_ERROR,
                "received " + Decimal(bytes_) + " bytes, expected " + Decimal(*expectedSize_));
        }
        if (checksum_.algorithm != DigestAlgorithm::kNone) {
            const std::string actual = partial.FinishDigest();
            if (actual != checksum_.hex) {
                partial.Discard();
                return Fail(request_, KESCLIENT_WRONG_CHECKSUM_ERROR,
                            std::string(AlgorithmName(checksum_.algorithm)) + " is " + actual +
                                ", expected " + checksum_.hex);
            }
            Log(kLogInfo, "kesclient: [%s] %s verified", request_.id.c_str(),
                AlgorithmName(checksum_.algorithm));
        }
        std::string why;
        if (request_.payloadType != KESCLIENT_PAYLOAD_TAR) {
            if (!partial.CommitTo(target_, &why)) {
                partial.Discard();
                return Fail(request_, KESCLIENT_DOWNLOAD_FAILED, why);
            }
            Log(kLogInfo, "kesclient: [%s] saved %s", request_.id.c_str(),
                Utf8FromWide(target_).c_str());
            return KESCLIENT_SUCCESS;
        }
        partial.Close();
        const std::wstring archive = partial.path();
        const std::vector<std::wstring> reserved = {wideName_ + L".partial",
                                                    wideName_ + L".resume"};
        const bool extracted =
            ExtractArchive(archive, folder_, reserved, run_.buffer, request_.id, &why);
        partial.Discard();
        if (!extracted) return Fail(request_, KESCLIENT_VERIFY_FAILED, "package refused: " + why);
        return KESCLIENT_SUCCESS;
    }

    const DownloadRequest& request_;
    RunContext& run_;
    std::wstring folder_;
    std::wstring target_;
    std::wstring wideName_;
    std::string name_;
    Digest checksum_;
    ServerTrust trust_;
    std::optional<std::uint64_t> expectedSize_;
    std::uint64_t bytes_ = 0;
};

}  // namespace

KesClientResult RunDownload(const DownloadRequest& request, const std::string& runFolder,
                            RunContext& run) {
    return Download(request, run).Run(runFolder);
}

}  // namespace kesclient
