// The gzip stream of a package: the fuzzer's bytes as the stream (corrupt headers, bombs, members,
// trailing data), or compressed here into one or two members, which must come back unchanged.
#include <optional>

#include "fuzz_check.h"
#include "gzip_decoder.h"

using namespace kesclient;

// The output of an accepted stream; nothing when any Feed or Finish refused it.
static std::optional<fuzz::Bytes> Decode(const fuzz::Bytes& stream, std::size_t chunk,
                                         const GzipLimits& limits) {
    GzipDecoder decoder(limits);
    fuzz::Bytes out;
    const GzipDecoder::Sink sink = [&out](const std::uint8_t* data, std::size_t size) {
        return out.insert(out.end(), data, data + size), true;
    };
    const bool fed = fuzz::FeedInChunks(decoder, stream, chunk, sink);
    FUZZ_CHECK(fed || !decoder.error().empty());
    const bool accepted = fed && decoder.Finish();
    // The bomb limits: nothing past the ceiling ever reaches the sink, nor past the ratio once
    // beyond the allowance; an accepted stream was read to its last byte (trailing data refused).
    const std::uint64_t input = decoder.input_bytes();
    FUZZ_CHECK(input <= stream.size() && out.size() <= limits.maxOutputBytes);
    FUZZ_CHECK(out.size() <= limits.ratioAllowance ||
               out.size() <= (limits.maxRatio + 1) * std::max<std::uint64_t>(input, 1));
    FUZZ_CHECK(!accepted || input == stream.size());
    return accepted ? std::optional(out) : std::nullopt;
}

FUZZ_TARGET {
    if (size < 4) return;
    const int mode = data[0] % 4;
    const std::size_t chunk = 1 + data[1] % 64;
    const GzipLimits limits{(data[2] + 1u) * 1024u, 1u + data[3] % 16u, (data[0] >> 4) * 512u};
    const fuzz::Bytes original(data + 4, data + size);
    // Modes 2 and 3 compress the input here: one member, or two as `cat a.gz b.gz` makes them.
    fuzz::Bytes stream =
        mode == 2 ? fuzz::Gzip(original.data(), original.size(), data[0] % 10) : original;
    const std::size_t half = original.size() / 2;
    if (mode == 3)
        stream = fuzz::Gzip(original.data() + half, original.size() - half, 9,
                            fuzz::Gzip(original.data(), half, 1));
    // Where the stream is cut must not matter, under limits a 4 KiB input cannot reach (deflate
    // expands at most ~1032 times): the cut may change which limit trips first.
    const GzipLimits roomy{64ull << 20, 1ull << 20, 0};
    const auto whole = Decode(stream, stream.size() + 1, roomy);
    FUZZ_CHECK(whole == Decode(stream, chunk, roomy) && (mode < 2 || !whole || *whole == original));
    // Under tight limits: the same output, or a refusal; of our own single member, decoded in one
    // piece, only for the overall size or ratio.
    const auto limited = Decode(stream, stream.size() + 1, limits);
    for (const auto& outcome : {limited, Decode(stream, chunk, limits)})
        FUZZ_CHECK(!outcome || outcome == whole);
    const std::uint64_t n = original.size();
    FUZZ_CHECK(limited || mode != 2 || n > limits.maxOutputBytes ||
               (n > limits.ratioAllowance && n / stream.size() > limits.maxRatio));
}
