// The resume file beside a partial download, where other programs can write: what is accepted
// survives a write and a read unchanged, and claims no more bytes than the download has.
#include <cstring>

#include "fuzz_check.h"
#include "resume_state.h"

using namespace kesclient;

static bool Printable(std::string_view text) {
    return std::ranges::all_of(text, [](char c) { return c >= 0x20 && c <= 0x7E; });
}

// What the writer can represent faithfully, and so all that a read may accept.
static bool Representable(const ResumeState& s) {
    return !s.url.empty() && !s.validator.empty() && Printable(s.url) && Printable(s.validator) &&
           Printable(s.checksum) && (s.total == 0 || s.offset <= s.total);
}

FUZZ_TARGET {
    const std::string_view text = fuzz::Text(data, size);
    if (const auto state = ParseResumeState(text)) {
        FUZZ_CHECK(text.size() <= kMaxResumeStateBytes && Representable(*state));
        FUZZ_CHECK(ParseResumeState(SerialiseResumeState(*state)) == state);
    }
    // The writer's side: a state built from the input reads back as written, or is refused as a
    // whole; offset and total from the first 16 bytes, then url, validator and checksum by line.
    if (size < 16) return;
    ResumeState state;
    std::memcpy(&state.offset, data, 8);
    std::memcpy(&state.total, data + 8, 8);
    const auto [url, rest] = fuzz::SplitAt(text.substr(16), '\n');
    state.url = url;
    std::tie(state.validator, state.checksum) = fuzz::SplitAt(rest, '\n');
    const auto read = ParseResumeState(SerialiseResumeState(state));
    if (Representable(state) && state.checksum != "none") FUZZ_CHECK(read == state);
    if (read)
        FUZZ_CHECK(Representable(*read) && ParseResumeState(SerialiseResumeState(*read)) == read);
}
