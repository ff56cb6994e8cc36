#pragma once
// Extraction policy for a downloaded tar or tar.gz package: what may be created and how much. The
// archive's bytes come in chunks; accepted entries go to a sink that writes them (a staging folder
// on Windows, memory in tests). Everything is refused at the first doubt: a package that asks for
// anything unusual is not a package we install. Portable: tested and fuzzed natively.
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "gzip_decoder.h"
#include "tar_reader.h"

namespace kesclient {

struct ArchiveLimits {
    std::uint64_t maxEntries = 20000;
    std::uint64_t maxTotalBytes = 8ull << 30;    // the sum of the files' sizes
    std::uint64_t maxRatio = 200;                // decompressed bytes per compressed byte
    std::uint64_t ratioAllowance = 16ull << 20;  // small archives compress well; let them
};

class ExtractionSink {
public:
    virtual ~ExtractionSink() = default;
    // Paths are validated components, relative to the extraction folder. Each returns false, with
    // *why, when it cannot do what is asked.
    virtual bool MakeDirectory(const std::vector<std::string>& path, std::string* why) = 0;
    virtual bool BeginFile(const std::vector<std::string>& path, std::uint64_t size,
                           std::string* why) = 0;
    virtual bool WriteFile(const std::uint8_t* data, std::size_t size, std::string* why) = 0;
    virtual bool EndFile(std::string* why) = 0;
};

class ArchiveExtractor : private TarEvents {
public:
    // reservedNames: top-level names the archive must not use (the extractor's own working files).
    ArchiveExtractor(ExtractionSink& sink, ArchiveLimits limits,
                     std::vector<std::string> reservedNames = {});
    ~ArchiveExtractor() override;

    // Compressed or plain: gzip is recognised by its first bytes, whatever the file is called.
    bool Feed(const std::uint8_t* data, std::size_t size);
    bool Finish();

    const std::string& error() const { return error_; }
    std::uint64_t entries() const { return entries_; }
    std::uint64_t file_bytes() const { return fileBytes_; }

private:
    bool OnEntry(const TarEntry& entry, std::string* why) override;
    bool OnData(const std::uint8_t* data, std::size_t size, std::string* why) override;
    bool OnEntryEnd(std::string* why) override;

    bool FeedTar(const std::uint8_t* data, std::size_t size);
    bool Fail(const std::string& why);
    bool Start(const std::uint8_t* data, std::size_t size);

    enum class Kind { kDirectory, kFile };

    ExtractionSink& sink_;
    ArchiveLimits limits_;
    std::vector<std::string> reservedFolded_;
    TarReader reader_;
    std::unique_ptr<GzipDecoder> gzip_;
    bool started_ = false;
    bool failed_ = false;
    bool inFile_ = false;
    std::vector<std::uint8_t> head_;    // the first bytes, until gzip or not is known
    std::map<std::string, Kind> seen_;  // folded path -> what it is
    std::uint64_t entries_ = 0;
    std::uint64_t fileBytes_ = 0;
    std::string error_;
};

}  // namespace kesclient
