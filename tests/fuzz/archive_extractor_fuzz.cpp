// The extraction policy, as a downloaded package reaches it: tar or tar.gz, in chunks. The sink
// stands in for the staging folder and checks what the policy lets through.
#include <map>

#include "archive_extractor.h"
#include "entry_name.h"
#include "fuzz_check.h"

using namespace kesclient;

constexpr std::uint64_t kMaxEntries = 64, kMaxTotalBytes = 64 * 1024;
static const std::vector<std::string> kReserved = {"~staging", ".kesclient-partial"};

using Path = std::vector<std::string>;

struct CheckingSink : ExtractionSink {
    bool MakeDirectory(const Path& path, std::string*) override { return Claim(path, false); }
    bool BeginFile(const Path& path, std::uint64_t size, std::string*) override {
        inFile = Claim(path, true);
        left = size;
        FUZZ_CHECK((announced += size) <= kMaxTotalBytes);
        return true;
    }
    bool WriteFile(const std::uint8_t*, std::size_t size, std::string*) override {
        FUZZ_CHECK(inFile && size <= left);  // exactly the announced bytes per file
        left -= size;
        return true;
    }
    bool EndFile(std::string*) override {
        FUZZ_CHECK(inFile && left == 0);
        inFile = false;
        return true;
    }
    // Only names the entry-name rules accept as they stand, no reserved top-level name, and no
    // name twice or below a file regardless of case (folders may repeat).
    bool Claim(const Path& path, bool file) {
        FUZZ_CHECK(!inFile && ++entries <= kMaxEntries);
        FUZZ_CHECK(!path.empty() && SplitEntryName(fuzz::Joined(path), nullptr) == path);
        for (const std::string& name : kReserved) FUZZ_CHECK(FoldCase(path.front()) != name);
        std::string key;
        for (std::size_t depth = 1; depth <= path.size(); ++depth) {
            const bool leaf = file && depth == path.size();
            const auto [it, added] = isFile.emplace(key += FoldCase(path[depth - 1]) + "/", leaf);
            FUZZ_CHECK(added || (!it->second && !leaf));
        }
        return true;
    }
    std::map<std::string, bool> isFile;  // by folded path
    bool inFile = false;
    std::uint64_t entries = 0, left = 0, announced = 0;
};

FUZZ_TARGET {
    if (size < 1) return;
    // The first byte: bit 0 gzips the rest (tar structures through gzip too), the others the chunk.
    fuzz::Bytes archive(data + 1, data + size);
    if (data[0] & 1) archive = fuzz::Gzip(archive.data(), archive.size());
    CheckingSink sink;
    ArchiveExtractor extractor(sink, {kMaxEntries, kMaxTotalBytes, 50, 32 * 1024}, kReserved);
    const bool fed = fuzz::FeedInChunks(extractor, archive, 1 + (data[0] >> 1) * 8);
    FUZZ_CHECK(fed || !extractor.error().empty());
    if (fed && extractor.Finish()) FUZZ_CHECK(!sink.inFile);
    FUZZ_CHECK(extractor.file_bytes() <= kMaxTotalBytes);
}
