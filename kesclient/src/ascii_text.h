#pragma once
// The ASCII text helpers every parser of the content client shares: numbers, blanks and case in
// protocols and file formats, where only ASCII has a meaning and anything else is data. Portable:
// unit-tested natively and fuzzed (tests/fuzz/ascii_text_fuzz.cpp).
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

namespace kesclient {

// Blanks of the line-oriented formats the client reads (PAC answers, checksums, PEM).
inline constexpr std::string_view kBlanks = " \t\r\n";
// The optional whitespace around an HTTP header value: a line break there is no blank.
inline constexpr std::string_view kHeaderBlanks = " \t";

// True for a character of kBlanks.
bool IsBlank(char c);

// The text without the leading and trailing characters that are in `blanks`.
std::string_view Trim(std::string_view text, std::string_view blanks = kBlanks);

// 'A'-'Z' to 'a'-'z' (and back for UpperAscii); every other byte, UTF-8 included, stays as it is.
char LowerAscii(char c);
std::string LowerAscii(std::string_view text);
std::string UpperAscii(std::string_view text);

// Comparisons that ignore the case of ASCII letters only.
bool EqualsNoCase(std::string_view a, std::string_view b);
bool StartsWithNoCase(std::string_view text, std::string_view prefix);

// Decimal digits only, at least one, no sign and no blanks, value at most `max`; anything else,
// overflow included, is refused. Leading zeros are allowed: a caller that must bound the text's
// length checks it first.
std::optional<std::uint64_t> ParseDecimal(
    std::string_view digits, std::uint64_t max = std::numeric_limits<std::uint64_t>::max());

}  // namespace kesclient
