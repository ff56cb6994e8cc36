#pragma once
// The download in progress: "<name>.partial" beside the target, and "<name>.resume" recording what
// the next run needs to go on with it (see resume_state.h). The digest of the expected checksum is
// computed as bytes are appended; bytes kept from an earlier run are hashed again first, so the
// verdict never trusts what was on disk.
#include <cstdint>
#include <string>

#include "digest_text.h"
#include "digest_win.h"
#include "handles_win.h"
#include "resume_state.h"
#include "run_context_win.h"

namespace kesclient {

class PartialFile {
public:
    PartialFile(std::wstring partialPath, std::wstring resumePath, Digest expected)
        : partialPath_(std::move(partialPath)),
          resumePath_(std::move(resumePath)),
          expected_(std::move(expected)) {}

    // Opens the partial file for url. Keeps its first bytes when the resume record was written for
    // the same URL and checksum and vouches for them; starts empty otherwise.
    bool Open(const std::string& url, RunContext& run, std::string* why);
    bool Restart(std::string* why);
    bool Append(const std::uint8_t* data, std::size_t size, std::string* why);

    // Writes the resume record for the bytes now on disk (flushed first), or removes it when the
    // server gave no validator to resume against.
    void Remember(const std::string& url, const std::string& validator, std::uint64_t total);
    // Flushes what has been written and records the first `offset` bytes (all of them written
    // before the call) as the resume point, for the URL and validator Remember last saw. Safe
    // beside Append on another thread: it only flushes the handle and writes the record, which
    // Append never touches.
    void Checkpoint(std::uint64_t offset);

    std::uint64_t size() const { return size_; }
    const std::string& validator() const { return validator_; }
    bool open() const { return file_.valid(); }

    // The digest of everything appended; "" when no checksum is expected.
    std::string FinishDigest();
    // Closes and renames over the target (replacing it), then drops the resume record.
    bool CommitTo(const std::wstring& target, std::string* why);
    // Closes and deletes both files: nothing of a refused download stays behind.
    void Discard();
    void Close() { file_.reset(); }
    // Closes, and deletes the files when no byte was kept: a failed first attempt leaves nothing.
    void CloseKeepingProgress();
    // Reads the closed partial file from the start, for extraction.
    const std::wstring& path() const { return partialPath_; }

private:
    bool Rehash(std::uint64_t bytes, RunContext& run, std::string* why);
    bool Hashing() const { return expected_.algorithm != DigestAlgorithm::kNone; }
    std::string ChecksumText() const;
    void WriteRecord(std::uint64_t offset);

    std::wstring partialPath_;
    std::wstring resumePath_;
    Digest expected_;
    UniqueFileHandle file_;
    Hasher hasher_;
    std::uint64_t size_ = 0;
    std::string validator_;
    std::string url_;          // of the answer being received, for the resume record
    std::uint64_t total_ = 0;  // its announced complete size, 0 when unknown
};

}  // namespace kesclient
