// The ASCII helpers under every parser of the content client: numbers, blanks and case, checked
// once here against the text itself.
#include <cstring>

#include "ascii_text.h"
#include "fuzz_check.h"

using namespace kesclient;

static void CheckDecimal(std::string_view text, std::uint64_t max) {
    const auto value = ParseDecimal(text, max);
    // Refused exactly when the text is no number or its value is past the limit: no wrap-around.
    const std::string_view digits = text.substr(std::min(text.find_first_not_of('0'), text.size()));
    const std::string limit = std::to_string(max);
    const bool above =
        std::tuple(digits.size(), digits) > std::tuple(limit.size(), std::string_view(limit));
    FUZZ_CHECK(value.has_value() ==
               (!text.empty() && text.find_first_not_of("0123456789") == text.npos && !above));
    // Only leading zeros may vanish.
    if (value)
        FUZZ_CHECK(*value <= max && (digits.empty() ? "0" : digits) == std::to_string(*value));
}

static void CheckTrim(std::string_view text, std::string_view blanks) {
    const std::string_view trimmed = Trim(text, blanks);
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == text.npos) return FUZZ_CHECK(trimmed.empty());
    FUZZ_CHECK(trimmed.data() == text.data() + first &&
               trimmed.size() == text.find_last_not_of(blanks) + 1 - first);
}

static void CheckCase(std::string_view a, std::string_view b) {
    const std::string lower = LowerAscii(a), upper = UpperAscii(a);
    FUZZ_CHECK(lower.size() == a.size() && upper.size() == a.size());
    for (std::size_t i = 0; i < a.size(); ++i) {
        const char c = a[i];
        // Letters change case, every other byte (UTF-8 too) stays as it was.
        FUZZ_CHECK(((c | 0x20) >= 'a' && (c | 0x20) <= 'z')
                       ? lower[i] == (c | 0x20) && upper[i] == (c & ~0x20)
                       : lower[i] == c && upper[i] == c);
        FUZZ_CHECK(LowerAscii(c) == lower[i] && IsBlank(c) == (kBlanks.find(c) != kBlanks.npos));
    }
    FUZZ_CHECK(EqualsNoCase(a, lower) && EqualsNoCase(upper, a));
    FUZZ_CHECK(EqualsNoCase(a, b) == (lower == LowerAscii(b)) &&
               EqualsNoCase(b, a) == EqualsNoCase(a, b));
    FUZZ_CHECK(StartsWithNoCase(a, b) ==
               (a.size() >= b.size() && EqualsNoCase(a.substr(0, b.size()), b)));
}

FUZZ_TARGET {
    const std::string_view text = fuzz::Text(data, size);
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
    std::apply(CheckCase, fuzz::SplitAt(text, '\n'));
}
