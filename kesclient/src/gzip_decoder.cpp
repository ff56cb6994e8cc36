#include "gzip_decoder.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <vector>

namespace kesclient {
namespace {

constexpr std::size_t kOutputChunk = 256 * 1024;
constexpr int kGzipOnlyWindowBits = 16 + MAX_WBITS;

}  // namespace

bool LooksLikeGzip(const std::uint8_t* data, std::size_t size) {
    return size >= 3 && data[0] == 0x1F && data[1] == 0x8B && data[2] == 0x08;
}

struct GzipDecoder::State {
    explicit State(GzipLimits l) : limits(l), output(kOutputChunk) {}

    bool Fail(std::string why) {
        if (!failed) {
            failed = true;
            error = std::move(why);
        }
        return false;
    }

    // Feeds data to the current member; on its end, *consumed tells how much was used.
    bool Inflate(const std::uint8_t* data, std::size_t size, std::size_t* consumed,
                 const Sink& sink) {
        stream.next_in = const_cast<Bytef*>(data);  // zlib's API is not const-correct
        stream.avail_in = static_cast<uInt>(size);
        for (;;) {
            stream.next_out = output.data();
            stream.avail_out = static_cast<uInt>(output.size());
            const uInt inBefore = stream.avail_in;
            const int status = inflate(&stream, Z_NO_FLUSH);
            inputBytes += inBefore - stream.avail_in;
            const std::size_t produced = output.size() - stream.avail_out;
            outputBytes += produced;
            if (outputBytes > limits.maxOutputBytes) return Fail("decompressed size beyond limit");
            if (outputBytes > limits.ratioAllowance &&
                outputBytes / std::max<std::uint64_t>(inputBytes, 1) > limits.maxRatio) {
                return Fail("compression ratio beyond limit");
            }
            if (produced > 0 && !sink(output.data(), produced)) return Fail("");
            if (status == Z_STREAM_END) {
                *consumed = size - stream.avail_in;
                inMember = false;
                ++members;
                return true;
            }
            if (status != Z_OK && status != Z_BUF_ERROR) {
                return Fail(std::string("corrupt compressed data") +
                            (stream.msg ? std::string(": ") + stream.msg : ""));
            }
            if (stream.avail_in == 0 && stream.avail_out != 0) break;
            if (produced == 0 && inBefore == stream.avail_in)
                return Fail("corrupt compressed data");
        }
        *consumed = size;
        return true;
    }

    GzipLimits limits;
    z_stream stream{};
    bool initialised = false;
    bool inMember = true;
    bool failed = false;
    unsigned members = 0;
    std::array<std::uint8_t, 2> magic{};
    std::size_t magicHave = 0;
    std::uint64_t inputBytes = 0;
    std::uint64_t outputBytes = 0;
    std::vector<std::uint8_t> output;
    std::string error;
};

GzipDecoder::GzipDecoder(GzipLimits limits) : state_(std::make_unique<State>(limits)) {
    state_->initialised = inflateInit2(&state_->stream, kGzipOnlyWindowBits) == Z_OK;
    if (!state_->initialised) state_->Fail("cannot start decompression");
}

GzipDecoder::~GzipDecoder() {
    if (state_->initialised) inflateEnd(&state_->stream);
}

bool GzipDecoder::Feed(const std::uint8_t* data, std::size_t size, const Sink& sink) {
    State& s = *state_;
    while (size > 0 && !s.failed) {
        if (!s.inMember) {
            // Between members only another member may start; see its magic before resetting.
            static constexpr std::uint8_t kMagic[] = {0x1F, 0x8B};
            while (size > 0 && s.magicHave < 2) {
                if (*data != kMagic[s.magicHave])
                    return s.Fail("data after the end of the compressed stream");
                s.magic[s.magicHave++] = *data++;
                --size;
            }
            if (s.magicHave < 2) return true;
            if (inflateReset(&s.stream) != Z_OK) return s.Fail("cannot restart decompression");
            s.inMember = true;
            s.magicHave = 0;
            std::size_t used = 0;
            if (!s.Inflate(s.magic.data(), s.magic.size(), &used, sink)) return false;
            continue;
        }
        std::size_t used = 0;
        const std::size_t chunk = std::min<std::size_t>(size, 1u << 30);
        if (!s.Inflate(data, chunk, &used, sink)) return false;
        data += used;
        size -= used;
    }
    return !s.failed;
}

bool GzipDecoder::Finish() {
    State& s = *state_;
    if (s.failed) return false;
    if (s.inMember || s.magicHave != 0 || s.members == 0)
        return s.Fail("compressed stream is truncated");
    return true;
}

const std::string& GzipDecoder::error() const {
    return state_->error;
}
std::uint64_t GzipDecoder::input_bytes() const {
    return state_->inputBytes;
}
std::uint64_t GzipDecoder::output_bytes() const {
    return state_->outputBytes;
}

}  // namespace kesclient
