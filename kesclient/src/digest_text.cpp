#include "digest_text.h"

#include "ascii_text.h"

namespace kesclient {
namespace {

bool IsHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

}  // namespace

const char* AlgorithmName(DigestAlgorithm algorithm) {
    switch (algorithm) {
        case DigestAlgorithm::kSha1:
            return "SHA-1";
        case DigestAlgorithm::kSha256:
            return "SHA-256";
        case DigestAlgorithm::kSha512:
            return "SHA-512";
        case DigestAlgorithm::kNone:
            break;
    }
    return "none";
}

std::size_t DigestHexLength(DigestAlgorithm algorithm) {
    switch (algorithm) {
        case DigestAlgorithm::kSha1:
            return 40;
        case DigestAlgorithm::kSha256:
            return 64;
        case DigestAlgorithm::kSha512:
            return 128;
        case DigestAlgorithm::kNone:
            break;
    }
    return 0;
}

std::optional<Digest> ParseThumbprint(std::string_view text) {
    // U+200E (left-to-right mark) and U+FEFF (byte order mark) arrive with thumbprints copied from
    // the Windows certificate dialog; they are invisible, so nobody can be asked to remove them.
    static constexpr std::string_view kLeftToRightMark = "\xE2\x80\x8E";
    static constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    std::string hex;
    for (std::size_t i = 0; i < text.size();) {
        const std::string_view rest = text.substr(i);
        if (rest.starts_with(kLeftToRightMark) || rest.starts_with(kByteOrderMark)) {
            i += 3;
            continue;
        }
        const char c = text[i++];
        if (IsBlank(c) || c == ':') continue;
        if (!IsHexDigit(c)) return std::nullopt;
        hex.push_back(LowerAscii(c));
    }
    if (hex.size() == DigestHexLength(DigestAlgorithm::kSha1)) {
        return Digest{DigestAlgorithm::kSha1, hex};
    }
    if (hex.size() == DigestHexLength(DigestAlgorithm::kSha256)) {
        return Digest{DigestAlgorithm::kSha256, hex};
    }
    return std::nullopt;
}

std::optional<Digest> ParseChecksum(std::string_view text) {
    text = Trim(text);
    if (text.empty()) return Digest{};
    DigestAlgorithm named = DigestAlgorithm::kNone;
    if (StartsWithNoCase(text, "sha256:")) {
        named = DigestAlgorithm::kSha256;
    } else if (StartsWithNoCase(text, "sha512:")) {
        named = DigestAlgorithm::kSha512;
    }
    if (named != DigestAlgorithm::kNone) text = Trim(text.substr(7));

    std::string hex;
    hex.reserve(text.size());
    for (const char c : text) {
        if (!IsHexDigit(c)) return std::nullopt;
        hex.push_back(LowerAscii(c));
    }
    DigestAlgorithm byLength = DigestAlgorithm::kNone;
    if (hex.size() == DigestHexLength(DigestAlgorithm::kSha256))
        byLength = DigestAlgorithm::kSha256;
    if (hex.size() == DigestHexLength(DigestAlgorithm::kSha512))
        byLength = DigestAlgorithm::kSha512;
    if (byLength == DigestAlgorithm::kNone) return std::nullopt;
    if (named != DigestAlgorithm::kNone && named != byLength) return std::nullopt;
    return Digest{byLength, hex};
}

std::string HexEncode(const std::uint8_t* data, std::size_t size) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string hex(size * 2, '0');
    for (std::size_t i = 0; i < size; ++i) {
        hex[2 * i] = kDigits[data[i] >> 4];
        hex[2 * i + 1] = kDigits[data[i] & 0x0F];
    }
    return hex;
}

}  // namespace kesclient
