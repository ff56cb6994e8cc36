#include "archive_extractor.h"

#include "entry_name.h"

namespace kesclient {
namespace {

constexpr std::size_t kDetectBytes = 3;

const char* TypeName(TarEntryType type) {
    switch (type) {
        case TarEntryType::kHardLink:
            return "hard link";
        case TarEntryType::kSymbolicLink:
            return "symbolic link";
        case TarEntryType::kCharacterDevice:
            return "character device";
        case TarEntryType::kBlockDevice:
            return "block device";
        case TarEntryType::kFifo:
            return "FIFO";
        case TarEntryType::kOther:
            return "unsupported entry type";
        case TarEntryType::kFile:
            return "file";
        case TarEntryType::kDirectory:
            return "directory";
    }
    return "unknown";
}

bool Refuse(std::string* why, std::string text) {
    *why = std::move(text);
    return false;
}

std::string JoinFolded(const std::vector<std::string>& components, std::size_t count) {
    std::string path;
    for (std::size_t i = 0; i < count; ++i) {
        if (i > 0) path.push_back('/');
        path += FoldCase(components[i]);
    }
    return path;
}

}  // namespace

ArchiveExtractor::ArchiveExtractor(ExtractionSink& sink, ArchiveLimits limits,
                                   std::vector<std::string> reservedNames)
    : sink_(sink), limits_(limits), reader_(*this) {
    for (const std::string& name : reservedNames) reservedFolded_.push_back(FoldCase(name));
}

ArchiveExtractor::~ArchiveExtractor() = default;

bool ArchiveExtractor::Fail(const std::string& why) {
    if (!failed_) {
        failed_ = true;
        error_ = why;
    }
    return false;
}

bool ArchiveExtractor::Start(const std::uint8_t* data, std::size_t size) {
    started_ = true;
    if (LooksLikeGzip(data, size)) {
        // Output is bounded by the tar limits plus room for headers and padding.
        const std::uint64_t overhead = limits_.maxEntries * 3 * kTarBlockSize + (1u << 20);
        gzip_ = std::make_unique<GzipDecoder>(
            GzipLimits{limits_.maxTotalBytes + overhead, limits_.maxRatio, limits_.ratioAllowance});
    }
    return true;
}

bool ArchiveExtractor::Feed(const std::uint8_t* data, std::size_t size) {
    if (failed_) return false;
    if (!started_) {
        if (head_.size() + size < kDetectBytes) {
            head_.insert(head_.end(), data, data + size);
            return true;
        }
        if (!head_.empty()) {
            std::vector<std::uint8_t> head = std::move(head_);
            head.insert(head.end(), data, data + size);
            Start(head.data(), head.size());
            return FeedTar(head.data(), head.size());
        }
        Start(data, size);
    }
    return FeedTar(data, size);
}

bool ArchiveExtractor::FeedTar(const std::uint8_t* data, std::size_t size) {
    if (!gzip_) return reader_.Feed(data, size) || Fail(reader_.error());
    const bool ok = gzip_->Feed(data, size, [this](const std::uint8_t* out, std::size_t length) {
        return reader_.Feed(out, length);
    });
    if (ok) return true;
    return Fail(!reader_.error().empty() ? reader_.error() : gzip_->error());
}

bool ArchiveExtractor::Finish() {
    if (failed_) return false;
    if (!started_) {
        if (head_.empty()) return Fail("empty archive");
        Start(head_.data(), head_.size());
        if (!FeedTar(head_.data(), head_.size())) return false;
    }
    if (gzip_ && !gzip_->Finish()) return Fail(gzip_->error());
    if (!reader_.Finish()) return Fail(reader_.error());
    return true;
}

bool ArchiveExtractor::OnEntry(const TarEntry& entry, std::string* why) {
    if (++entries_ > limits_.maxEntries) return Refuse(why, "too many entries");
    if (entry.type != TarEntryType::kFile && entry.type != TarEntryType::kDirectory) {
        *why = std::string(TypeName(entry.type)) + " \"" + entry.name + "\"";
        return false;
    }
    std::string reason;
    auto components = SplitEntryName(entry.name, &reason);
    if (!components) return Refuse(why, reason + ": \"" + entry.name + "\"");
    if (components->empty()) {
        if (entry.type == TarEntryType::kDirectory) return true;  // "./" itself
        return Refuse(why, "file without a name: \"" + entry.name + "\"");
    }
    const std::string top = FoldCase(components->front());
    for (const std::string& reserved : reservedFolded_) {
        if (top == reserved)
            return Refuse(why, "name reserved for the extraction: \"" + entry.name + "\"");
    }

    // A file may not sit where a folder is or will be, nor twice; folders may repeat, and the
    // folders above an entry exist from then on even when the archive does not list them.
    for (std::size_t depth = 1; depth < components->size(); ++depth) {
        const auto [parent, added] =
            seen_.emplace(JoinFolded(*components, depth), Kind::kDirectory);
        if (!added && parent->second == Kind::kFile) {
            return Refuse(why, "entry below a file: \"" + entry.name + "\"");
        }
    }
    const Kind kind = entry.type == TarEntryType::kDirectory ? Kind::kDirectory : Kind::kFile;
    const auto [where, inserted] = seen_.emplace(JoinFolded(*components, components->size()), kind);
    if (!inserted && (kind == Kind::kFile || where->second == Kind::kFile)) {
        return Refuse(why, "name used twice (letter case ignored): \"" + entry.name + "\"");
    }
    if (kind == Kind::kDirectory) return sink_.MakeDirectory(*components, why);

    if (entry.size > limits_.maxTotalBytes - fileBytes_)
        return Refuse(why, "files larger than the limit");
    fileBytes_ += entry.size;
    inFile_ = true;
    return sink_.BeginFile(*components, entry.size, why);
}

bool ArchiveExtractor::OnData(const std::uint8_t* data, std::size_t size, std::string* why) {
    return sink_.WriteFile(data, size, why);
}

bool ArchiveExtractor::OnEntryEnd(std::string* why) {
    if (!inFile_) return true;
    inFile_ = false;
    return sink_.EndFile(why);
}

}  // namespace kesclient
