#include "platform/file_search.h"

#include <windows.h>

#include "platform/win32/handles.h"

namespace platform {

std::uint32_t FindFiles(const std::wstring& pattern, std::vector<std::wstring>& names) {
    names.clear();
    WIN32_FIND_DATAW entry{};
    const win32::UniqueFindHandle search(::FindFirstFileW(pattern.c_str(), &entry));
    if (!search) return ::GetLastError();
    do {
        names.emplace_back(entry.cFileName);
    } while (::FindNextFileW(search.get(), &entry));
    return 0;
}

}  // namespace platform
