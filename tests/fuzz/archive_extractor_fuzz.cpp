// The extraction policy, as a downloaded package reaches it: tar or tar.gz, in chunks. The sink
// stands in for the staging folder and checks what the policy lets through.
#include <set>

#include "archive_extractor.h"
#include "entry_name.h"
#include "fuzz_check.h"

using namespace kesclient;

constexpr std::uint64_t kMaxEntries = 64, kMaxTotalBytes = 64 * 1024;
static const std::vector<std::string> kReserved = {"~staging", ".kesclient-partial"};

using Path = std::vector<std::string>;

struct CheckingSink : ExtractionSink {
    bool MakeDirectory(const Path& path, std::string*) override { return Claim(path); }
    bool BeginFile(const Path& path, std::uint64_t, std::string*) override {
        // No file twice regardless of case; where files and folders meet is pinned by unit rows.
        FUZZ_CHECK(files.insert(FoldCase(fuzz::Joined(path))).second);
        return inFile = Claim(path);
    }
    // Data only inside a file; how many bytes each gets is the tar_reader target's.
    bool WriteFile(const std::uint8_t*, std::size_t, std::string*) override {
        FUZZ_CHECK(inFile);
        return true;
    }
    bool EndFile(std::string*) override {
        FUZZ_CHECK(inFile);
        inFile = false;
        return true;
    }
    // Only names the entry-name rules accept as they stand, and no reserved top-level name.
    bool Claim(const Path& path) {
        FUZZ_CHECK(!inFile && ++entries <= kMaxEntries);
        FUZZ_CHECK(!path.empty() && SplitEntryName(fuzz::Joined(path), nullptr) == path);
        for (const std::string& name : kReserved) FUZZ_CHECK(FoldCase(path.front()) != name);
        return true;
    }
    std::set<std::string> files;  // folded
    bool inFile = false;
    std::uint64_t entries = 0;
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
