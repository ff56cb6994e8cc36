// The extraction policy, as a downloaded package reaches it: tar or tar.gz, in chunks. The sink
// stands in for the staging folder and checks what the policy lets through.
#include <map>

#include "archive_extractor.h"
#include "entry_name.h"
#include "fuzz_check.h"

using namespace kesclient;

constexpr std::uint64_t kMaxEntries = 64;
constexpr std::uint64_t kMaxTotalBytes = 64 * 1024;
static const std::vector<std::string> kReserved = {"~staging", ".kesclient-partial"};

class CheckingSink : public ExtractionSink {
public:
    bool MakeDirectory(const std::vector<std::string>& path, std::string*) override {
        return Claim(path, false);
    }
    bool BeginFile(const std::vector<std::string>& path, std::uint64_t size,
                   std::string*) override {
        inFile = Claim(path, true);
        left_ = size;
        announced_ += size;
        FUZZ_CHECK(announced_ <= kMaxTotalBytes);
        return true;
    }
    bool WriteFile(const std::uint8_t*, std::size_t size, std::string*) override {
        FUZZ_CHECK(inFile && size <= left_);  // exactly the announced bytes per file
        left_ -= size;
        return true;
    }
    bool EndFile(std::string*) override {
        FUZZ_CHECK(inFile && left_ == 0);
        inFile = false;
        return true;
    }
    bool inFile = false;

private:
    // Only names the entry-name rules accept as they stand, no reserved top-level name, and no
    // name twice or below a file regardless of case (folders may repeat).
    bool Claim(const std::vector<std::string>& path, bool file) {
        FUZZ_CHECK(!inFile && ++entries_ <= kMaxEntries);
        FUZZ_CHECK(!path.empty() && SplitEntryName(fuzz::Joined(path, "/"), nullptr) == path);
        for (const std::string& name : kReserved) FUZZ_CHECK(FoldCase(path.front()) != name);
        std::string key;
        for (std::size_t depth = 1; depth <= path.size(); ++depth) {
            const bool leaf = file && depth == path.size();
            key += FoldCase(path[depth - 1]) + "/";
            const auto [it, added] = isFile_.emplace(key, leaf);
            FUZZ_CHECK(added || (!it->second && !leaf));
        }
        return true;
    }
    std::map<std::string, bool> isFile_;  // by folded path
    std::uint64_t entries_ = 0;
    std::uint64_t left_ = 0;
    std::uint64_t announced_ = 0;
};

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    // First byte: bit 0 gzips the rest here (so the fuzzer's tar structures also travel through
    // gzip), the others pick the chunk size.
    fuzz::Bytes archive(data + 1, data + size);
    if (data[0] & 1) archive = fuzz::Gzip(archive.data(), archive.size());
    CheckingSink sink;
    ArchiveExtractor extractor(sink, {kMaxEntries, kMaxTotalBytes, 50, 32 * 1024}, kReserved);
    const bool fed = fuzz::FeedInChunks(extractor, archive, 1 + (data[0] >> 1) * 8);
    FUZZ_CHECK(fed || !extractor.error().empty());
    if (fed && extractor.Finish()) FUZZ_CHECK(!sink.inFile);
    FUZZ_CHECK(extractor.file_bytes() <= kMaxTotalBytes);
    return 0;
}
