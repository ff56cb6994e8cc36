#include "fake_platform.h"
#include "platform/file_search.h"
#include "platform/files.h"

namespace platform {
namespace {

std::wstring ParentOf(const std::wstring& path) {
    const auto cut = path.rfind(L'\\');
    return cut == std::wstring::npos ? std::wstring() : path.substr(0, cut);
}

// A drive root ("C:") always exists; other folders must have been created.
bool FolderExists(const std::wstring& folder) {
    return (folder.size() == 2 && folder[1] == L':') || fake::State().folders.count(folder) > 0;
}

bool Fail(std::uint32_t error) {
    fake::State().lastError = error;
    return false;
}

// Fails when the path is locked or its folder is missing.
bool Refused(const std::wstring& path, bool needFolder) {
    if (fake::State().locked.count(path)) return !Fail(32);
    return needFolder && !FolderExists(ParentOf(path)) && !Fail(status::kPathNotFound);
}

}  // namespace

std::uint32_t GetTempFolder(std::wstring& out) {
    auto& s = fake::State();
    const std::uint32_t count = s.tempFolderResult.value_or(std::uint32_t(s.tempFolder.size()));
    out = (count > 0 && count <= 260) ? s.tempFolder : std::wstring();
    return count;
}

bool PathExists(const std::wstring& path) {
    std::wstring trimmed = path;
    while (trimmed.size() > 3 && trimmed.back() == L'\\') trimmed.pop_back();
    auto& files = fake::State().files;
    return files.count(trimmed) || FolderExists(trimmed) || Fail(status::kFileNotFound);
}

bool CreateFolder(const std::wstring& path) {
    auto& s = fake::State();
    if (s.uncreatableFolders.count(path)) return Fail(status::kAccessDenied);
    if (FolderExists(path) || s.files.count(path)) return Fail(status::kAlreadyExists);
    if (!FolderExists(ParentOf(path))) return Fail(status::kPathNotFound);
    s.folders.insert(path);
    return true;
}

bool CreatePrivateFolder(const std::wstring& path) {
    return CreateFolder(path) && (fake::State().folderSecurity[path].isPrivate = true);
}

std::optional<ExistingFolder> SecureExistingFolder(const std::wstring& path) {
    auto& s = fake::State();
    const bool isFolder = FolderExists(path);
    if (!isFolder && !s.files.count(path)) return Fail(status::kFileNotFound), std::nullopt;
    auto& security = s.folderSecurity[path];
    if (security.inspectError) return Fail(security.inspectError), std::nullopt;
    ExistingFolder facts{isFolder, security.isLink, security.owner, 0};
    if (!isFolder || facts.isLink || !TrustedFolderOwner(facts.owner.kind)) return facts;
    facts.secureError = security.secureError;
    if (!facts.secureError) security.isPrivate = true;
    return facts;
}

bool MovePath(const std::wstring& from, const std::wstring& to) {
    auto& s = fake::State();
    if (s.unmovable.count(from)) return Fail(status::kAccessDenied);
    if (!PathExists(from)) return false;
    if (PathExists(to)) return Fail(status::kAlreadyExists);
    if (s.folders.erase(from)) s.folders.insert(to);
    if (auto file = s.files.extract(from)) s.files[to] = std::move(file.mapped());
    if (auto security = s.folderSecurity.extract(from)) s.folderSecurity[to] = security.mapped();
    if (s.replantedOnMove > 0 && s.replantedOnMove--) s.files[from] = {};
    return true;
}

// Another process holding it shows as a locked path.
bool HoldLockFileForLife(const std::wstring& path) {
    if (Refused(path, true)) return false;
    fake::State().files[path] = {};
    return fake::State().locked.insert(path).second;
}

bool DeleteFilePath(const std::wstring& path) {
    auto& files = fake::State().files;
    return !Refused(path, false) && (files.erase(path) || Fail(status::kFileNotFound));
}

bool WriteWholeFile(const std::wstring& path, const std::vector<std::uint8_t>& bytes) {
    if (Refused(path, true)) return false;
    fake::State().files[path] = bytes;
    return true;
}

std::optional<std::vector<std::uint8_t>> ReadWholeFile(const std::wstring& path) {
    auto it = fake::State().files.find(path);
    if (it == fake::State().files.end()) return Fail(status::kFileNotFound), std::nullopt;
    return it->second;
}

bool MapFileCreatingIfMissing(const std::wstring& path,
                              void (*use)(const std::uint8_t* data, std::size_t size, void* context),
                              void* context) {
    auto& files = fake::State().files;
    if (Refused(path, !files.count(path))) return false;
    const auto& bytes = files[path];
    if (bytes.empty()) return Fail(1006);  // an empty file cannot be mapped
    use(bytes.data(), bytes.size(), context);
    return true;
}

bool WriteFileFromStart(const std::wstring& path, const std::vector<std::uint8_t>& bytes) {
    auto& files = fake::State().files;
    if (Refused(path, !files.count(path))) return false;
    auto& file = files[path];
    if (file.size() < bytes.size()) file.resize(bytes.size());
    std::copy(bytes.begin(), bytes.end(), file.begin());
    return true;
}

// The tool only asks for "<folder>\<prefix>*", compared without regard to case.
std::uint32_t FindFiles(const std::wstring& pattern, std::vector<std::wstring>& names) {
    names.clear();
    const std::wstring folder = ParentOf(pattern);
    const std::wstring stem = pattern.substr(folder.size() + 1, pattern.size() - folder.size() - 2);
    bool folderExists = FolderExists(folder);
    for (const auto& [path, bytes] : fake::State().files) {
        if (!EqualsIgnoreCase(ParentOf(path), folder)) continue;
        folderExists = true;
        const std::wstring name = path.substr(folder.size() + 1);
        if (EqualsIgnoreCase(name.substr(0, stem.size()), stem)) names.push_back(name);
    }
    if (!names.empty()) return status::kSuccess;
    Fail(folderExists ? status::kFileNotFound : status::kPathNotFound);
    return fake::State().lastError;
}

std::uint32_t GetCurrentFolder(std::wstring& out) {
    const auto& s = fake::State();
    out = s.currentDirectoryError ? std::wstring() : s.currentDirectory;
    if (s.currentDirectoryError) Fail(s.currentDirectoryError);
    return std::uint32_t(out.size());
}

bool QueryDiskSpace(const std::wstring& path, DiskSpace& out) {
    auto& s = fake::State();
    s.diskSpaceQueries.push_back(path);
    if (s.diskSpaceError) return Fail(s.diskSpaceError);
    out = s.diskSpace;
    return true;
}

}  // namespace platform
