#include "tar_reader.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "ascii_text.h"

namespace kesclient {
namespace {

constexpr std::size_t kNameOffset = 0, kNameSize = 100;
constexpr std::size_t kSizeOffset = 124, kSizeSize = 12;
constexpr std::size_t kChecksumOffset = 148, kChecksumSize = 8;
constexpr std::size_t kTypeOffset = 156;
constexpr std::size_t kMagicOffset = 257;
constexpr std::size_t kPrefixOffset = 345, kPrefixSize = 155;
constexpr std::uint64_t kMaxValue = std::numeric_limits<std::uint64_t>::max() >> 1;

std::string FieldText(const std::uint8_t* field, std::size_t size) {
    const std::uint8_t* end = std::find(field, field + size, std::uint8_t{0});
    return std::string(reinterpret_cast<const char*>(field), static_cast<std::size_t>(end - field));
}

bool IsZeroBlock(const std::uint8_t* block) {
    return std::all_of(block, block + kTarBlockSize, [](std::uint8_t b) { return b == 0; });
}

TarEntryType TypeOf(char flag) {
    switch (flag) {
        case '0':
        case '\0':
        case '7':
            return TarEntryType::kFile;
        case '5':
            return TarEntryType::kDirectory;
        case '1':
            return TarEntryType::kHardLink;
        case '2':
            return TarEntryType::kSymbolicLink;
        case '3':
            return TarEntryType::kCharacterDevice;
        case '4':
            return TarEntryType::kBlockDevice;
        case '6':
            return TarEntryType::kFifo;
        default:
            return TarEntryType::kOther;
    }
}

// A pax record's number: at most 20 digits, and within the 63 bits any size here may have.
std::optional<std::uint64_t> ParsePaxNumber(std::string_view digits) {
    if (digits.size() > 20) return std::nullopt;
    return ParseDecimal(digits, kMaxValue);
}

}  // namespace

std::optional<std::uint64_t> ParseTarNumber(const std::uint8_t* field, std::size_t size) {
    if (size == 0) return std::nullopt;
    if (field[0] & 0x80) {
        if (field[0] & 0x40) return std::nullopt;  // negative
        std::uint64_t value = field[0] & 0x3F;
        for (std::size_t i = 1; i < size; ++i) {
            if (value > (kMaxValue >> 8)) return std::nullopt;
            value = (value << 8) | field[i];
        }
        return value;
    }
    std::size_t i = 0;
    while (i < size && field[i] == ' ') ++i;
    std::uint64_t value = 0;
    for (; i < size && field[i] >= '0' && field[i] <= '7'; ++i) {
        if (value > (kMaxValue >> 3)) return std::nullopt;
        value = (value << 3) | static_cast<std::uint64_t>(field[i] - '0');
    }
    for (; i < size; ++i) {
        if (field[i] != ' ' && field[i] != '\0') return std::nullopt;
    }
    return value;
}

bool TarHeaderChecksumMatches(const std::uint8_t* block) {
    const auto stored = ParseTarNumber(block + kChecksumOffset, kChecksumSize);
    if (!stored) return false;
    std::uint64_t unsignedSum = 0;
    std::int64_t signedSum = 0;
    for (std::size_t i = 0; i < kTarBlockSize; ++i) {
        const bool inField = i >= kChecksumOffset && i < kChecksumOffset + kChecksumSize;
        const std::uint8_t byte = inField ? ' ' : block[i];
        unsignedSum += byte;
        signedSum += static_cast<std::int8_t>(byte);
    }
    return *stored == unsignedSum || static_cast<std::int64_t>(*stored) == signedSum;
}

std::optional<PaxRecords> ParsePaxRecords(std::string_view data) {
    PaxRecords records;
    while (!data.empty()) {
        const std::size_t space = data.find(' ');
        if (space == std::string_view::npos) return std::nullopt;
        const auto length = ParsePaxNumber(data.substr(0, space));
        if (!length || *length <= space + 1 || *length > data.size()) return std::nullopt;
        const std::string_view record = data.substr(0, static_cast<std::size_t>(*length));
        data.remove_prefix(record.size());
        if (record.back() != '\n') return std::nullopt;
        const std::string_view pair = record.substr(space + 1, record.size() - space - 2);
        const std::size_t equals = pair.find('=');
        if (equals == std::string_view::npos || equals == 0) return std::nullopt;
        const std::string_view key = pair.substr(0, equals);
        const std::string_view value = pair.substr(equals + 1);
        if (key == "path") {
            if (value.empty()) return std::nullopt;
            records.path = std::string(value);
        } else if (key == "size") {
            records.size = ParsePaxNumber(value);
            if (!records.size) return std::nullopt;
        } else if (key.starts_with("GNU.sparse.")) {
            records.sparse = true;
        }
    }
    return records;
}

bool TarReader::Fail(std::string why) {
    if (state_ != State::kFailed) {
        error_ = std::move(why);
        state_ = State::kFailed;
    }
    return false;
}

bool TarReader::Feed(const std::uint8_t* data, std::size_t size) {
    while (size > 0) {
        switch (state_) {
            case State::kFailed:
                return false;
            case State::kEnd:
                return true;
            case State::kHeader: {
                const std::size_t take = std::min(size, kTarBlockSize - blockFill_);
                std::memcpy(block_.data() + blockFill_, data, take);
                blockFill_ += take;
                data += take;
                size -= take;
                if (blockFill_ == kTarBlockSize) {
                    blockFill_ = 0;
                    if (!OnHeader()) return false;
                }
                break;
            }
            case State::kMetadata: {
                const auto take =
                    static_cast<std::size_t>(std::min<std::uint64_t>(size, remaining_));
                metadata_.append(reinterpret_cast<const char*>(data), take);
                data += take;
                size -= take;
                remaining_ -= take;
                if (remaining_ == 0 && !OnMetadata()) return false;
                break;
            }
            case State::kData: {
                const auto take =
                    static_cast<std::size_t>(std::min<std::uint64_t>(size, remaining_));
                std::string why;
                if (emitting_ && take > 0 && !events_.OnData(data, take, &why)) return Fail(why);
                data += take;
                size -= take;
                remaining_ -= take;
                if (remaining_ == 0 && !EndData()) return false;
                break;
            }
            case State::kPadding: {
                const auto take = static_cast<std::size_t>(std::min<std::uint64_t>(size, padding_));
                data += take;
                size -= take;
                padding_ -= take;
                if (padding_ == 0) state_ = State::kHeader;
                break;
            }
        }
    }
    return state_ != State::kFailed;
}

bool TarReader::Finish() {
    if (state_ == State::kFailed) return false;
    if (state_ != State::kEnd) return Fail("archive ends before its end-of-archive marker");
    return true;
}

bool TarReader::OnHeader() {
    const std::uint8_t* block = block_.data();
    if (IsZeroBlock(block)) {
        if (pendingName_ || pendingSize_) return Fail("extended header without an entry");
        if (zeroBlockSeen_) {
            state_ = State::kEnd;
        } else {
            zeroBlockSeen_ = true;
        }
        return true;
    }
    if (zeroBlockSeen_) return Fail("lone zero block inside the archive");
    if (!TarHeaderChecksumMatches(block)) return Fail("bad header checksum");
    const bool posix = std::memcmp(block + kMagicOffset,
                                   "ustar\0"
                                   "00",
                                   8) == 0;
    const bool gnu = std::memcmp(block + kMagicOffset, "ustar  \0", 8) == 0;
    if (!posix && !gnu) return Fail("not a ustar archive");

    const char flag = static_cast<char>(block[kTypeOffset]);
    const auto size = ParseTarNumber(block + kSizeOffset, kSizeSize);
    if (!size) return Fail("bad size field");

    if (flag == 'x' || flag == 'g' || flag == 'L' || flag == 'K') {
        if (*size > kMaxTarMetadataBytes) return Fail("extended header too large");
        metadataType_ = flag;
        metadata_.clear();
        remaining_ = *size;
        padding_ = (kTarBlockSize - *size % kTarBlockSize) % kTarBlockSize;
        state_ = State::kMetadata;
        return remaining_ > 0 || OnMetadata();
    }

    TarEntry entry;
    entry.typeFlag = flag;
    entry.type = TypeOf(flag);
    entry.size = pendingSize_.value_or(*size);
    if (pendingName_) {
        entry.name = *pendingName_;
    } else {
        entry.name = FieldText(block + kNameOffset, kNameSize);
        const std::string prefix =
            posix ? FieldText(block + kPrefixOffset, kPrefixSize) : std::string();
        if (!prefix.empty()) entry.name = prefix + "/" + entry.name;
    }
    pendingName_.reset();
    pendingSize_.reset();
    // A header whose name field starts with NUL names nothing (an empty pax path is refused as
    // malformed before it gets here).
    if (entry.name.empty()) return Fail("entry without a name");

    std::string why;
    if (!events_.OnEntry(entry, &why)) return Fail(why);
    // Directories and links carry no data in practice; whatever they declare is skipped.
    emitting_ = entry.type == TarEntryType::kFile;
    remaining_ = entry.size;
    padding_ = (kTarBlockSize - entry.size % kTarBlockSize) % kTarBlockSize;
    state_ = State::kData;
    return remaining_ > 0 || EndData();
}

bool TarReader::OnMetadata() {
    state_ = padding_ > 0 ? State::kPadding : State::kHeader;
    switch (metadataType_) {
        case 'L': {
            std::string name = metadata_.substr(0, metadata_.find('\0'));
            if (name.empty()) return Fail("empty long name");
            pendingName_ = std::move(name);
            return true;
        }
        case 'K':
            return true;  // a long link target: the link entry that follows is refused anyway
        case 'x':
        case 'g': {
            const auto records = ParsePaxRecords(metadata_);
            if (!records) return Fail("malformed extended header");
            if (records->sparse) return Fail("sparse file");
            if (metadataType_ == 'x') {
                if (records->path) pendingName_ = records->path;
                if (records->size) pendingSize_ = records->size;
            }
            return true;
        }
    }
    return Fail("unexpected metadata");
}

bool TarReader::EndData() {
    std::string why;
    if (!events_.OnEntryEnd(&why)) return Fail(why);
    state_ = padding_ > 0 ? State::kPadding : State::kHeader;
    return true;
}

}  // namespace kesclient
