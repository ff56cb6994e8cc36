#pragma once
// Download locations: only https, parsed strictly before WinHTTP sees them, and redirect targets
// resolved against the location that answered. Portable: unit-tested natively.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kesclient {

struct HttpsUrl {
    std::string host;  // lower case; IPv6 literals keep their brackets
    std::uint16_t port = 443;
    std::string pathAndQuery;  // starts with '/'; the fragment is dropped

    std::string ToString() const;  // canonical form, the port only when not 443
};

// Refuses every scheme but https (any case), user information, blanks, control characters,
// backslashes and non-ASCII text (percent-encode it), a missing host and bad ports. On refusal,
// *why (when given) says why in a few words.
std::optional<HttpsUrl> ParseHttpsUrl(std::string_view text, std::string* why = nullptr);

// The absolute location a redirect's Location value points to from base, or nullopt when the value
// is unusable. The result is not checked for https: ParseHttpsUrl decides that.
std::optional<std::string> ResolveLocation(const HttpsUrl& base, std::string_view location);

// RFC 3986 remove_dot_segments on an absolute path.
std::string RemoveDotSegments(std::string_view path);

// The location as the log shows it: without its query, which may carry access tokens.
std::string UrlForLog(std::string_view url);

// The local file name a location names: the text after its last slash or backslash, the way the
// tool derives the package path it records, so that both sides agree on it.
std::string FileNameFromUrl(std::string_view url);

}  // namespace kesclient
