#include "http_values.h"

#include "ascii_text.h"

namespace kesclient {
namespace {

constexpr std::size_t kMaxValidatorLength = 256;

}  // namespace

std::optional<std::uint64_t> ParseContentLength(std::string_view text) {
    return ParseDecimal(Trim(text, kHeaderBlanks));
}

std::optional<ContentRange> ParseContentRange(std::string_view text) {
    text = Trim(text, kHeaderBlanks);
    constexpr std::string_view kUnit = "bytes ";
    if (!StartsWithNoCase(text, kUnit)) return std::nullopt;
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
    etag = Trim(etag, kHeaderBlanks);
    lastModified = Trim(lastModified, kHeaderBlanks);
    if (IsStrongEntityTag(etag)) return std::string(etag);
    if (etag.empty() && IsSafeHeaderValue(lastModified)) return std::string(lastModified);
    return {};
}

}  // namespace kesclient
