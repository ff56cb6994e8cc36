#pragma once
// Thumbprints and checksums as people type them: hex with or without colons, blanks and letter
// case, and checksums optionally prefixed with their algorithm. Portable: unit-tested natively.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kesclient {

enum class DigestAlgorithm { kNone, kSha1, kSha256, kSha512 };

// A digest to compare against: lower-case hex of the algorithm's length.
struct Digest {
    DigestAlgorithm algorithm = DigestAlgorithm::kNone;
    std::string hex;

    friend bool operator==(const Digest&, const Digest&) = default;
};

const char* AlgorithmName(DigestAlgorithm algorithm);
std::size_t DigestHexLength(DigestAlgorithm algorithm);

// A leaf certificate's thumbprint: 40 hex digits (SHA-1) or 64 (SHA-256). Case, blanks, tabs,
// colons and the invisible marks a copy from a certificate dialog brings along are ignored.
std::optional<Digest> ParseThumbprint(std::string_view text);

// The expected checksum of a download: "" (none, algorithm kNone), 64 hex digits (SHA-256) or 128
// (SHA-512), optionally prefixed "sha256:" or "sha512:" (any case), which must then agree with
// the length. Surrounding blanks are ignored.
std::optional<Digest> ParseChecksum(std::string_view text);

std::string HexEncode(const std::uint8_t* data, std::size_t size);

}  // namespace kesclient
