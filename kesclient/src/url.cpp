#include "url.h"

#include "ascii_text.h"

namespace kesclient {
namespace {

constexpr std::size_t kMaxUrlLength = 8192;

bool IsAlpha(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

bool SetWhy(std::string* why, const char* text) {
    if (why) *why = text;
    return false;
}

std::nullopt_t Refuse(std::string* why, const char* text) {
    SetWhy(why, text);
    return std::nullopt;
}

// The scheme of an absolute reference ("https:" of "https://x"), or empty for a relative one.
std::string_view SchemeOf(std::string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == ':') return i == 0 ? std::string_view{} : text.substr(0, i);
        const bool schemeChar =
            IsAlpha(c) || (i > 0 && (IsDigit(c) || c == '+' || c == '-' || c == '.'));
        if (!schemeChar) return {};
    }
    return {};
}

bool ParseHost(std::string_view host, std::string* why) {
    if (host.empty()) return SetWhy(why, "no host");
    if (host.front() == '[') {
        if (host.size() < 3 || host.back() != ']') return SetWhy(why, "bad IPv6 literal");
        for (const char c : host.substr(1, host.size() - 2)) {
            const bool ok = IsDigit(c) || (LowerAscii(c) >= 'a' && LowerAscii(c) <= 'f') ||
                            c == ':' || c == '.';
            if (!ok) return SetWhy(why, "bad IPv6 literal");
        }
        return true;
    }
    for (const char c : host) {
        if (!(IsAlpha(c) || IsDigit(c) || c == '-' || c == '.' || c == '_')) {
            return SetWhy(why, "bad character in host");
        }
    }
    return true;
}

}  // namespace

std::string HttpsUrl::ToString() const {
    std::string text = "https://";
    text += host;
    if (port != 443) {
        text += ':';
        text += std::to_string(port);
    }
    text += pathAndQuery;
    return text;
}

std::optional<HttpsUrl> ParseHttpsUrl(std::string_view text, std::string* why) {
    if (text.empty()) return Refuse(why, "empty");
    if (text.size() > kMaxUrlLength) return Refuse(why, "too long");
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte <= 0x20 || byte >= 0x7F) {
            return Refuse(why, "blank, control or non-ASCII character");
        }
        if (c == '\\') return Refuse(why, "backslash");
    }
    const std::string_view scheme = SchemeOf(text);
    if (scheme.empty()) return Refuse(why, "no scheme");
    if (!EqualsNoCase(scheme, "https")) return Refuse(why, "not https");
    std::string_view rest = text.substr(scheme.size() + 1);
    if (!rest.starts_with("//")) return Refuse(why, "no authority");
    rest.remove_prefix(2);

    const std::size_t authorityEnd = rest.find_first_of("/?#");
    const std::string_view authority = rest.substr(0, authorityEnd);
    std::string_view tail =
        authorityEnd == std::string_view::npos ? std::string_view{} : rest.substr(authorityEnd);
    if (authority.find('@') != std::string_view::npos) {
        return Refuse(why, "user information in URL");
    }

    HttpsUrl url;
    std::string_view host = authority;
    const std::size_t closing = authority.rfind(']');
    const std::size_t colon = authority.rfind(':');
    if (colon != std::string_view::npos && (closing == std::string_view::npos || colon > closing)) {
        host = authority.substr(0, colon);
        const std::string_view port = authority.substr(colon + 1);
        const auto value = port.size() <= 5 ? ParseDecimal(port, 65535) : std::nullopt;
        if (!value || *value == 0) return Refuse(why, "bad port");
        url.port = static_cast<std::uint16_t>(*value);
    }
    if (!ParseHost(host, why)) return std::nullopt;
    url.host = LowerAscii(host);

    const std::size_t fragment = tail.find('#');
    if (fragment != std::string_view::npos) tail = tail.substr(0, fragment);
    url.pathAndQuery =
        tail.empty() || tail.front() == '?' ? "/" + std::string(tail) : std::string(tail);
    return url;
}

std::string RemoveDotSegments(std::string_view path) {
    std::string output;
    while (!path.empty()) {
        if (path.starts_with("../")) {
            path.remove_prefix(3);
        } else if (path.starts_with("./")) {
            path.remove_prefix(2);
        } else if (path.starts_with("/./")) {
            path.remove_prefix(2);
        } else if (path == "/.") {
            path = "/";
        } else if (path.starts_with("/../") || path == "/..") {
            path = path.size() == 3 ? std::string_view("/") : path.substr(3);
            const std::size_t last = output.rfind('/');
            output.erase(last == std::string::npos ? 0 : last);
        } else if (path == "." || path == "..") {
            path = {};
        } else {
            const std::size_t next = path.find('/', path.front() == '/' ? 1 : 0);
            const std::string_view segment = path.substr(0, next);
            output.append(segment);
            path.remove_prefix(segment.size());
        }
    }
    return output;
}

std::optional<std::string> ResolveLocation(const HttpsUrl& base, std::string_view location) {
    location = Trim(location, kHeaderBlanks);
    if (location.empty() || location.size() > kMaxUrlLength) return std::nullopt;
    for (const char c : location) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F) return std::nullopt;
    }
    if (!SchemeOf(location).empty()) return std::string(location);
    const std::string origin = HttpsUrl{base.host, base.port, ""}.ToString();
    if (location.starts_with("//")) return "https:" + std::string(location);

    const std::size_t queryStart = base.pathAndQuery.find('?');
    const std::string basePath = base.pathAndQuery.substr(0, queryStart);
    if (location.front() == '?') return origin + basePath + std::string(location);
    if (location.front() == '#') return origin + base.pathAndQuery;

    const std::size_t split = location.find_first_of("?#");
    const std::string_view path = location.substr(0, split);
    const std::string_view suffix =
        split == std::string_view::npos ? std::string_view{} : location.substr(split);
    std::string merged;
    if (path.front() == '/') {
        merged = std::string(path);
    } else {
        merged = basePath.substr(0, basePath.rfind('/') + 1) + std::string(path);
    }
    return origin + RemoveDotSegments(merged) + std::string(suffix);
}

std::string UrlForLog(std::string_view url) {
    const std::size_t query = url.find_first_of("?#");
    if (query == std::string_view::npos) return std::string(url);
    return std::string(url.substr(0, query)) + (url[query] == '?' ? "?..." : "");
}

std::string FileNameFromUrl(std::string_view url) {
    const std::size_t last = url.find_last_of("/\\");
    return std::string(last == std::string_view::npos ? url : url.substr(last + 1));
}

}  // namespace kesclient
