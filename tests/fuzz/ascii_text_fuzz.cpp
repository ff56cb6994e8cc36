// The ASCII helpers under every parser of the content client: numbers, blanks and case, checked
// once here against the standard library's readings.
#include <cctype>
#include <charconv>
#include <cstring>

#include "ascii_text.h"
#include "fuzz_check.h"

using namespace kesclient;

// from_chars takes digits only (no sign, blank or base prefix) and refuses what overflows.
static void CheckDecimal(std::string_view text, std::uint64_t max) {
    std::uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    const bool number = error == std::errc() && stop == end && value <= max;
    FUZZ_CHECK(ParseDecimal(text, max) == (number ? std::optional(value) : std::nullopt));
}

static void CheckTrim(std::string_view text, std::string_view blanks) {
    const std::string_view trimmed = Trim(text, blanks);
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == text.npos) return FUZZ_CHECK(trimmed.empty());
    FUZZ_CHECK(trimmed.data() == text.data() + first &&
               trimmed.size() == text.find_last_not_of(blanks) + 1 - first);
}

// The C locale's case mapping: ASCII letters only, every other byte (UTF-8 too) as it was.
static void CheckCase(std::string_view a, std::string_view b) {
    const std::string lower = LowerAscii(a), upper = UpperAscii(a);
    FUZZ_CHECK(lower.size() == a.size() && upper.size() == a.size());
    for (std::size_t i = 0; i < a.size(); ++i) {
        const auto c = static_cast<unsigned char>(a[i]);
        FUZZ_CHECK(lower[i] == char(std::tolower(c)) && upper[i] == char(std::toupper(c)) &&
                   LowerAscii(a[i]) == lower[i]);
    }
    FUZZ_CHECK(EqualsNoCase(a, b) == (lower == LowerAscii(b)));
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
