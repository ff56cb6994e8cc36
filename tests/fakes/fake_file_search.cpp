#include "fake_platform.h"
#include "platform/file_search.h"

namespace platform {
namespace {

// The tool only asks for "<prefix>*": the prefix is compared without regard to case, as Windows
// does, and anything else in the mask must match exactly.
bool MaskMatch(const std::wstring& mask, const std::wstring& name) {
    if (mask.empty() || mask.back() != L'*') return EqualsIgnoreCase(mask, name);
    const std::wstring prefix = mask.substr(0, mask.size() - 1);
    return name.size() >= prefix.size() && EqualsIgnoreCase(name.substr(0, prefix.size()), prefix);
}

}  // namespace

std::uint32_t FindFiles(const std::wstring& pattern, std::vector<std::wstring>& names) {
    names.clear();
    auto& s = fake::State();
    const auto cut = pattern.rfind(L'\\');
    const std::wstring folder = cut == std::wstring::npos ? std::wstring() : pattern.substr(0, cut);
    const std::wstring mask = pattern.substr(cut == std::wstring::npos ? 0 : cut + 1);

    bool folderExists = s.folders.count(folder) > 0 || (folder.size() == 2 && folder[1] == L':');
    for (const auto& [path, bytes] : s.files) {
        const auto slash = path.rfind(L'\\');
        if (slash == std::wstring::npos || !EqualsIgnoreCase(path.substr(0, slash), folder))
            continue;
        folderExists = true;
        const std::wstring name = path.substr(slash + 1);
        if (MaskMatch(mask, name)) names.push_back(name);
    }
    if (names.empty()) s.lastError = folderExists ? status::kFileNotFound : status::kPathNotFound;
    return names.empty() ? s.lastError : status::kSuccess;
}

}  // namespace platform
