// The ASCII helpers under every parser of the content client: numbers, blanks and case. The
// promises their callers rely on are checked here once, against the text itself.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "ascii_text.h"
#include "fuzz_check.h"

namespace {

using namespace kesclient;

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

// Compares two decimal texts without leading zeros by value: longer is larger, else by letters.
bool DecimalAbove(std::string_view digits, std::string_view limit) {
    digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
    return digits.size() != limit.size() ? digits.size() > limit.size() : digits > limit;
}

void CheckDecimal(std::string_view text, std::uint64_t max) {
    const auto value = ParseDecimal(text, max);
    const bool allDigits = !text.empty() && std::all_of(text.begin(), text.end(), IsDigit);
    // Refused exactly when the text is no number or its value is past the limit: no wrap-around.
    FUZZ_CHECK(value.has_value() == (allDigits && !DecimalAbove(text, std::to_string(max))));
    if (!value) return;
    FUZZ_CHECK(*value <= max);
    const std::string canonical = std::to_string(*value);
    FUZZ_CHECK(ParseDecimal(canonical, max) == value);
    // Only leading zeros may vanish.
    FUZZ_CHECK(text.ends_with(canonical) &&
               text.substr(0, text.size() - canonical.size()).find_first_not_of('0') ==
                   std::string_view::npos);
}

void CheckTrim(std::string_view text, std::string_view blanks) {
    const std::string_view trimmed = Trim(text, blanks);
    const auto isBlank = [blanks](char c) { return blanks.find(c) != std::string_view::npos; };
    // A view into the text, cut only at blanks, with none left at either end.
    const auto before = static_cast<std::size_t>(trimmed.data() - text.data());
    FUZZ_CHECK(trimmed.empty() || (before + trimmed.size() <= text.size() &&
                                   !isBlank(trimmed.front()) && !isBlank(trimmed.back())));
    if (trimmed.empty()) {
        FUZZ_CHECK(std::all_of(text.begin(), text.end(), isBlank));
        return;
    }
    const std::string_view head = text.substr(0, before);
    const std::string_view tail = text.substr(before + trimmed.size());
    FUZZ_CHECK(std::all_of(head.begin(), head.end(), isBlank));
    FUZZ_CHECK(std::all_of(tail.begin(), tail.end(), isBlank));
}

void CheckCase(std::string_view a, std::string_view b) {
    const std::string lower = LowerAscii(a);
    const std::string upper = UpperAscii(a);
    FUZZ_CHECK(lower.size() == a.size() && upper.size() == a.size());
    for (std::size_t i = 0; i < a.size(); ++i) {
        const char c = a[i];
        const bool letter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
        // Letters change case, every other byte (UTF-8 too) stays as it was.
        FUZZ_CHECK(letter ? lower[i] == (c | 0x20) && upper[i] == (c & ~0x20)
                          : lower[i] == c && upper[i] == c);
        FUZZ_CHECK(LowerAscii(c) == lower[i]);
        FUZZ_CHECK(IsBlank(c) == (kBlanks.find(c) != std::string_view::npos));
    }
    FUZZ_CHECK(EqualsNoCase(a, lower) && EqualsNoCase(upper, a));
    FUZZ_CHECK(EqualsNoCase(a, b) == (lower == LowerAscii(b)));
    FUZZ_CHECK(EqualsNoCase(a, b) == EqualsNoCase(b, a));
    FUZZ_CHECK(StartsWithNoCase(a, b) ==
               (a.size() >= b.size() && EqualsNoCase(a.substr(0, b.size()), b)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    CheckDecimal(text, ~std::uint64_t{0});
    CheckTrim(text, kBlanks);
    CheckTrim(text, kHeaderBlanks);
    // The first eight bytes pick a limit for the rest; a newline splits two texts to compare.
    if (size >= 8) {
        std::uint64_t max = 0;
        std::memcpy(&max, data, sizeof max);
        CheckDecimal(text.substr(8), max);
        CheckDecimal(text.substr(8), max % 100000);  // small limits, where the last digit matters
    }
    const std::size_t split = text.find('\n');
    CheckCase(text.substr(0, split), split == std::string_view::npos ? "" : text.substr(split + 1));
    return 0;
}
