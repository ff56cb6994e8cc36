#include <cwctype>

#include "fake_platform.h"
#include "platform/file_search.h"

namespace platform {
namespace {

wchar_t Fold(wchar_t c) {
    return static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(c)));
}

// '*' any run, '?' any one character, everything else without regard to case, as Windows does.
bool WildcardMatch(std::wstring_view mask, std::wstring_view name) {
    std::size_t m = 0, n = 0, starAt = std::wstring_view::npos, resumeAt = 0;
    while (n < name.size()) {
        if (m < mask.size() && mask[m] == L'*') {
            starAt = m++;
            resumeAt = n;
        } else if (m < mask.size() && (mask[m] == L'?' || Fold(mask[m]) == Fold(name[n]))) {
            ++m;
            ++n;
        } else if (starAt != std::wstring_view::npos) {
            m = starAt + 1;
            n = ++resumeAt;
        } else {
            return false;
        }
    }
    while (m < mask.size() && mask[m] == L'*') ++m;
    return m == mask.size();
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
        if (WildcardMatch(mask, name)) names.push_back(name);
    }
    if (names.empty()) s.lastError = folderExists ? status::kFileNotFound : status::kPathNotFound;
    return names.empty() ? s.lastError : status::kSuccess;
}

}  // namespace platform
