#include "partial_file_win.h"

#include <algorithm>

#include "files_win.h"
#include "logging.h"
#include "url.h"
#include "wide_text_win.h"

namespace kesclient {
namespace {

bool SetSize(HANDLE file, std::uint64_t size) {
    LARGE_INTEGER position{};
    position.QuadPart = static_cast<LONGLONG>(size);
    return ::SetFilePointerEx(file, position, nullptr, FILE_BEGIN) && ::SetEndOfFile(file);
}

}  // namespace

std::string PartialFile::ChecksumText() const {
    if (!Hashing()) return {};
    return std::string(expected_.algorithm == DigestAlgorithm::kSha512 ? "sha512:" : "sha256:") +
           expected_.hex;
}

bool PartialFile::Open(const std::string& url, RunContext& run, std::string* why) {
    file_.reset(::CreateFileW(partialPath_.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ,
                              nullptr, OPEN_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (!file_) {
        *why = "cannot open " + Utf8FromWide(partialPath_) + ": " + ErrorText(::GetLastError());
        return false;
    }
    LARGE_INTEGER onDisk{};
    ::GetFileSizeEx(file_.get(), &onDisk);
    std::string text;
    std::optional<ResumeState> state;
    if (ReadSmallFile(resumePath_, kMaxResumeStateBytes, &text)) state = ParseResumeState(text);
    const bool keep = state && state->url == url && state->checksum == ChecksumText() &&
                      state->offset > 0 &&
                      state->offset <= static_cast<std::uint64_t>(onDisk.QuadPart);
    if (!keep) return Restart(why);

    if (!Rehash(state->offset, run, why)) return Restart(why);
    // Bytes past the recorded offset were written after the last record and are not vouched for.
    if (!SetSize(file_.get(), state->offset)) {
        *why = "cannot truncate " + Utf8FromWide(partialPath_) + ": " + ErrorText(::GetLastError());
        return false;
    }
    size_ = state->offset;
    validator_ = state->validator;
    Log(kLogInfo, "kesclient: resuming %s at byte %s (validator %s)", UrlForLog(url).c_str(),
        Decimal(size_).c_str(), validator_.c_str());
    return true;
}

bool PartialFile::Rehash(std::uint64_t bytes, RunContext& run, std::string* why) {
    if (!Hashing()) return true;
    if (!hasher_.Start(expected_.algorithm)) {
        *why = "cannot start hashing";
        return false;
    }
    LARGE_INTEGER start{};
    if (!::SetFilePointerEx(file_.get(), start, nullptr, FILE_BEGIN)) return false;
    while (bytes > 0) {
        const auto chunk = static_cast<DWORD>(std::min<std::uint64_t>(bytes, run.buffer.size()));
        DWORD read = 0;
        if (!::ReadFile(file_.get(), run.buffer.data(), chunk, &read, nullptr) || read == 0) {
            *why = "cannot read back the partial file: " + ErrorText(::GetLastError());
            return false;
        }
        hasher_.Update(run.buffer.data(), read);
        bytes -= read;
    }
    return true;
}

bool PartialFile::Restart(std::string* why) {
    size_ = 0;
    validator_.clear();
    RemoveFile(resumePath_);
    if (!SetSize(file_.get(), 0)) {
        *why = "cannot empty " + Utf8FromWide(partialPath_) + ": " + ErrorText(::GetLastError());
        return false;
    }
    if (Hashing() && !hasher_.Start(expected_.algorithm)) {
        *why = "cannot start hashing";
        return false;
    }
    return true;
}

bool PartialFile::Append(const std::uint8_t* data, std::size_t size, std::string* why) {
    if (Hashing() && !hasher_.Update(data, size)) {
        *why = "hashing failed";
        return false;
    }
    while (size > 0) {
        DWORD written = 0;
        if (!::WriteFile(file_.get(), data, static_cast<DWORD>(size), &written, nullptr) ||
            written == 0) {
            *why =
                "cannot write " + Utf8FromWide(partialPath_) + ": " + ErrorText(::GetLastError());
            return false;
        }
        data += written;
        size -= written;
        size_ += written;
    }
    return true;
}

void PartialFile::Remember(const std::string& url, const std::string& validator,
                           std::uint64_t total) {
    validator_ = validator;
    url_ = url;
    total_ = total;
    if (validator.empty() || size_ == 0) {
        RemoveFile(resumePath_);
        return;
    }
    if (!::FlushFileBuffers(file_.get())) return;  // an unflushed record could vouch for lost bytes
    WriteRecord(size_);
}

void PartialFile::Checkpoint(std::uint64_t offset) {
    if (!::FlushFileBuffers(file_.get())) return;
    if (!validator_.empty() && offset > 0) WriteRecord(offset);
}

void PartialFile::WriteRecord(std::uint64_t offset) {
    const ResumeState state{url_, validator_, ChecksumText(), offset, total_};
    if (!ReplaceFileContents(resumePath_, SerialiseResumeState(state))) {
        Log(kLogWarning, "kesclient: cannot record how to resume %s: %s", UrlForLog(url_).c_str(),
            ErrorText(::GetLastError()).c_str());
    }
}

std::string PartialFile::FinishDigest() {
    return Hashing() ? hasher_.FinishHex() : std::string();
}

bool PartialFile::CommitTo(const std::wstring& target, std::string* why) {
    if (!::FlushFileBuffers(file_.get())) {
        *why = "cannot flush " + Utf8FromWide(partialPath_) + ": " + ErrorText(::GetLastError());
        return false;
    }
    file_.reset();
    if (!::MoveFileExW(partialPath_.c_str(), target.c_str(),
                       MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
        *why = "cannot move the download to " + Utf8FromWide(target) + ": " +
               ErrorText(::GetLastError());
        return false;
    }
    RemoveFile(resumePath_);
    return true;
}

void PartialFile::CloseKeepingProgress() {
    if (size_ == 0) {
        Discard();
    } else {
        Close();
    }
}

void PartialFile::Discard() {
    file_.reset();
    RemoveFile(partialPath_);
    RemoveFile(resumePath_);
    size_ = 0;
    validator_.clear();
}

}  // namespace kesclient
