// Thumbprints and checksums as people type them into the update key: whatever is accepted must be
// exactly the digest the text spells, in the one form the comparison uses.
#include <cctype>

#include "digest_text.h"
#include "fuzz_check.h"

using namespace kesclient;

static std::string HexDigitsOf(std::string_view text) {
    std::string digits;
    for (const unsigned char c : text)
        if (std::isxdigit(c)) digits.push_back(char(std::tolower(c)));
    return digits;
}

// Lower-case hex of the algorithm's length, made of the text's last hex digits (separators and
// invisible marks are dropped, never digits; a checksum's algorithm prefix has digits of its own).
static void CheckCanonical(const Digest& digest, std::string_view text) {
    FUZZ_CHECK(digest.hex.size() == DigestHexLength(digest.algorithm) &&
               HexDigitsOf(digest.hex) == digest.hex && HexDigitsOf(text).ends_with(digest.hex));
}

FUZZ_TARGET {
    const std::string_view text = fuzz::Text(data, size);
    if (const auto print = ParseThumbprint(text)) {
        CheckCanonical(*print, text);
        FUZZ_CHECK(print->hex == HexDigitsOf(text) && ParseThumbprint(print->hex) == print);
    }
    const auto sum = ParseChecksum(text);
    if (sum && sum->algorithm == DigestAlgorithm::kNone) FUZZ_CHECK(sum->hex.empty());
    if (sum && sum->algorithm != DigestAlgorithm::kNone) {
        CheckCanonical(*sum, text);
        const char* prefix = sum->algorithm == DigestAlgorithm::kSha256 ? "SHA256:" : "sha512:";
        FUZZ_CHECK(ParseChecksum(sum->hex) == sum && ParseChecksum(prefix + sum->hex) == sum);
    }
    // HexEncode is the computed side of every comparison: each digest size reads back as typed.
    const std::string hex = HexEncode(data, size);
    if (size == 20 || size == 32) FUZZ_CHECK(ParseThumbprint(hex).value_or(Digest{}).hex == hex);
    if (size == 32 || size == 64) FUZZ_CHECK(ParseChecksum(hex).value_or(Digest{}).hex == hex);
}
