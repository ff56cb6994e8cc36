// Thumbprints and checksums as people type them into the update key: whatever is accepted must be
// exactly the digest the text spells, in the one form the comparison uses.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "digest_text.h"
#include "fuzz_check.h"

namespace {

using namespace kesclient;

void CheckCanonical(const Digest& digest) {
    FUZZ_CHECK(digest.hex.size() == DigestHexLength(digest.algorithm));
    for (const char c : digest.hex) FUZZ_CHECK((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'));
}

// The hex digits of text in order, lower-cased: what an accepted digest must consist of.
std::string HexDigitsOf(std::string_view text) {
    std::string digits;
    for (const char c : text) {
        if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f')) digits.push_back(c);
        if (c >= 'A' && c <= 'F') digits.push_back(static_cast<char>(c - 'A' + 'a'));
    }
    return digits;
}

void CheckThumbprint(std::string_view text) {
    const auto digest = ParseThumbprint(text);
    if (!digest) return;
    FUZZ_CHECK(digest->algorithm == DigestAlgorithm::kSha1 ||
               digest->algorithm == DigestAlgorithm::kSha256);
    CheckCanonical(*digest);
    // Separators and invisible marks are dropped, never digits: the bytes of the marks are no hex
    // digits, so the digest is every hex digit of the text.
    FUZZ_CHECK(digest->hex == HexDigitsOf(text));
    FUZZ_CHECK(ParseThumbprint(digest->hex) == digest);
}

void CheckChecksum(std::string_view text) {
    const auto digest = ParseChecksum(text);
    if (!digest) return;
    if (digest->algorithm == DigestAlgorithm::kNone) {
        FUZZ_CHECK(digest->hex.empty());
        return;
    }
    FUZZ_CHECK(digest->algorithm == DigestAlgorithm::kSha256 ||
               digest->algorithm == DigestAlgorithm::kSha512);
    CheckCanonical(*digest);
    // The digits must be the text's last ones, in order (the algorithm prefix has digits of its
    // own, so only the tail is compared).
    const std::string digits = HexDigitsOf(text);
    FUZZ_CHECK(digits.size() >= digest->hex.size());
    FUZZ_CHECK(digits.compare(digits.size() - digest->hex.size(), std::string::npos,
                              digest->hex) == 0);
    FUZZ_CHECK(ParseChecksum(digest->hex) == digest);
    const std::string prefixed =
        (digest->algorithm == DigestAlgorithm::kSha256 ? "SHA256:" : "sha512:") + digest->hex;
    FUZZ_CHECK(ParseChecksum(prefixed) == digest);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    CheckThumbprint(text);
    CheckChecksum(text);
    // HexEncode is what the computed side of every comparison goes through.
    const std::string hex = HexEncode(data, size);
    FUZZ_CHECK(hex.size() == 2 * size);
    FUZZ_CHECK(HexDigitsOf(hex) == hex);
    if (size == 20 || size == 32) {
        const auto thumbprint = ParseThumbprint(hex);
        FUZZ_CHECK(thumbprint && thumbprint->hex == hex);
    }
    return 0;
}
