// The gzip stream of a downloaded package. Two kinds of input: the fuzzer's bytes as the stream
// itself (corrupt headers, bombs, several members, trailing data), and the fuzzer's bytes
// compressed here into one or two members, which must come back unchanged. Every stream is
// decoded in one piece and in small chunks: the outcome must not depend on how the network cut it.
#include <zlib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "gzip_decoder.h"

namespace {

using namespace kesclient;
using Bytes = std::vector<std::uint8_t>;

struct Outcome {
    bool accepted = false;  // every Feed and Finish succeeded
    Bytes output;
    std::uint64_t inputBytes = 0;
    std::uint64_t outputBytes = 0;
};

Outcome Decode(const Bytes& stream, std::size_t chunk, const GzipLimits& limits) {
    GzipDecoder decoder(limits);
    Outcome outcome;
    const GzipDecoder::Sink sink = [&outcome](const std::uint8_t* data, std::size_t size) {
        FUZZ_CHECK(size > 0);
        outcome.output.insert(outcome.output.end(), data, data + size);
        return true;
    };
    bool ok = true;
    for (std::size_t offset = 0; ok && offset < stream.size(); offset += chunk) {
        ok = decoder.Feed(stream.data() + offset, std::min(chunk, stream.size() - offset), sink);
    }
    if (!ok) {
        FUZZ_CHECK(!decoder.error().empty());
        // A refused stream stays refused.
        const std::uint8_t more[] = {0x1F, 0x8B, 0x08};
        FUZZ_CHECK(!decoder.Feed(more, sizeof more, sink));
        FUZZ_CHECK(!decoder.Finish());
    }
    outcome.accepted = ok && decoder.Finish();
    outcome.inputBytes = decoder.input_bytes();
    outcome.outputBytes = decoder.output_bytes();

    FUZZ_CHECK(outcome.inputBytes <= stream.size());
    // The bomb limits: nothing past the ceiling ever reaches the sink, nor past the ratio once
    // beyond the allowance.
    const std::uint64_t delivered = outcome.output.size();
    FUZZ_CHECK(delivered <= limits.maxOutputBytes);
    FUZZ_CHECK(delivered <= limits.ratioAllowance ||
               delivered <= (limits.maxRatio + 1) * std::max<std::uint64_t>(outcome.inputBytes, 1));
    if (outcome.accepted) {
        FUZZ_CHECK(delivered == outcome.outputBytes);
        FUZZ_CHECK(outcome.inputBytes == stream.size());  // trailing data is refused
        FUZZ_CHECK(LooksLikeGzip(stream.data(), stream.size()));
    }
    return outcome;
}

Bytes GzipMember(const std::uint8_t* data, std::size_t size, int level) {
    z_stream stream{};
    FUZZ_CHECK(deflateInit2(&stream, level, Z_DEFLATED, 16 + MAX_WBITS, 8, Z_DEFAULT_STRATEGY) ==
               Z_OK);
    Bytes out(deflateBound(&stream, static_cast<uLong>(size)) + 32);
    stream.next_in = const_cast<Bytef*>(data);
    stream.avail_in = static_cast<uInt>(size);
    stream.next_out = out.data();
    stream.avail_out = static_cast<uInt>(out.size());
    FUZZ_CHECK(deflate(&stream, Z_FINISH) == Z_STREAM_END);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 4) return 0;
    const std::uint8_t mode = data[0];
    const std::size_t chunk = 1 + data[1] % 64;
    GzipLimits limits;
    limits.maxOutputBytes = (std::uint64_t{data[2]} + 1) * 1024;
    limits.maxRatio = 1 + data[3] % 16;
    limits.ratioAllowance = static_cast<std::uint64_t>(mode >> 4) * 512;
    data += 4;
    size -= 4;

    Bytes stream;
    Bytes original;
    switch (mode % 4) {
        case 0:
        case 1:
            stream.assign(data, data + size);
            break;
        case 2:  // one member
            original.assign(data, data + size);
            stream = GzipMember(data, size, mode % 10);
            break;
        case 3: {  // two members, as `cat a.gz b.gz` makes them
            const std::size_t half = size / 2;
            original.assign(data, data + size);
            stream = GzipMember(data, half, 1);
            const Bytes second = GzipMember(data + half, size - half, 9);
            stream.insert(stream.end(), second.begin(), second.end());
            break;
        }
    }

    // Where the stream is cut must not matter. The ratio is checked as the bytes arrive, so the
    // cut may change which limit trips first: compare with limits that a 4 KiB input cannot reach
    // (deflate expands at most about 1032 times).
    GzipLimits roomy;
    roomy.maxOutputBytes = 64ull << 20;
    roomy.maxRatio = 1ull << 20;
    const Outcome whole = Decode(stream, stream.size() + 1, roomy);
    const Outcome pieces = Decode(stream, chunk, roomy);
    FUZZ_CHECK(whole.accepted == pieces.accepted);
    if (whole.accepted) FUZZ_CHECK(whole.output == pieces.output);

    // The same stream under tight limits: a subset of the same output, or a refusal.
    const Outcome limited = Decode(stream, stream.size() + 1, limits);
    const Outcome limitedPieces = Decode(stream, chunk, limits);
    for (const Outcome* outcome : {&limited, &limitedPieces}) {
        if (outcome->accepted) FUZZ_CHECK(whole.accepted && outcome->output == whole.output);
    }

    if (mode % 4 == 2) {
        // Our own single member is refused only by the limits. Decoded in one piece, all its
        // output appears in one step after all its input, so the ratio is the overall one.
        const bool withinLimits =
            original.size() <= limits.maxOutputBytes &&
            (original.size() <= limits.ratioAllowance ||
             original.size() / stream.size() <= limits.maxRatio);
        if (withinLimits) FUZZ_CHECK(limited.accepted);
    }
    if (mode % 4 >= 2 && whole.accepted) FUZZ_CHECK(whole.output == original);
    return 0;
}
