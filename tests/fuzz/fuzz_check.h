#pragma once
// What the fuzz targets share: the one assertion (abort, so libFuzzer keeps the input, naming the
// invariant), the readings of the input as text, and the shapes of a stream arriving in pieces.
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#define FUZZ_CHECK(condition) ((condition) ? void() : fuzz::Fail(__FILE__, __LINE__, #condition))

// A target's body, `FUZZ_TARGET { ... }`, reading `data` and `size`: libFuzzer's entry point.
#define FUZZ_TARGET                                                                     \
    static void FuzzOne(const std::uint8_t* data, std::size_t size);                    \
    extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) { \
        FuzzOne(data, size);                                                            \
        return 0;                                                                       \
    }                                                                                   \
    static void FuzzOne(const std::uint8_t* data, std::size_t size)

namespace fuzz {

using Bytes = std::vector<std::uint8_t>;

[[noreturn]] inline void Fail(const char* file, int line, const char* condition) {
    std::fprintf(stderr, "%s:%d: invariant failed: %s\n", file, line, condition);
    std::abort();
}

inline std::string_view Text(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// The input as the tool's wide text: one character per byte, and as UTF-16LE.
inline std::wstring Widened(const std::uint8_t* data, std::size_t size) {
    return {data, data + size};
}
inline std::wstring Utf16Le(const std::uint8_t* data, std::size_t size) {
    std::wstring text;
    for (std::size_t i = 0; i + 1 < size; i += 2)
        text.push_back(wchar_t(data[i] | data[i + 1] << 8));
    return text;
}

// Entry-name components as one name.
inline std::string Joined(const std::vector<std::string>& parts) {
    std::string text;
    for (const std::string& part : parts) text += (text.empty() ? "" : "/") + part;
    return text;
}

// Feeds reader.Feed(piece, size, extra...) pieces of `chunk` until one is refused: the network
// decides the pieces, so the outcome must not depend on them. True when all were taken.
template <class Reader, class... Extra>
bool FeedInChunks(Reader& reader, const Bytes& bytes, std::size_t chunk, const Extra&... extra) {
    bool ok = true;
    for (std::size_t at = 0; ok && at < bytes.size(); at += chunk)
        ok = reader.Feed(bytes.data() + at, std::min(chunk, bytes.size() - at), extra...);
    return ok;
}

// One input read as two: the text before the first separator and the text after it.
template <class Char>
auto SplitAt(std::basic_string_view<Char> text, Char separator) {
    const std::size_t at = std::min(text.find(separator), text.size());
    return std::pair(text.substr(0, at), text.substr(std::min(at + 1, text.size())));
}

// One gzip member, as a server would send a package, after the members in `out`.
inline Bytes Gzip(const std::uint8_t* data, std::size_t size, int level = 6, Bytes out = {}) {
    z_stream z{};
    FUZZ_CHECK(deflateInit2(&z, level, Z_DEFLATED, 16 + MAX_WBITS, 8, Z_DEFAULT_STRATEGY) == Z_OK);
    const std::size_t at = out.size();
    out.resize(at + deflateBound(&z, uLong(size)) + 32);
    z.next_in = const_cast<Bytef*>(data);
    z.avail_in = uInt(size);
    z.next_out = out.data() + at;
    z.avail_out = uInt(out.size() - at);
    FUZZ_CHECK(deflate(&z, Z_FINISH) == Z_STREAM_END);
    out.resize(at + z.total_out);
    deflateEnd(&z);
    return out;
}

}  // namespace fuzz
