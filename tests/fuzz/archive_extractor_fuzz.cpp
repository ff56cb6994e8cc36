// The whole extraction policy, as a downloaded package reaches it: gzip or plain tar, in chunks.
// The sink stands in for the staging folder and checks what the policy lets through: only names
// inside the folder (no "..", drive, device, separator or leading slash in any component), no
// name twice regardless of case, no file below a file, exactly the announced bytes per file, and
// never more entries or bytes than the limits.
#include <zlib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "archive_extractor.h"
#include "entry_name.h"
#include "fuzz_check.h"

namespace {

using namespace kesclient;

constexpr std::uint64_t kMaxEntries = 64;
constexpr std::uint64_t kMaxTotalBytes = 64 * 1024;
const std::vector<std::string> kReserved = {"~staging", ".kesclient-partial"};

void CheckPath(const std::vector<std::string>& path) {
    FUZZ_CHECK(!path.empty() && path.size() <= kMaxEntryDepth);
    std::size_t bytes = 0;
    for (const std::string& component : path) {
        FUZZ_CHECK(!component.empty() && component != "." && component != "..");
        FUZZ_CHECK(component.find_first_of("/\\:") == std::string::npos);
        FUZZ_CHECK(component.find('\0') == std::string::npos);
        FUZZ_CHECK(component.back() != '.' && component.back() != ' ');
        std::string why;
        FUZZ_CHECK(IsAcceptableComponent(component, &why));
        FUZZ_CHECK(!IsReservedDeviceName(component));
        FUZZ_CHECK(IsValidUtf8(component));
        bytes += component.size() + 1;
    }
    FUZZ_CHECK(bytes <= kMaxEntryNameBytes + 1);
    for (const std::string& reserved : kReserved) FUZZ_CHECK(FoldCase(path.front()) != reserved);
}

std::string Folded(const std::vector<std::string>& path, std::size_t depth) {
    std::string key;
    for (std::size_t i = 0; i < depth; ++i) key += FoldCase(path[i]) + "/";
    return key;
}

class CheckingSink : public ExtractionSink {
public:
    bool MakeDirectory(const std::vector<std::string>& path, std::string*) override {
        FUZZ_CHECK(!inFile_);
        CheckPath(path);
        Claim(path, false);
        ++entries_;
        return true;
    }
    bool BeginFile(const std::vector<std::string>& path, std::uint64_t size, std::string*) override {
        FUZZ_CHECK(!inFile_);
        CheckPath(path);
        Claim(path, true);
        ++entries_;
        inFile_ = true;
        expected_ = size;
        written_ = 0;
        announced_ += size;
        FUZZ_CHECK(announced_ <= kMaxTotalBytes);
        return true;
    }
    bool WriteFile(const std::uint8_t*, std::size_t size, std::string*) override {
        FUZZ_CHECK(inFile_);
        FUZZ_CHECK(size <= expected_ - written_);
        written_ += size;
        return true;
    }
    bool EndFile(std::string*) override {
        FUZZ_CHECK(inFile_ && written_ == expected_);
        inFile_ = false;
        return true;
    }
    bool inFile() const { return inFile_; }
    std::uint64_t entries() const { return entries_; }
    std::uint64_t announced() const { return announced_; }

private:
    // A file may be created once and never be a folder; folders may repeat.
    void Claim(const std::vector<std::string>& path, bool file) {
        for (std::size_t depth = 1; depth < path.size(); ++depth) {
            const auto it = kinds_.find(Folded(path, depth));
            FUZZ_CHECK(it == kinds_.end() || !it->second);
            kinds_.emplace(Folded(path, depth), false);
        }
        const auto [it, added] = kinds_.emplace(Folded(path, path.size()), file);
        FUZZ_CHECK(added || (!file && !it->second));
    }

    std::map<std::string, bool> kinds_;  // folded path -> is a file
    bool inFile_ = false;
    std::uint64_t expected_ = 0;
    std::uint64_t written_ = 0;
    std::uint64_t entries_ = 0;
    std::uint64_t announced_ = 0;
};

std::vector<std::uint8_t> Gzip(const std::uint8_t* data, std::size_t size) {
    z_stream stream{};
    FUZZ_CHECK(deflateInit2(&stream, 6, Z_DEFLATED, 16 + MAX_WBITS, 8, Z_DEFAULT_STRATEGY) == Z_OK);
    std::vector<std::uint8_t> out(deflateBound(&stream, static_cast<uLong>(size)) + 32);
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
    if (size < 1) return 0;
    // First byte: bit 0 compresses the rest here (so the fuzzer's tar structures also travel
    // through gzip), the others pick the chunk size.
    const bool compress = data[0] & 1;
    const std::size_t chunk = 1 + (data[0] >> 1) * 8;
    std::vector<std::uint8_t> archive(data + 1, data + size);
    if (compress) archive = Gzip(archive.data(), archive.size());

    ArchiveLimits limits;
    limits.maxEntries = kMaxEntries;
    limits.maxTotalBytes = kMaxTotalBytes;
    limits.maxRatio = 50;
    limits.ratioAllowance = 32 * 1024;
    CheckingSink sink;
    ArchiveExtractor extractor(sink, limits, kReserved);
    bool ok = true;
    for (std::size_t offset = 0; ok && offset < archive.size(); offset += chunk) {
        ok = extractor.Feed(archive.data() + offset, std::min(chunk, archive.size() - offset));
    }
    if (!ok) FUZZ_CHECK(!extractor.error().empty());
    const bool finished = ok && extractor.Finish();
    if (finished) FUZZ_CHECK(!sink.inFile());
    FUZZ_CHECK(sink.entries() <= kMaxEntries);
    FUZZ_CHECK(extractor.file_bytes() <= kMaxTotalBytes);
    FUZZ_CHECK(sink.announced() == extractor.file_bytes());
    return 0;
}
