#include "http_values.h"

#include <limits>

namespace kesclient {
namespace {

constexpr std::size_t kMaxValidatorLength = 256;

std::string_view TrimWhitespace(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
    return text;
}

// Digits only, at least one, no overflow.
std::optional<std::uint64_t> ParseDecimal(std::string_view digits) {
    if (digits.empty()) return std::nullopt;
    std::uint64_t value = 0;
    for (const char c : digits) {
        if (c < '0' || c > '9') return std::nullopt;
        const auto digit = static_cast<std::uint64_t>(c - '0');
        if (value > (std::numeric_limits<std::uint64_t>::max() - digit) / 10) return std::nullopt;
        value = value * 10 + digit;
    }
    return value;
}

}  // namespace

std::optional<std::uint64_t> ParseContentLength(std::string_view text) {
    return ParseDecimal(TrimWhitespace(text));
}

std::optional<ContentRange> ParseContentRange(std::string_view text) {
    text = TrimWhitespace(text);
    constexpr std::string_view kUnit = "bytes ";
    if (text.size() < kUnit.size()) return std::nullopt;
    for (std::size_t i = 0; i < kUnit.size(); ++i) {
        const char c = text[i];
        const char lower = (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
        if (lower != kUnit[i]) return std::nullopt;
    }
    text.remove_prefix(kUnit.size());
    const std::size_t dash = text.find('-');
    const std::size_t slash = text.find('/');
    if (dash == std::string_view::npos || slash == std::string_view::npos || slash < dash) {
        return std::nullopt;
    }
    const auto first = ParseDecimal(text.substr(0, dash));
    const auto last = ParseDecimal(text.substr(dash + 1, slash - dash - 1));
    if (!first || !last || *first > *last) return std::nullopt;
    ContentRange range{*first, *last, std::nullopt};
    const std::string_view complete = text.substr(slash + 1);
    if (complete != "*") {
        range.complete = ParseDecimal(complete);
        if (!range.complete || *last >= *range.complete) return std::nullopt;
    }
    return range;
}

bool IsStrongEntityTag(std::string_view text) {
    if (text.size() < 2 || text.size() > kMaxValidatorLength) return false;
    if (text.front() != '"' || text.back() != '"') return false;
    for (const char c : text.substr(1, text.size() - 2)) {
        const auto byte = static_cast<unsigned char>(c);
        // etagc: %x21 / %x23-7E. Non-ASCII is allowed by the grammar but refused here: the value is
        // sent back in a header, and only ASCII survives every layer unchanged.
        if (byte != 0x21 && (byte < 0x23 || byte > 0x7E)) return false;
    }
    return true;
}

bool IsSafeHeaderValue(std::string_view text) {
    if (text.empty() || text.size() > kMaxValidatorLength) return false;
    for (const char c : text) {
        if (c < 0x20 || c > 0x7E) return false;
    }
    return true;
}

std::string ChooseResumeValidator(std::string_view etag, std::string_view lastModified) {
    etag = TrimWhitespace(etag);
    lastModified = TrimWhitespace(lastModified);
    if (IsStrongEntityTag(etag)) return std::string(etag);
    if (etag.empty() && IsSafeHeaderValue(lastModified)) return std::string(lastModified);
    return {};
}

}  // namespace kesclient
