#pragma once
// The certificates of a PEM bundle as DER, for the chain engine's exclusive roots. Portable.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kesclient {

inline constexpr std::size_t kMaxPemBundleBytes = 4 * 1024 * 1024;
inline constexpr std::size_t kMaxPemCertificates = 1000;

// Every "CERTIFICATE" block, in order. Text between blocks (comments) and blocks of other kinds
// (keys, parameters) are skipped. nullopt, with *why, when a certificate block is malformed
// (unterminated, bad base64) or when there is none at all: a bundle that names no root must not
// silently trust nothing or everything.
std::optional<std::vector<std::vector<std::uint8_t>>> ParsePemCertificates(std::string_view text,
                                                                           std::string* why);

// Strict base64 (RFC 4648 alphabet, '=' padding only at the end); blanks and line breaks ignored.
std::optional<std::vector<std::uint8_t>> DecodeBase64(std::string_view text);

}  // namespace kesclient
