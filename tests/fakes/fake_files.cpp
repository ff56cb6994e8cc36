#include "fake_platform.h"
#include "platform/files.h"

namespace platform {
namespace {
constexpr std::uint32_t kSharingViolation = 32;

std::wstring ParentOf(const std::wstring& path) {
    const auto cut = path.rfind(L'\\');
    return cut == std::wstring::npos ? std::wstring() : path.substr(0, cut);
}

// A drive root ("C:") always exists; other folders must have been created.
bool FolderExists(const std::wstring& folder) {
    return (folder.size() == 2 && folder[1] == L':') || fake::State().folders.count(folder) > 0;
}

// Sets the error and says so when the path is locked or its folder is missing.
bool Refused(const std::wstring& path, bool needFolder) {
    auto& s = fake::State();
    if (s.locked.count(path)) s.lastError = kSharingViolation;
    else if (needFolder && !FolderExists(ParentOf(path))) s.lastError = status::kPathNotFound;
    else return false;
    return true;
}
}  // namespace

std::uint32_t GetTempFolder(std::wstring& out) {
    auto& s = fake::State();
    const std::uint32_t count =
        s.tempFolderResult.value_or(static_cast<std::uint32_t>(s.tempFolder.size()));
    out = (count > 0 && count <= 260) ? s.tempFolder : std::wstring();
    return count;
}

bool PathExists(const std::wstring& path) {
    std::wstring trimmed = path;
    while (trimmed.size() > 3 && trimmed.back() == L'\\') trimmed.pop_back();
    const bool exists = fake::State().files.count(trimmed) || FolderExists(trimmed);
    if (!exists) fake::State().lastError = status::kFileNotFound;
    return exists;
}

bool CreateFolder(const std::wstring& path) {
    auto& s = fake::State();
    if (s.uncreatableFolders.count(path)) {
        s.lastError = status::kAccessDenied;
        return false;
    }
    if (FolderExists(path) || s.files.count(path)) {
        s.lastError = status::kAlreadyExists;
        return false;
    }
    if (!FolderExists(ParentOf(path))) {
        s.lastError = status::kPathNotFound;
        return false;
    }
    s.folders.insert(path);
    return true;
}

bool CreatePrivateFolder(const std::wstring& path) {
    if (!CreateFolder(path)) return false;
    fake::State().folderSecurity[path].isPrivate = true;
    return true;
}

std::optional<ExistingFolder> SecureExistingFolder(const std::wstring& path) {
    auto& s = fake::State();
    const bool isFolder = FolderExists(path);
    if (!isFolder && !s.files.count(path)) {
        s.lastError = status::kFileNotFound;
        return std::nullopt;
    }
    fake::PlatformState::FolderSecurity& security = s.folderSecurity[path];
    if (security.inspectError) {
        s.lastError = security.inspectError;
        return std::nullopt;
    }
    ExistingFolder facts{isFolder, security.isLink, security.owner, 0};
    if (!isFolder || facts.isLink || !TrustedFolderOwner(facts.owner.kind)) return facts;
    facts.secureError = security.secureError;
    if (!facts.secureError) security.isPrivate = true;
    return facts;
}

bool MovePath(const std::wstring& from, const std::wstring& to) {
    auto& s = fake::State();
    if (s.unmovable.count(from) || !PathExists(from)) {
        s.lastError = s.unmovable.count(from) ? status::kAccessDenied : status::kFileNotFound;
        return false;
    }
    if (PathExists(to)) {
        s.lastError = status::kAlreadyExists;
        return false;
    }
    if (s.folders.erase(from)) s.folders.insert(to);
    if (auto file = s.files.extract(from)) s.files[to] = std::move(file.mapped());
    if (auto security = s.folderSecurity.extract(from)) s.folderSecurity[to] = security.mapped();
    if (s.replantedOnMove > 0) {
        --s.replantedOnMove;
        s.files[from] = {};
    }
    return true;
}

bool DeleteFilePath(const std::wstring& path) {
    auto& s = fake::State();
    if (Refused(path, false)) return false;
    if (!s.files.erase(path)) {
        s.lastError = status::kFileNotFound;
        return false;
    }
    return true;
}

bool WriteWholeFile(const std::wstring& path, const std::vector<std::uint8_t>& bytes) {
    if (Refused(path, true)) return false;
    fake::State().files[path] = bytes;
    return true;
}

std::optional<std::vector<std::uint8_t>> ReadWholeFile(const std::wstring& path) {
    auto& s = fake::State();
    auto it = s.files.find(path);
    if (it == s.files.end()) {
        s.lastError = status::kFileNotFound;
        return std::nullopt;
    }
    return it->second;
}

bool MapFileCreatingIfMissing(const std::wstring& path,
                              void (*use)(const std::uint8_t* data, std::size_t size, void* context),
                              void* context) {
    auto& s = fake::State();
    if (Refused(path, !s.files.count(path))) return false;
    if (!s.files.count(path)) s.files[path] = {};
    const std::vector<std::uint8_t>& bytes = s.files[path];
    if (bytes.empty()) {
        s.lastError = 1006;  // ERROR_FILE_INVALID: an empty file cannot be mapped
        return false;
    }
    use(bytes.data(), bytes.size(), context);
    return true;
}

bool WriteFileFromStart(const std::wstring& path, const std::vector<std::uint8_t>& bytes) {
    auto& s = fake::State();
    if (Refused(path, !s.files.count(path))) return false;
    std::vector<std::uint8_t>& file = s.files[path];
    if (file.size() < bytes.size()) file.resize(bytes.size());
    std::copy(bytes.begin(), bytes.end(), file.begin());
    return true;
}

}  // namespace platform
