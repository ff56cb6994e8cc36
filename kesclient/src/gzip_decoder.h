#pragma once
// Streaming gzip decompression of a downloaded archive: members one after the other (as `cat a.gz
// b.gz` makes them), nothing but members (trailing data is refused), and bounded output so that a
// small download cannot expand without limit. Portable: tested and fuzzed natively.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace kesclient {

struct GzipLimits {
    std::uint64_t maxOutputBytes = 0;
    std::uint64_t maxRatio = 0;        // output per input byte, once past ratioAllowance
    std::uint64_t ratioAllowance = 0;  // output always allowed, whatever the ratio
};

// The first bytes of a gzip member (magic and the deflate method).
bool LooksLikeGzip(const std::uint8_t* data, std::size_t size);

class GzipDecoder {
public:
    // Receives decompressed bytes; returns false to stop (its reason is the caller's to keep).
    using Sink = std::function<bool(const std::uint8_t* data, std::size_t size)>;

    explicit GzipDecoder(GzipLimits limits);
    ~GzipDecoder();
    GzipDecoder(const GzipDecoder&) = delete;
    GzipDecoder& operator=(const GzipDecoder&) = delete;

    bool Feed(const std::uint8_t* data, std::size_t size, const Sink& sink);
    // True only when the input ended exactly at the end of a member.
    bool Finish();

    const std::string& error() const;
    std::uint64_t input_bytes() const;
    std::uint64_t output_bytes() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace kesclient
