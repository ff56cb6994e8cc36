#pragma once
// A streaming reader of tar archives (POSIX ustar with pax extended headers, and GNU tar with its
// long names). It is fed bytes in chunks of any size and reports entries and their data; it judges
// only the format, the extractor judges what the entries ask for. Portable: tested and fuzzed
// natively.
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kesclient {

inline constexpr std::size_t kTarBlockSize = 512;
inline constexpr std::size_t kMaxTarMetadataBytes = 64 * 1024;  // a pax header or GNU long name

enum class TarEntryType {
    kFile,
    kDirectory,
    kHardLink,
    kSymbolicLink,
    kCharacterDevice,
    kBlockDevice,
    kFifo,
    kOther
};

struct TarEntry {
    std::string name;
    TarEntryType type = TarEntryType::kFile;
    char typeFlag = '0';
    std::uint64_t size = 0;
};

class TarEvents {
public:
    virtual ~TarEvents() = default;
    // Each returns false, with *why, to refuse the archive.
    virtual bool OnEntry(const TarEntry& entry, std::string* why) = 0;
    virtual bool OnData(const std::uint8_t* data, std::size_t size,
                        std::string* why) = 0;  // files only
    virtual bool OnEntryEnd(std::string* why) = 0;
};

class TarReader {
public:
    explicit TarReader(TarEvents& events) : events_(events) {}

    // False once the archive is refused; error() says why. Bytes after the end-of-archive marker
    // (the two zero blocks) are ignored: writers pad the archive to a record size.
    bool Feed(const std::uint8_t* data, std::size_t size);
    // True only when the end-of-archive marker was seen: anything else is a truncated archive.
    bool Finish();

    bool ended() const { return state_ == State::kEnd; }
    const std::string& error() const { return error_; }

private:
    enum class State { kHeader, kMetadata, kData, kPadding, kEnd, kFailed };

    bool Fail(std::string why);
    bool OnHeader();
    bool OnMetadata();
    bool EndData();

    TarEvents& events_;
    State state_ = State::kHeader;
    std::array<std::uint8_t, kTarBlockSize> block_{};
    std::size_t blockFill_ = 0;
    bool zeroBlockSeen_ = false;
    std::uint64_t remaining_ = 0;
    std::uint64_t padding_ = 0;
    bool emitting_ = false;
    char metadataType_ = 0;
    std::string metadata_;
    std::optional<std::string> pendingName_;
    std::optional<std::uint64_t> pendingSize_;
    std::string error_;
};

// A numeric header field: octal text (blanks and NULs around it) or GNU base-256. nullopt for
// anything else and for negative or 63-bit-overflowing values.
std::optional<std::uint64_t> ParseTarNumber(const std::uint8_t* field, std::size_t size);

// The header checksum, summed as unsigned or (old writers) signed bytes.
bool TarHeaderChecksumMatches(const std::uint8_t* block);

struct PaxRecords {
    std::optional<std::string> path;
    std::optional<std::uint64_t> size;
    bool sparse = false;  // GNU.sparse.*: the data is a sparse map, not the file
};
// "<length> <key>=<value>\n" records; nullopt when one is malformed.
std::optional<PaxRecords> ParsePaxRecords(std::string_view data);

}  // namespace kesclient
