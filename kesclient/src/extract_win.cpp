#include "extract_win.h"

#include <windows.h>

#include "archive_extractor.h"
#include "files_win.h"
#include "handles_win.h"
#include "logging.h"
#include "wide_text_win.h"

namespace kesclient {
namespace {

std::wstring Relative(const std::vector<std::string>& components) {
    std::wstring path;
    for (const std::string& component : components) {
        std::wstring wide;
        WideFromUtf8(component, &wide);  // validated as UTF-8 by the extractor
        if (!path.empty()) path.push_back(L'\\');
        path += wide;
    }
    return path;
}

// Writes accepted entries below the staging folder and remembers them, in order, for the commit.
class StagingSink : public ExtractionSink {
public:
    explicit StagingSink(std::wstring root) : root_(std::move(root)) {}

    bool MakeDirectory(const std::vector<std::string>& path, std::string* why) override {
        return MakeParents(path, path.size(), why);
    }

    bool BeginFile(const std::vector<std::string>& path, std::uint64_t, std::string* why) override {
        if (!MakeParents(path, path.size() - 1, why)) return false;
        const std::wstring relative = Relative(path);
        // "Create new": a second entry that Windows maps to the same file (short names, case rules
        // beyond the extractor's fold) fails here instead of overwriting the first.
        file_.reset(::CreateFileW(JoinPath(root_, relative).c_str(), GENERIC_WRITE, 0, nullptr,
                                  CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!file_) {
            *why =
                "cannot create \"" + Utf8FromWide(relative) + "\": " + ErrorText(::GetLastError());
            return false;
        }
        files_.push_back(relative);
        return true;
    }

    bool WriteFile(const std::uint8_t* data, std::size_t size, std::string* why) override {
        while (size > 0) {
            DWORD written = 0;
            if (!::WriteFile(file_.get(), data, static_cast<DWORD>(size), &written, nullptr) ||
                written == 0) {
                *why = "cannot write \"" + Utf8FromWide(files_.back()) +
                       "\": " + ErrorText(::GetLastError());
                return false;
            }
            data += written;
            size -= written;
        }
        return true;
    }

    bool EndFile(std::string* why) override {
        if (!::FlushFileBuffers(file_.get())) {
            *why = "cannot flush \"" + Utf8FromWide(files_.back()) +
                   "\": " + ErrorText(::GetLastError());
            return false;
        }
        file_.reset();
        return true;
    }

    void Close() { file_.reset(); }
    const std::vector<std::wstring>& directories() const { return directories_; }
    const std::vector<std::wstring>& files() const { return files_; }

private:
    bool MakeParents(const std::vector<std::string>& path, std::size_t count, std::string* why) {
        std::wstring relative;
        for (std::size_t i = 0; i < count; ++i) {
            std::wstring wide;
            WideFromUtf8(path[i], &wide);
            relative += (relative.empty() ? L"" : L"\\") + wide;
            const std::wstring full = JoinPath(root_, relative);
            if (::CreateDirectoryW(full.c_str(), nullptr)) {
                directories_.push_back(relative);
            } else if (::GetLastError() != ERROR_ALREADY_EXISTS || !IsDirectory(full)) {
                *why = "cannot create folder \"" + Utf8FromWide(relative) +
                       "\": " + ErrorText(::GetLastError());
                return false;
            }
        }
        return true;
    }

    std::wstring root_;
    UniqueFileHandle file_;
    std::vector<std::wstring> directories_;  // parents first
    std::vector<std::wstring> files_;
};

// Moves the staged tree into the folder; undoes every step when one fails.
class Commit {
public:
    Commit(std::wstring staging, std::wstring backup, std::wstring folder)
        : staging_(std::move(staging)), backup_(std::move(backup)), folder_(std::move(folder)) {}

    bool Run(const StagingSink& sink, std::string* why) {
        for (const std::wstring& relative : sink.directories()) {
            const std::wstring destination = JoinPath(folder_, relative);
            if (IsDirectory(destination)) continue;
            if (Exists(destination))
                return Fail("a file is in the place of folder \"" + Utf8FromWide(relative) + "\"",
                            why);
            if (!::CreateDirectoryW(destination.c_str(), nullptr)) {
                return Fail("cannot create folder \"" + Utf8FromWide(relative) +
                                "\": " + ErrorText(::GetLastError()),
                            why);
            }
            steps_.push_back(Step{Step::kCreatedFolder, relative, {}});
        }
        for (const std::wstring& relative : sink.files()) {
            const std::wstring destination = JoinPath(folder_, relative);
            if (IsDirectory(destination))
                return Fail("a folder is in the place of \"" + Utf8FromWide(relative) + "\"", why);
            if (Exists(destination)) {
                if (!EnsureDirectory(backup_))
                    return Fail("cannot create " + Utf8FromWide(backup_), why);
                const std::wstring aside = JoinPath(backup_, std::to_wstring(steps_.size()));
                if (!::MoveFileExW(destination.c_str(), aside.c_str(), MOVEFILE_WRITE_THROUGH)) {
                    return Fail("cannot replace \"" + Utf8FromWide(relative) +
                                    "\": " + ErrorText(::GetLastError()),
                                why);
                }
                steps_.push_back(Step{Step::kSetAside, relative, aside});
            }
            if (!::MoveFileExW(JoinPath(staging_, relative).c_str(), destination.c_str(),
                               MOVEFILE_WRITE_THROUGH)) {
                return Fail("cannot place \"" + Utf8FromWide(relative) +
                                "\": " + ErrorText(::GetLastError()),
                            why);
            }
            steps_.push_back(Step{Step::kPlaced, relative, {}});
        }
        return true;
    }

private:
    struct Step {
        enum Kind { kCreatedFolder, kSetAside, kPlaced } kind;
        std::wstring relative;
        std::wstring aside;
    };

    bool Fail(const std::string& reason, std::string* why) {
        *why = reason;
        for (auto step = steps_.rbegin(); step != steps_.rend(); ++step) {
            const std::wstring destination = JoinPath(folder_, step->relative);
            switch (step->kind) {
                case Step::kPlaced:
                    RemoveFile(destination);
                    break;
                case Step::kSetAside:
                    ::MoveFileExW(step->aside.c_str(), destination.c_str(), MOVEFILE_WRITE_THROUGH);
                    break;
                case Step::kCreatedFolder:
                    ::RemoveDirectoryW(destination.c_str());
                    break;
            }
        }
        steps_.clear();
        return false;
    }

    std::wstring staging_;
    std::wstring backup_;
    std::wstring folder_;
    std::vector<Step> steps_;
};

bool FeedArchive(const std::wstring& archive, ArchiveExtractor& extractor,
                 std::vector<std::uint8_t>& buffer, std::string* why) {
    UniqueFileHandle file(::CreateFileW(archive.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                  OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (!file) {
        *why = "cannot open the archive: " + ErrorText(::GetLastError());
        return false;
    }
    for (;;) {
        DWORD read = 0;
        if (!::ReadFile(file.get(), buffer.data(), static_cast<DWORD>(buffer.size()), &read,
                        nullptr)) {
            *why = "cannot read the archive: " + ErrorText(::GetLastError());
            return false;
        }
        if (read == 0) break;
        if (!extractor.Feed(buffer.data(), read)) break;
    }
    if (!extractor.Finish()) {
        *why = extractor.error();
        return false;
    }
    return true;
}

}  // namespace

bool ExtractArchive(const std::wstring& archive, const std::wstring& folder,
                    const std::vector<std::wstring>& reservedNames,
                    std::vector<std::uint8_t>& buffer, const std::string& id, std::string* why) {
    const std::wstring unique =
        std::to_wstring(::GetCurrentProcessId()) + L"-" + std::to_wstring(::GetTickCount64());
    const std::wstring stagingName = L"~kes-staging-" + unique;
    const std::wstring backupName = L"~kes-replaced-" + unique;
    const std::wstring staging = JoinPath(folder, stagingName);
    const std::wstring backup = JoinPath(folder, backupName);
    if (!::CreateDirectoryW(staging.c_str(), nullptr)) {
        *why = "cannot create the staging folder: " + ErrorText(::GetLastError());
        return false;
    }
    std::vector<std::string> reserved = {Utf8FromWide(stagingName), Utf8FromWide(backupName)};
    for (const std::wstring& name : reservedNames) reserved.push_back(Utf8FromWide(name));

    StagingSink sink(staging);
    ArchiveExtractor extractor(sink, ArchiveLimits{}, reserved);
    bool ok = FeedArchive(archive, extractor, buffer, why);
    sink.Close();
    if (ok) {
        Log(kLogInfo, "kesclient: [%s] archive holds %s entries, %s bytes of files", id.c_str(),
            Decimal(extractor.entries()).c_str(), Decimal(extractor.file_bytes()).c_str());
        ok = Commit(staging, backup, folder).Run(sink, why);
    }
    RemoveTree(staging);
    RemoveTree(backup);
    if (ok)
        Log(kLogInfo, "kesclient: [%s] extracted into %s", id.c_str(),
            Utf8FromWide(folder).c_str());
    return ok;
}

}  // namespace kesclient
