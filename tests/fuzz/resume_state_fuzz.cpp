// The resume file beside a partial download lives where other programs can write: reading it is
// parsing untrusted text. Whatever is accepted must survive a write and a read unchanged, and must
// not claim more bytes than the download has.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "fuzz_check.h"
#include "resume_state.h"

namespace {

using namespace kesclient;

bool IsPrintable(std::string_view text) {
    for (const char c : text) {
        if (c < 0x20 || c > 0x7E) return false;
    }
    return true;
}

void CheckAccepted(const ResumeState& state) {
    FUZZ_CHECK(!state.url.empty() && !state.validator.empty());
    FUZZ_CHECK(IsPrintable(state.url) && IsPrintable(state.validator) && IsPrintable(state.checksum));
    FUZZ_CHECK(state.total == 0 || state.offset <= state.total);
    const std::string text = SerialiseResumeState(state);
    FUZZ_CHECK(ParseResumeState(text) == state);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (const auto state = ParseResumeState(text)) {
        FUZZ_CHECK(text.size() <= kMaxResumeStateBytes);
        CheckAccepted(*state);
    }

    // The writer's side: a state built from the input is read back as written, or refused as a
    // whole when a field could not be written faithfully.
    if (size >= 16) {
        ResumeState state;
        std::memcpy(&state.offset, data, 8);
        std::memcpy(&state.total, data + 8, 8);
        const std::string_view rest = text.substr(16);
        const std::size_t a = rest.find('\n');
        const std::size_t b = a == std::string_view::npos ? a : rest.find('\n', a + 1);
        state.url = std::string(rest.substr(0, a));
        if (a != std::string_view::npos) state.validator = std::string(rest.substr(a + 1, b - a - 1));
        if (b != std::string_view::npos) state.checksum = std::string(rest.substr(b + 1));
        const auto read = ParseResumeState(SerialiseResumeState(state));
        const bool writable = !state.url.empty() && !state.validator.empty() &&
                              IsPrintable(state.url) && IsPrintable(state.validator) &&
                              IsPrintable(state.checksum) && state.checksum != "none" &&
                              (state.total == 0 || state.offset <= state.total);
        if (writable) FUZZ_CHECK(read == state);
        if (read) CheckAccepted(*read);
    }
    return 0;
}
