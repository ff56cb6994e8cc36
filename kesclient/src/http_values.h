#pragma once
// Values of the response headers the transfer relies on. A server's text is untrusted: every parser
// here refuses what it does not fully understand. Portable: unit-tested natively.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kesclient {

// Content-Length as 64-bit decimal text. WinHTTP's numeric query caps values at 2^31-1, so the
// raw text is parsed here. Refuses signs, lists ("5, 5"), blanks inside and overflow.
std::optional<std::uint64_t> ParseContentLength(std::string_view text);

// "bytes first-last/complete" or "bytes first-last/*" of a 206 answer.
struct ContentRange {
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    std::optional<std::uint64_t> complete;  // absent for "*"

    std::uint64_t length() const { return last - first + 1; }
};
std::optional<ContentRange> ParseContentRange(std::string_view text);

// A quoted entity tag without the weak prefix "W/".
bool IsStrongEntityTag(std::string_view text);

// True for text that may be sent back in a request header: printable ASCII, bounded length.
bool IsSafeHeaderValue(std::string_view text);

// The validator to resume with (If-Range): the strong ETag, else Last-Modified, else "" (do not
// resume: without a validator a changed file would be spliced onto the old bytes).
std::string ChooseResumeValidator(std::string_view etag, std::string_view lastModified);

}  // namespace kesclient
