// Response header values the content client acts on (Content-Range, ETag and Last-Modified): a
// server, or anything between it and us, writes them. Content-Length is the decimal parser of
// ascii_text_fuzz.cpp between blanks.
#include "fuzz_check.h"
#include "http_values.h"

using namespace kesclient;

// first <= last < complete, and the canonical form reads back the same.
static void CheckContentRange(std::string_view text) {
    const auto range = ParseContentRange(text);
    if (!range) return;
    FUZZ_CHECK(range->first <= range->last && (!range->complete || range->last < *range->complete));
    const auto again = ParseContentRange(
        "bytes " + std::to_string(range->first) + "-" + std::to_string(range->last) + "/" +
        (range->complete ? std::to_string(*range->complete) : "*"));
    FUZZ_CHECK(again && again->first == range->first && again->last == range->last &&
               again->complete == range->complete);
}

// What is sent back in If-Range is a header-safe copy of one of the two inputs; Last-Modified
// stands in only for a missing ETag, never for a weak or broken one.
static void CheckValidators(std::string_view etag, std::string_view lastModified) {
    if (IsStrongEntityTag(etag)) FUZZ_CHECK(IsSafeHeaderValue(etag));
    const std::string chosen = ChooseResumeValidator(etag, lastModified);
    if (chosen.empty()) return;
    FUZZ_CHECK(IsSafeHeaderValue(chosen) && chosen.find_first_of("\r\n") == std::string::npos);
    FUZZ_CHECK(etag.find(chosen) != std::string_view::npos ||
               lastModified.find(chosen) != std::string_view::npos);
    if (etag.find_first_not_of(" \t") != std::string_view::npos)
        FUZZ_CHECK(IsStrongEntityTag(chosen) && etag.find(chosen) != std::string_view::npos);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = fuzz::Text(data, size);
    CheckContentRange(text);
    // The two validators of one answer, split at the first newline; and no ETag at all.
    const auto [etag, lastModified] = fuzz::SplitAt(text, '\n');
    CheckValidators(etag, lastModified);
    CheckValidators({}, text);
    return 0;
}
