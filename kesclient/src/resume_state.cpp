#include "resume_state.h"

#include "ascii_text.h"

namespace kesclient {
namespace {

constexpr std::string_view kHeader = "kesclient-resume 1";

bool IsPrintable(std::string_view text) {
    for (const char c : text) {
        if (c < 0x20 || c > 0x7E) return false;
    }
    return true;
}

}  // namespace

std::string SerialiseResumeState(const ResumeState& state) {
    std::string text(kHeader);
    text += "\nurl " + state.url;
    text += "\nvalidator " + state.validator;
    text += "\nchecksum " + (state.checksum.empty() ? std::string("none") : state.checksum);
    text += "\noffset " + std::to_string(state.offset);
    text += "\ntotal " + std::to_string(state.total);
    text += "\n";
    return text;
}

std::optional<ResumeState> ParseResumeState(std::string_view text) {
    if (text.size() > kMaxResumeStateBytes || !text.ends_with('\n')) return std::nullopt;
    ResumeState state;
    unsigned seen = 0;
    bool first = true;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end + 1);
        if (line.ends_with('\r')) line.remove_suffix(1);
        if (first) {
            if (line != kHeader) return std::nullopt;
            first = false;
            continue;
        }
        if (!IsPrintable(line)) return std::nullopt;
        const std::size_t space = line.find(' ');
        if (space == std::string_view::npos) return std::nullopt;
        const std::string_view key = line.substr(0, space);
        const std::string_view value = line.substr(space + 1);
        static constexpr std::string_view kKeys[] = {"url", "validator", "checksum", "offset",
                                                     "total"};
        unsigned bit = 0;
        while (bit < 5 && kKeys[bit] != key) ++bit;
        if (bit == 5 || (seen & (1u << bit))) return std::nullopt;
        seen |= 1u << bit;
        switch (bit) {
            case 0:
                state.url = value;
                break;
            case 1:
                state.validator = value;
                break;
            case 2:
                state.checksum = value == "none" ? std::string() : std::string(value);
                break;
            case 3:
            case 4: {
                if (value.size() > 20) return std::nullopt;
                const auto number = ParseDecimal(value);
                if (!number) return std::nullopt;
                (bit == 3 ? state.offset : state.total) = *number;
                break;
            }
        }
    }
    if (seen != 0x1F || state.url.empty() || state.validator.empty()) return std::nullopt;
    if (state.total != 0 && state.offset > state.total) return std::nullopt;
    return state;
}

}  // namespace kesclient
