#include "pem_bundle.h"

#include "ascii_text.h"

namespace kesclient {
namespace {

int Sextet(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

std::nullopt_t Refuse(std::string* why, std::string text) {
    if (why) *why = std::move(text);
    return std::nullopt;
}

}  // namespace

std::optional<std::vector<std::uint8_t>> DecodeBase64(std::string_view text) {
    std::vector<std::uint8_t> out;
    out.reserve(text.size() / 4 * 3);
    std::uint32_t accumulator = 0;
    int bits = 0;
    std::size_t symbols = 0;
    std::size_t padding = 0;
    for (const char c : text) {
        if (IsBlank(c)) continue;
        if (c == '=') {
            ++padding;
            ++symbols;
            continue;
        }
        const int value = Sextet(c);
        if (value < 0 || padding > 0) return std::nullopt;
        accumulator = (accumulator << 6) | static_cast<std::uint32_t>(value);
        bits += 6;
        ++symbols;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<std::uint8_t>(accumulator >> bits));
            accumulator &= (1u << bits) - 1;
        }
    }
    if (symbols % 4 != 0 || padding > 2) return std::nullopt;
    if (accumulator != 0) return std::nullopt;  // non-canonical: leftover bits must be zero
    return out;
}

std::optional<std::vector<std::vector<std::uint8_t>>> ParsePemCertificates(std::string_view text,
                                                                           std::string* why) {
    constexpr std::string_view kBegin = "-----BEGIN ";
    constexpr std::string_view kEnd = "-----END ";
    constexpr std::string_view kDashes = "-----";
    std::vector<std::vector<std::uint8_t>> certificates;
    std::size_t position = 0;
    while ((position = text.find(kBegin, position)) != std::string_view::npos) {
        const std::size_t labelStart = position + kBegin.size();
        const std::size_t labelEnd = text.find(kDashes, labelStart);
        if (labelEnd == std::string_view::npos) return Refuse(why, "unterminated PEM header");
        const std::string_view label = text.substr(labelStart, labelEnd - labelStart);
        if (label.find('\n') != std::string_view::npos) return Refuse(why, "malformed PEM header");
        const std::string footer = std::string(kEnd) + std::string(label) + std::string(kDashes);
        const std::size_t bodyStart = labelEnd + kDashes.size();
        const std::size_t footerAt = text.find(footer, bodyStart);
        if (footerAt == std::string_view::npos)
            return Refuse(why, "PEM block without its END line");
        position = footerAt + footer.size();
        if (label != "CERTIFICATE") continue;
        auto der = DecodeBase64(text.substr(bodyStart, footerAt - bodyStart));
        if (!der || der->empty())
            return Refuse(why,
                          "bad base64 in certificate " + std::to_string(certificates.size() + 1));
        if (certificates.size() == kMaxPemCertificates) return Refuse(why, "too many certificates");
        certificates.push_back(std::move(*der));
    }
    if (certificates.empty()) return Refuse(why, "no certificate in the bundle");
    return certificates;
}

}  // namespace kesclient
