// Response header values the content client acts on (Content-Range, ETag and Last-Modified): a
// server, or anything between it and us, writes them. Content-Length is the decimal parser of
// ascii_text_fuzz.cpp between blanks.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_check.h"
#include "http_values.h"

namespace {

using namespace kesclient;

void CheckContentRange(std::string_view text) {
    const auto range = ParseContentRange(text);
    if (!range) return;
    FUZZ_CHECK(range->first <= range->last);
    FUZZ_CHECK(range->length() >= 1);
    if (range->complete) FUZZ_CHECK(range->last < *range->complete);
    // The range written back in the canonical form must parse to the same values.
    const std::string canonical = "bytes " + std::to_string(range->first) + "-" +
                                  std::to_string(range->last) + "/" +
                                  (range->complete ? std::to_string(*range->complete) : "*");
    const auto again = ParseContentRange(canonical);
    FUZZ_CHECK(again && again->first == range->first && again->last == range->last &&
               again->complete == range->complete);
}

void CheckValidators(std::string_view etag, std::string_view lastModified) {
    if (IsStrongEntityTag(etag)) {
        FUZZ_CHECK(etag.size() >= 2 && etag.front() == '"' && etag.back() == '"');
        FUZZ_CHECK(IsSafeHeaderValue(etag));  // a strong tag is always safe to send back
    }
    const std::string chosen = ChooseResumeValidator(etag, lastModified);
    if (chosen.empty()) return;
    // Whatever is sent back in If-Range must be a header-safe copy of one of the two inputs.
    FUZZ_CHECK(IsSafeHeaderValue(chosen));
    FUZZ_CHECK(etag.find(chosen) != std::string_view::npos ||
               lastModified.find(chosen) != std::string_view::npos);
    FUZZ_CHECK(chosen.find('\r') == std::string::npos && chosen.find('\n') == std::string::npos);
    // Last-Modified stands in only for a missing ETag, never for a weak or broken one.
    if (etag.find_first_not_of(" \t") != std::string_view::npos)
        FUZZ_CHECK(IsStrongEntityTag(chosen) && etag.find(chosen) != std::string_view::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    CheckContentRange(text);
    // The two validators of one answer: split at the first newline.
    const std::size_t split = text.find('\n');
    if (split == std::string_view::npos) {
        CheckValidators(text, {});
        CheckValidators({}, text);
    } else {
        CheckValidators(text.substr(0, split), text.substr(split + 1));
    }
    return 0;
}
