// Response header values the content client acts on, as a server or anything between writes them
// (Content-Length is ascii_text's decimal parser between blanks).
#include <fmt/format.h>

#include "fuzz_check.h"
#include "http_values.h"

using namespace kesclient;

// What is sent back in If-Range is a header-safe copy of one of the two inputs; Last-Modified
// stands in only for a missing ETag, never for a weak or broken one.
static void CheckValidators(std::string_view etag, std::string_view lastModified) {
    const std::string chosen = ChooseResumeValidator(etag, lastModified);
    if (chosen.empty()) return;
    FUZZ_CHECK(IsSafeHeaderValue(chosen) && chosen.find_first_of("\r\n") == chosen.npos);
    FUZZ_CHECK(etag.find_first_not_of(" \t") != etag.npos
                   ? IsStrongEntityTag(chosen) && etag.find(chosen) != etag.npos
                   : lastModified.find(chosen) != lastModified.npos);
}

FUZZ_TARGET {
    const std::string_view text = fuzz::Text(data, size);
    if (const auto range = ParseContentRange(text)) {
        const auto [first, last, complete] = *range;
        FUZZ_CHECK(first <= last && (!complete || last < *complete));
        const auto again = ParseContentRange(
            fmt::format("bytes {}-{}/{}", first, last, complete ? std::to_string(*complete) : "*"));
        FUZZ_CHECK(again && again->first == first && again->last == last &&
                   again->complete == complete);
    }
    // The two validators of one answer, split at the first newline; and no ETag at all.
    const auto [etag, lastModified] = fuzz::SplitAt(text, '\n');
    CheckValidators(etag, lastModified);
    CheckValidators({}, text);
}
