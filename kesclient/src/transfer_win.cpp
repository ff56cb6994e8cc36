#include "transfer_win.h"

#include <chrono>

#include "background_writer_win.h"
#include "http_values.h"
#include "logging.h"
#include "url.h"
#include "wide_text_win.h"

namespace kesclient {
namespace {

constexpr int kMaxRedirects = 10;
// WinHTTP under Wine ends every answer's body after 2^31-1 bytes, as if it were complete (seen with
// Wine 8). A longer file takes one more (Range) request per 2 GiB.
constexpr std::uint64_t kWinHttpAnswerCap = 0x7FFFFFFF;
// Bytes waiting in WinHTTP's receive buffer that show data is flowing rather than trickling.
constexpr DWORD kFlowingBytes = 4096;
constexpr int kMaxAnswers = 64;
constexpr wchar_t kUserAgent[] = L"kesclient/1.0";

using Clock = std::chrono::steady_clock;

TransferOutcome Outcome(KesClientResult code, NextStep next, std::string reason) {
    return TransferOutcome{code, next, std::move(reason)};
}

double Seconds(Clock::duration elapsed) {
    return std::chrono::duration<double>(elapsed).count();
}

std::string Rate(std::uint64_t bytes, Clock::duration elapsed) {
    const double seconds = Seconds(elapsed);
    return OneDecimal(seconds > 0 ? static_cast<double>(bytes) / (1024.0 * 1024.0) / seconds : 0.0);
}

// One request's watch over its TLS session, kept by the status callback (on the calling thread:
// the requests are synchronous).
struct RequestWatch {
    const ServerTrust* trust = nullptr;
    std::string host;
    DWORD secureFailures = 0;  // flags of the secure-failure notification
    bool checked = false;      // the trust check ran when the request was about to be sent
    bool closed = false;       // and refused the server: the callback closed the request
    KesClientResult verdict = KESCLIENT_SUCCESS;
    std::string why;
};

// SENDING_REQUEST comes after the TLS handshake and before the request leaves: the place to judge
// the server before it sees the path (which may carry a token). Closing the request there stops
// the send on Windows; Wine sends anyway, so the verdict is also checked after the send returns.
void CALLBACK OnStatus(HINTERNET request, DWORD_PTR context, DWORD status, LPVOID info,
                       DWORD infoLength) {
    auto* watch = reinterpret_cast<RequestWatch*>(context);
    if (watch == nullptr) return;
    if (status == WINHTTP_CALLBACK_STATUS_SECURE_FAILURE && info != nullptr &&
        infoLength >= sizeof(DWORD)) {
        watch->secureFailures |= *static_cast<const DWORD*>(info);
    } else if (status == WINHTTP_CALLBACK_STATUS_SENDING_REQUEST && !watch->checked) {
        watch->checked = true;
        try {
            watch->verdict = watch->trust->CheckServer(request, watch->host, &watch->why);
        } catch (...) {  // nothing may unwind into WinHTTP
            watch->verdict = KESCLIENT_DOWNLOAD_FAILED;
        }
        if (watch->verdict != KESCLIENT_SUCCESS) {
            watch->closed = true;
            ::WinHttpCloseHandle(request);
        }
    }
}

std::string SecureFailureText(DWORD flags) {
    struct Flag {
        DWORD bit;
        const char* text;
    };
    static constexpr Flag kFlags[] = {
        {WINHTTP_CALLBACK_STATUS_FLAG_CERT_REV_FAILED, "revocation check failed"},
        {WINHTTP_CALLBACK_STATUS_FLAG_INVALID_CERT, "invalid certificate"},
        {WINHTTP_CALLBACK_STATUS_FLAG_CERT_REVOKED, "certificate revoked"},
        {WINHTTP_CALLBACK_STATUS_FLAG_INVALID_CA, "unknown or untrusted root"},
        {WINHTTP_CALLBACK_STATUS_FLAG_CERT_CN_INVALID, "certificate does not name the host"},
        {WINHTTP_CALLBACK_STATUS_FLAG_CERT_DATE_INVALID, "certificate expired or not yet valid"},
        {WINHTTP_CALLBACK_STATUS_FLAG_CERT_WRONG_USAGE,
         "certificate not for server authentication"},
        {WINHTTP_CALLBACK_STATUS_FLAG_SECURITY_CHANNEL_ERROR, "TLS error"},
    };
    std::string text;
    for (const Flag& flag : kFlags) {
        if (flags & flag.bit) text += (text.empty() ? "" : ", ") + std::string(flag.text);
    }
    return text;
}

bool IsTlsError(DWORD error) {
    switch (error) {
        case ERROR_WINHTTP_SECURE_FAILURE:
        case ERROR_WINHTTP_SECURE_CHANNEL_ERROR:
        case ERROR_WINHTTP_SECURE_CERT_DATE_INVALID:
        case ERROR_WINHTTP_SECURE_CERT_CN_INVALID:
        case ERROR_WINHTTP_SECURE_INVALID_CA:
        case ERROR_WINHTTP_SECURE_INVALID_CERT:
        case ERROR_WINHTTP_SECURE_CERT_REVOKED:
        case ERROR_WINHTTP_SECURE_CERT_REV_FAILED:
        case ERROR_WINHTTP_SECURE_CERT_WRONG_USAGE:
            return true;
        default:
            return false;
    }
}

// A failure of WinHttpSendRequest or WinHttpReceiveResponse.
TransferOutcome RequestFailed(const char* step, DWORD error, DWORD secureFailures = 0) {
    if (IsTlsError(error) || secureFailures != 0) {
        std::string reason = std::string(step) + ": " + ErrorText(error);
        if (secureFailures != 0) reason += ": " + SecureFailureText(secureFailures);
        return Outcome(KESCLIENT_HTTP_CERTIFICATE_ERROR, NextStep::kNextRoute, reason);
    }
    if (error == ERROR_WINHTTP_REDIRECT_FAILED) {
        return Outcome(KESCLIENT_TRANSFER_INVALID_URI_ERROR, NextStep::kNextMirror,
                       std::string(step) + ": redirect refused");
    }
    return Outcome(KESCLIENT_DOWNLOAD_FAILED, NextStep::kNextRoute,
                   std::string(step) + ": " + ErrorText(error));
}

// index: which of the header's occurrences (WinHTTP moves it on to the next one); none: the first.
bool QueryHeader(HINTERNET request, DWORD info, std::string* value,
                 DWORD* index = WINHTTP_NO_HEADER_INDEX) {
    value->clear();
    DWORD size = 0;
    ::WinHttpQueryHeaders(request, info, WINHTTP_HEADER_NAME_BY_INDEX, WINHTTP_NO_OUTPUT_BUFFER,
                          &size, index);
    if (::GetLastError() != ERROR_INSUFFICIENT_BUFFER || size == 0 || size > 64 * 1024)
        return false;
    std::wstring buffer(size / sizeof(wchar_t) + 1, L'\0');
    if (!::WinHttpQueryHeaders(request, info, WINHTTP_HEADER_NAME_BY_INDEX, buffer.data(), &size,
                               index)) {
        return false;
    }
    buffer.resize(size / sizeof(wchar_t));
    *value = Utf8FromWide(buffer);
    return true;
}

// The body's length from every Content-Length of the answer (WinHTTP reports the first): copies
// that disagree, or do not parse, leave the end of the body unknown. *text: the one refused.
bool BodyLength(HINTERNET request, std::optional<std::uint64_t>* length, std::string* text) {
    DWORD index = 0;
    for (int copies = 0;
         copies < 8 && QueryHeader(request, WINHTTP_QUERY_CONTENT_LENGTH, text, &index); ++copies) {
        const auto value = ParseContentLength(*text);
        if (!value || (*length && **length != *value)) return false;
        *length = value;
    }
    return true;
}

// A range continues our bytes only from the version they came from: a server that ignores
// If-Range answers with another version's range. An answer that names no version is taken at its
// word (a 206 need not repeat Last-Modified).
bool SameVersion(HINTERNET request, const std::string& validator) {
    std::string etag, lastModified;
    QueryHeader(request, WINHTTP_QUERY_ETAG, &etag);
    QueryHeader(request, WINHTTP_QUERY_LAST_MODIFIED, &lastModified);
    const std::string& named = etag.empty() ? lastModified : etag;
    return named.empty() || named == validator;
}

DWORD StatusCode(HINTERNET request) {
    DWORD status = 0;
    DWORD size = sizeof(status);
    if (!::WinHttpQueryHeaders(request, WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER,
                               WINHTTP_HEADER_NAME_BY_INDEX, &status, &size,
                               WINHTTP_NO_HEADER_INDEX)) {
        return 0;
    }
    return status;
}

bool IsRedirect(DWORD status) {
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

UniqueInternet OpenSession(const Route& route, const RunContext& run) {
    std::wstring proxy;
    WideFromUtf8(route.proxy, &proxy);
    // A named proxy per session: WinHTTP does not fail over between the entries of a list, so
    // each route is a session of its own and the caller walks the list.
    UniqueInternet session(::WinHttpOpen(
        kUserAgent, route.direct ? WINHTTP_ACCESS_TYPE_NO_PROXY : WINHTTP_ACCESS_TYPE_NAMED_PROXY,
        route.direct ? WINHTTP_NO_PROXY_NAME : proxy.c_str(), WINHTTP_NO_PROXY_BYPASS, 0));
    if (!session) return session;
    const int connect = static_cast<int>(run.RemainingMs(run.settings.connectTimeoutMs));
    const int stall = static_cast<int>(run.RemainingMs(run.settings.stallTimeoutMs));
    ::WinHttpSetTimeouts(session.get(), connect, connect, stall, stall);
    // The wait for the answer's headers has a timeout of its own (90 s), which a server that
    // accepts the request and says nothing would otherwise get.
    DWORD headers = static_cast<DWORD>(stall);
    ::WinHttpSetOption(session.get(), WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT, &headers,
                       sizeof(headers));
    DWORD protocols = WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2 | WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_3;
    if (!::WinHttpSetOption(session.get(), WINHTTP_OPTION_SECURE_PROTOCOLS, &protocols,
                            sizeof(protocols))) {
        protocols = WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2;  // systems that do not know TLS 1.3
        ::WinHttpSetOption(session.get(), WINHTTP_OPTION_SECURE_PROTOCOLS, &protocols,
                           sizeof(protocols));
    }
    return session;
}

// Counts and reports the bytes of one answer.
class Progress {
public:
    Progress(const std::string& id, std::uint64_t start, std::optional<std::uint64_t> total)
        : id_(id), start_(start), total_(total), began_(Clock::now()) {
        if (total_ && *total_ > 0) nextDecile_ = static_cast<int>(start * 10 / *total_) + 1;
    }

    void Report(std::uint64_t position) {
        if (!total_ || *total_ == 0) return;
        const int decile = static_cast<int>(position * 10 / *total_);
        if (decile < nextDecile_) return;
        nextDecile_ = decile + 1;
        Log(kLogInfo, "kesclient: [%s] %d%% (%s of %s bytes, %s MiB/s)", id_.c_str(), decile * 10,
            Decimal(position).c_str(), Decimal(*total_).c_str(),
            Rate(position - start_, Clock::now() - began_).c_str());
    }

    void Summary(std::uint64_t position) const {
        const auto elapsed = Clock::now() - began_;
        Log(kLogInfo, "kesclient: [%s] received %s bytes in %s s (%s MiB/s)", id_.c_str(),
            Decimal(position - start_).c_str(), OneDecimal(Seconds(elapsed)).c_str(),
            Rate(position - start_, elapsed).c_str());
    }

private:
    const std::string& id_;
    std::uint64_t start_;
    std::optional<std::uint64_t> total_;
    Clock::time_point began_;
    int nextDecile_ = 11;
};

struct Answer {
    UniqueInternet connection;
    UniqueInternet request;
    DWORD status = 0;
    bool ranged = false;  // a Range was asked for
};

// Redirects are ours to follow: WinHTTP would follow them without our trust check. False when the
// trust's ignored failures cannot be set.
bool SetRequestOptions(HINTERNET request, const ServerTrust& trust) {
    DWORD features = WINHTTP_DISABLE_REDIRECTS | WINHTTP_DISABLE_COOKIES;
    ::WinHttpSetOption(request, WINHTTP_OPTION_DISABLE_FEATURE, &features, sizeof(features));
    DWORD ignored = trust.IgnoredFailures();
    return ignored == 0 ||
           ::WinHttpSetOption(request, WINHTTP_OPTION_SECURITY_FLAGS, &ignored, sizeof(ignored));
}

// Sends the GET for target.url, following redirects hop by hop, each hop checked like the first.
TransferOutcome Request(const TransferTarget& target, HINTERNET session, std::uint64_t offset,
                        const std::string& validator, Answer* answer) {
    std::string location = target.url;
    for (int hop = 0;; ++hop) {
        std::string why;
        const auto url = ParseHttpsUrl(location, &why);
        if (!url) {
            return Outcome(KESCLIENT_TRANSFER_INVALID_URI_ERROR, NextStep::kNextMirror,
                           (hop == 0 ? "refused location " : "refused redirect to ") +
                               UrlForLog(location) + ": " + why);
        }
        std::wstring host, path;
        WideFromUtf8(url->host, &host);
        WideFromUtf8(url->pathAndQuery, &path);
        answer->connection.reset(::WinHttpConnect(session, host.c_str(), url->port, 0));
        if (!answer->connection) return RequestFailed("connect", ::GetLastError());
        answer->request.reset(::WinHttpOpenRequest(
            answer->connection.get(), L"GET", path.c_str(), nullptr, WINHTTP_NO_REFERER,
            WINHTTP_DEFAULT_ACCEPT_TYPES, WINHTTP_FLAG_SECURE | WINHTTP_FLAG_REFRESH));
        HINTERNET request = answer->request.get();
        if (!request) return RequestFailed("open request", ::GetLastError());

        if (!SetRequestOptions(request, *target.trust)) {
            return RequestFailed("set security flags", ::GetLastError());
        }
        RequestWatch watch;
        watch.trust = target.trust;
        watch.host = url->host;
        ::WinHttpSetStatusCallback(
            request, OnStatus,
            WINHTTP_CALLBACK_FLAG_SECURE_FAILURE | WINHTTP_CALLBACK_FLAG_SEND_REQUEST, 0);

        std::string headers = "Accept-Encoding: identity\r\n";
        answer->ranged = offset > 0 && !validator.empty();
        if (answer->ranged) {
            headers += "Range: bytes=" + Decimal(offset) + "-\r\nIf-Range: " + validator + "\r\n";
        }
        std::wstring wideHeaders;
        WideFromUtf8(headers, &wideHeaders);
        const BOOL sent = ::WinHttpSendRequest(
            request, wideHeaders.c_str(), static_cast<DWORD>(wideHeaders.size()),
            WINHTTP_NO_REQUEST_DATA, 0, 0, reinterpret_cast<DWORD_PTR>(&watch));
        const DWORD error = ::GetLastError();
        if (watch.closed) {
            answer->request.release();  // the callback closed it
            return Outcome(watch.verdict, NextStep::kNextRoute,
                           watch.why + " (checked before sending)");
        }
        if (!sent) return RequestFailed("send", error, watch.secureFailures);
        // In any case the verdict on the server comes before a single byte of its answer is read.
        if (!watch.checked) {
            const KesClientResult trusted = target.trust->CheckServer(request, url->host, &why);
            if (trusted != KESCLIENT_SUCCESS) return Outcome(trusted, NextStep::kNextRoute, why);
        }
        if (!::WinHttpReceiveResponse(request, nullptr)) {
            return RequestFailed("receive", ::GetLastError(), watch.secureFailures);
        }

        answer->status = StatusCode(request);
        if (!IsRedirect(answer->status)) return Outcome(KESCLIENT_SUCCESS, NextStep::kDone, "");
        if (hop == kMaxRedirects) {
            return Outcome(KESCLIENT_DOWNLOAD_FAILED, NextStep::kNextMirror, "too many redirects");
        }
        std::string value;
        QueryHeader(request, WINHTTP_QUERY_LOCATION, &value);
        const auto next = ResolveLocation(*url, value);
        if (!next) {
            return Outcome(
                KESCLIENT_TRANSFER_INVALID_URI_ERROR, NextStep::kNextMirror,
                "redirect " + std::to_string(answer->status) + " without a usable location");
        }
        Log(kLogInfo, "kesclient: [%s] %d redirect to %s", target.id.c_str(),
            static_cast<int>(answer->status), UrlForLog(*next).c_str());
        location = *next;
    }
}

// Sends the request, with a range when the partial file has bytes and a validator, and settles
// what the server makes of it. A second pass only when the server refuses the range we asked for:
// start over without it. Success: answer holds a 200 for the whole file (the partial file emptied)
// or a 206 that continues it.
TransferOutcome NegotiateRange(const TransferTarget& target, HINTERNET session,
                               PartialFile& partial, Answer* answer) {
    std::string why;
    for (int pass = 0;; ++pass) {
        TransferOutcome sent =
            Request(target, session, partial.size(), partial.validator(), answer);
        if (sent.code != KESCLIENT_SUCCESS) return sent;
        const bool restart =
            answer->ranged && (answer->status == 416 || answer->status == 206) && pass == 0;
        if (answer->status == 206 && answer->ranged) {
            std::string text;
            QueryHeader(answer->request.get(), WINHTTP_QUERY_CONTENT_RANGE, &text);
            // Only a range that continues where the file stops and names the file's length: a
            // shorter one could pass for the end of the file.
            const auto range = ParseContentRange(text);
            const bool same = SameVersion(answer->request.get(), partial.validator());
            if (range && range->first == partial.size() && range->complete && same) break;
            if (same) {
                Log(kLogWarning,
                    "kesclient: [%s] range answer \"%s\" does not continue at byte %s; starting "
                    "over",
                    target.id.c_str(), text.c_str(), Decimal(partial.size()).c_str());
            } else {
                Log(kLogWarning,
                    "kesclient: [%s] range answer is from another version than %s; starting over",
                    target.id.c_str(), partial.validator().c_str());
            }
        } else if (answer->status == 416 && answer->ranged) {
            Log(kLogWarning, "kesclient: [%s] server refused to resume; starting over",
                target.id.c_str());
        } else {
            break;
        }
        if (!restart)
            return Outcome(KESCLIENT_DOWNLOAD_FAILED, NextStep::kNextMirror,
                           "server cannot resume");
        if (!partial.Restart(&why)) return Outcome(KESCLIENT_DOWNLOAD_FAILED, NextStep::kStop, why);
    }

    if (answer->status == 206 && !answer->ranged) {
        return Outcome(KESCLIENT_DOWNLOAD_FAILED, NextStep::kNextMirror,
                       "partial answer to a request for the whole file");
    }
    if (answer->status != 200 && answer->status != 206) {
        return Outcome(KESCLIENT_DOWNLOAD_FAILED, NextStep::kNextMirror,
                       "HTTP status " + std::to_string(answer->status));
    }
    if (answer->status == 200 && partial.size() > 0) {
        Log(kLogInfo,
            "kesclient: [%s] server sent the whole file (changed or no range support); starting "
            "over",
            target.id.c_str());
        if (!partial.Restart(&why)) return Outcome(KESCLIENT_DOWNLOAD_FAILED, NextStep::kStop, why);
    }
    return Outcome(KESCLIENT_SUCCESS, NextStep::kDone, "");
}

struct BodyLengths {
    std::optional<std::uint64_t> total;  // the whole file's length, when the answer names it
    std::optional<std::uint64_t> limit;  // the most bytes the file may have
};

// How long the body is: Content-Length parsed as 64-bit text (the numeric query stops at
// 2^31-1), and for a range the length of the whole file from Content-Range; both checked against
// each other and against the size the caller expects.
TransferOutcome CheckLengths(const TransferTarget& target, PartialFile& partial,
                             const Answer& answer, BodyLengths* lengths) {
    HINTERNET request = answer.request.get();
    std::string text;
    std::optional<std::uint64_t> bodyLength;
    if (!BodyLength(request, &bodyLength, &text)) {
        return Outcome(KESCLIENT_DOWNLOAD_FAILED, NextStep::kNextMirror,
                       "malformed or conflicting Content-Length \"" + text + "\"");
    }
    std::optional<std::uint64_t>& total = lengths->total;
    if (answer.status == 206) {
        QueryHeader(request, WINHTTP_QUERY_CONTENT_RANGE, &text);
        const auto range = ParseContentRange(text);
        if (bodyLength && *bodyLength != range->length()) {
            return Outcome(KESCLIENT_DOWNLOAD_FAILED, NextStep::kNextMirror,
                           "Content-Length disagrees with Content-Range");
        }
        bodyLength = range->length();
        total = range->complete;
        if (range->last + 1 != *total) {
            return Outcome(KESCLIENT_DOWNLOAD_FAILED, NextStep::kNextMirror,
                           "range answer stops before the end");
        }
    } else if (bodyLength) {
        total = *bodyLength;
    }
    if (target.expectedSize && total && *total != *target.expectedSize) {
        partial.Discard();
        return Outcome(KESCLIENT_WRONG_SIZE_ERROR, NextStep::kNextMirror,
                       "server announces " + Decimal(*total) + " bytes, expected " +
                           Decimal(*target.expectedSize));
    }
    lengths->limit = total ? total : target.expectedSize;
    if (bodyLength && *bodyLength > kWinHttpAnswerCap) {
        // A body cut at the cap leaves its rest unread on the connection: never pool it.
        DWORD features = WINHTTP_DISABLE_KEEP_ALIVE;
        ::WinHttpSetOption(request, WINHTTP_OPTION_DISABLE_FEATURE, &features, sizeof(features));
    }
    return Outcome(KESCLIENT_SUCCESS, NextStep::kDone, "");
}

// Wine's WinHTTP returns from a read only once the buffer is full or the body ends. While data
// flows (the receive buffer holds a good part of its 8 KiB), one large read keeps the calls few; a
// trickle is read as it comes, or a server sending a byte now and then would hold the run past its
// time limit. A read that times out loses what it gathered; a resume fetches it again.
bool ReadSome(HINTERNET request, std::uint8_t* into, std::size_t room, DWORD* read) {
    DWORD available = 0;
    if (!::WinHttpQueryDataAvailable(request, &available)) return false;
    const std::size_t wanted =
        available >= kFlowingBytes ? room : std::min<std::size_t>(available, room);
    return ::WinHttpReadData(request, into, static_cast<DWORD>(wanted), read) != FALSE;
}

std::string ReadFailure(DWORD error, const RunContext& run) {
    // Wine reports the receive timeout as the socket's WSAETIMEDOUT.
    const bool stalled = error == ERROR_WINHTTP_TIMEOUT || error == WSAETIMEDOUT;
    return stalled ? "no data for " + Decimal(run.settings.stallTimeoutMs / 1000) + " s (stalled)"
                   : "connection lost: " + ErrorText(error);
}

// The body. Reads fill one half of the run's buffer; a full half goes to the background writer
// (hash, then disk) while the network fills the other one. Not one byte past limit is kept.
// Returns with the writer drained: the partial file is the caller's again. *diskFailed: writing
// failed, so the partial file's state is not worth remembering.
TransferOutcome ReceiveBody(HINTERNET request, PartialFile& partial, RunContext& run,
                            std::optional<std::uint64_t> limit, Progress& progress,
                            bool* diskFailed) {
    const std::size_t half = run.buffer.size() / 2;
    std::uint64_t position = partial.size();  // bytes received so far, written or not
    std::size_t filled = 0;
    std::string why;
    BackgroundWriter writer(partial, run.buffer.data(), run.buffer.data() + half, half);
    // Every way out of the loop waits for the writer first: the partial file is its alone.
    auto settle = [&](KesClientResult code, NextStep next, std::string reason) {
        const bool written = writer.Submit(filled) && writer.Drain(&why);
        filled = 0;
        *diskFailed = !written;
        if (!written) return Outcome(KESCLIENT_DOWNLOAD_FAILED, NextStep::kStop, why);
        return Outcome(code, next, std::move(reason));
    };
    for (;;) {
        if (run.TimeUp()) {
            return settle(KESCLIENT_DOWNLOAD_FAILED, NextStep::kStop,
                          "time limit of the run reached");
        }
        DWORD read = 0;
        if (!ReadSome(request, writer.buffer() + filled, half - filled, &read)) {
            const DWORD error = ::GetLastError();
            return settle(KESCLIENT_DOWNLOAD_FAILED, NextStep::kNextMirror,
                          ReadFailure(error, run));
        }
        if (read == 0) return settle(KESCLIENT_SUCCESS, NextStep::kDone, "");
        position += read;
        if (limit && position > *limit) {
            filled = 0;  // not one byte past the limit is kept
            return settle(KESCLIENT_WRONG_SIZE_ERROR, NextStep::kNextMirror,
                          "more bytes than the " + Decimal(*limit) + " expected");
        }
        filled += read;
        if (filled == half) {
            if (!writer.Submit(filled)) {
                filled = 0;
                return settle(KESCLIENT_DOWNLOAD_FAILED, NextStep::kStop, "");
            }
            filled = 0;
        }
        progress.Report(position);
    }
}

// One answer: from the partial file's end (or from the start) to the end of the file or of what
// WinHTTP delivers. *cut: WinHTTP ended the body at its cap and the rest can be asked for.
TransferOutcome TransferAnswer(const TransferTarget& target, PartialFile& partial, RunContext& run,
                               bool* cut) {
    *cut = false;
    UniqueInternet session = OpenSession(target.route, run);
    if (!session) return RequestFailed("open session", ::GetLastError());

    Answer answer;
    const TransferOutcome negotiated = NegotiateRange(target, session.get(), partial, &answer);
    if (negotiated.code != KESCLIENT_SUCCESS) return negotiated;
    HINTERNET request = answer.request.get();
    const std::uint64_t start = partial.size();
    BodyLengths lengths;
    const TransferOutcome checked = CheckLengths(target, partial, answer, &lengths);
    if (checked.code != KESCLIENT_SUCCESS) return checked;
    const std::optional<std::uint64_t>& total = lengths.total;
    const std::optional<std::uint64_t>& limit = lengths.limit;

    std::string etag, lastModified;
    QueryHeader(request, WINHTTP_QUERY_ETAG, &etag);
    QueryHeader(request, WINHTTP_QUERY_LAST_MODIFIED, &lastModified);
    const std::string validator =
        answer.status == 206 ? partial.validator() : ChooseResumeValidator(etag, lastModified);
    partial.Remember(target.url, validator, total.value_or(0));

    Progress progress(target.id, start, limit);
    bool diskFailed = false;
    const TransferOutcome outcome =
        ReceiveBody(request, partial, run, limit, progress, &diskFailed);
    if (outcome.next != NextStep::kDone) {
        if (outcome.code == KESCLIENT_WRONG_SIZE_ERROR) {
            partial.Discard();
        } else if (!diskFailed) {
            partial.Remember(target.url, validator,
                             total.value_or(0));  // what the next run resumes from
        }
        return outcome;
    }
    progress.Summary(partial.size());

    // A connection that drops reads as a clean end; only the count tells.
    if (limit && partial.size() < *limit) {
        partial.Remember(target.url, validator, total.value_or(0));
        *cut = partial.size() - start == kWinHttpAnswerCap && !partial.validator().empty();
        return Outcome(
            KESCLIENT_DOWNLOAD_FAILED, NextStep::kNextMirror,
            "incomplete: " + Decimal(partial.size()) + " of " + Decimal(*limit) + " bytes");
    }
    return Outcome(KESCLIENT_SUCCESS, NextStep::kDone, "");
}

}  // namespace

TransferOutcome Transfer(const TransferTarget& target, PartialFile& partial, RunContext& run) {
    for (int answers = 1;; ++answers) {
        const std::uint64_t before = partial.size();
        bool cut = false;
        TransferOutcome outcome = TransferAnswer(target, partial, run, &cut);
        // Only while the file grows: a server that answers the rest with the whole file again
        // would start over at every turn.
        if (!cut || partial.size() <= before || answers == kMaxAnswers) return outcome;
        Log(kLogInfo,
            "kesclient: [%s] WinHTTP ended the answer after %s bytes; asking for the rest",
            target.id.c_str(), Decimal(kWinHttpAnswerCap).c_str());
    }
}

std::vector<Route> RoutesFromPac(const std::string& pacUrl, const std::string& url,
                                 const RunContext& run, std::vector<std::string>* skipped,
                                 std::string* why) {
    std::wstring widePac, wideUrl;
    if (!WideFromUtf8(pacUrl, &widePac) || !WideFromUtf8(url, &wideUrl)) {
        *why = "PAC or download location is not UTF-8";
        return {};
    }
    UniqueInternet session = OpenSession(Route{}, run);
    if (!session) {
        *why = "cannot open a session: " + ErrorText(::GetLastError());
        return {};
    }
    WINHTTP_AUTOPROXY_OPTIONS options{};
    options.dwFlags = WINHTTP_AUTOPROXY_CONFIG_URL;
    options.lpszAutoConfigUrl = widePac.c_str();
    options.fAutoLogonIfChallenged = FALSE;
    WINHTTP_PROXY_INFO info{};
    if (!::WinHttpGetProxyForUrl(session.get(), wideUrl.c_str(), &options, &info)) {
        *why = "PAC script " + pacUrl + " gave no answer: " + ErrorText(::GetLastError());
        return {};
    }
    const std::string proxies = info.lpszProxy ? Utf8FromWide(info.lpszProxy) : std::string();
    if (info.lpszProxy) ::GlobalFree(info.lpszProxy);
    if (info.lpszProxyBypass) ::GlobalFree(info.lpszProxyBypass);
    Log(kLogDebug, "kesclient: PAC answer for %s: %s", UrlForLog(url).c_str(),
        proxies.empty() ? "DIRECT" : proxies.c_str());
    if (info.dwAccessType == WINHTTP_ACCESS_TYPE_NO_PROXY || proxies.empty())
        return {Route{true, "", "PAC"}};
    return ParsePacAnswer(proxies, skipped);
}

}  // namespace kesclient
