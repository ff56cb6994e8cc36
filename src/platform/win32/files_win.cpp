#include "platform/files.h"

#include <windows.h>
#include <aclapi.h>
#include <sddl.h>

#include "platform/win32/handles.h"
#include "platform/win32/security_win.h"

namespace platform {

namespace {
using GetTempPathFunction = DWORD(WINAPI*)(DWORD, LPWSTR);

// Looked up at run time: older Windows and Wine 8 do not have it.
GetTempPathFunction TempPathFunction() {
    const FARPROC found = ::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "GetTempPath2W");
    return found ? reinterpret_cast<GetTempPathFunction>(reinterpret_cast<void*>(found))
                 : &::GetTempPathW;
}
}  // namespace

std::uint32_t GetTempFolder(std::wstring& out) {
    wchar_t buffer[MAX_PATH];
    const DWORD length = TempPathFunction()(MAX_PATH, buffer);
    out = (length > 0 && length <= MAX_PATH) ? std::wstring(buffer, length) : std::wstring();
    return length;
}

bool PathExists(const std::wstring& path) {
    return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

bool CreateFolder(const std::wstring& path) { return ::CreateDirectoryW(path.c_str(), nullptr); }

namespace {

// Full control for SYSTEM and the Administrators, inherited by everything below; protected, so
// that the parent's entries (anyone may create in a temp folder) do not flow in.
constexpr wchar_t kPrivateFolderSddl[] = L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";

using win32::UniqueLocal;

UniqueLocal PrivateFolderDescriptor() {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(kPrivateFolderSddl, SDDL_REVISION_1,
                                                                &descriptor, nullptr))
        return UniqueLocal();
    return UniqueLocal(descriptor);
}

}  // namespace

bool CreatePrivateFolder(const std::wstring& path) {
    const UniqueLocal descriptor = PrivateFolderDescriptor();
    if (!descriptor) return false;
    SECURITY_ATTRIBUTES attributes{sizeof(attributes), descriptor.get(), FALSE};
    return ::CreateDirectoryW(path.c_str(), &attributes);
}

std::optional<ExistingFolder> SecureExistingFolder(const std::wstring& path) {
    win32::UniqueFileHandle folder(::CreateFileW(
        path.c_str(), READ_CONTROL | WRITE_DAC | FILE_READ_ATTRIBUTES,
        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
        FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (!folder) return std::nullopt;
    BY_HANDLE_FILE_INFORMATION information{};
    if (!::GetFileInformationByHandle(folder.get(), &information)) return std::nullopt;

    ExistingFolder facts;
    facts.isFolder = (information.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    facts.isLink = (information.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
    facts.owner = win32::OwnerOf(folder.get(), SE_FILE_OBJECT);
    if (!facts.isFolder || facts.isLink || !TrustedFolderOwner(facts.owner.kind)) return facts;

    const UniqueLocal descriptor = PrivateFolderDescriptor();
    BOOL present = FALSE, defaulted = FALSE;
    PACL dacl = nullptr;
    if (!descriptor || !::GetSecurityDescriptorDacl(descriptor.get(), &present, &dacl, &defaulted)) {
        facts.secureError = ::GetLastError();
        return facts;
    }
    const DWORD secured =
        ::SetSecurityInfo(folder.get(), SE_FILE_OBJECT,
                          DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION, nullptr,
                          nullptr, dacl, nullptr);
    if (secured != ERROR_SUCCESS) facts.secureError = secured;
    return facts;
}

bool MovePath(const std::wstring& from, const std::wstring& to) {
    return ::MoveFileExW(from.c_str(), to.c_str(), 0);
}

bool DeleteFilePath(const std::wstring& path) { return ::DeleteFileW(path.c_str()); }

bool WriteWholeFile(const std::wstring& path, const std::vector<std::uint8_t>& bytes) {
    win32::UniqueFileHandle file(::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr,
                                               CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) return false;
    std::size_t done = 0;
    while (done < bytes.size()) {
        const DWORD chunk = static_cast<DWORD>(std::min<std::size_t>(bytes.size() - done, 1u << 30));
        DWORD written = 0;
        const BOOL wrote = ::WriteFile(file.get(), bytes.data() + done, chunk, &written, nullptr);
        if (!wrote || written == 0) {
            // The caller reads why from the last error, so closing must not overwrite it.
            const DWORD error = wrote ? static_cast<DWORD>(ERROR_WRITE_FAULT) : ::GetLastError();
            file.reset();
            ::SetLastError(error);
            return false;
        }
        done += written;
    }
    return true;
}

std::optional<std::vector<std::uint8_t>> ReadWholeFile(const std::wstring& path) {
    win32::UniqueFileHandle file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                               OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) return std::nullopt;
    LARGE_INTEGER size{};
    // Whole-file reads are for small texts; refuse anything that cannot be one.
    if (!::GetFileSizeEx(file.get(), &size) || size.QuadPart < 0 ||
        size.QuadPart > (LONGLONG{1} << 31)) {
        ::SetLastError(ERROR_FILE_TOO_LARGE);
        return std::nullopt;
    }
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size.QuadPart));
    std::size_t done = 0;
    while (done < bytes.size()) {
        DWORD read = 0;
        if (!::ReadFile(file.get(), bytes.data() + done, static_cast<DWORD>(bytes.size() - done),
                        &read, nullptr))
            return std::nullopt;
        if (read == 0) break;  // shrank while reading
        done += read;
    }
    bytes.resize(done);
    return bytes;
}

}  // namespace platform

namespace platform {
namespace {
struct MappedViewTraits {
    using Type = const void*;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type view) noexcept { ::UnmapViewOfFile(view); }
};
using UniqueMappedView = common::UniqueHandle<MappedViewTraits>;
}  // namespace

bool MapFileCreatingIfMissing(const std::wstring& path,
                              void (*use)(const std::uint8_t* data, std::size_t size, void* context),
                              void* context) {
    win32::UniqueFileHandle file(::CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_ALWAYS,
                                               FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) return false;
    LARGE_INTEGER size{};
    if (!::GetFileSizeEx(file.get(), &size)) return false;
    if (size.QuadPart == 0) {
        ::SetLastError(ERROR_FILE_INVALID);  // an empty file cannot be mapped
        return false;
    }
    if (static_cast<unsigned long long>(size.QuadPart) > SIZE_MAX) {
        ::SetLastError(ERROR_FILE_TOO_LARGE);
        return false;
    }
    win32::UniqueKernelHandle mapping(
        ::CreateFileMappingW(file.get(), nullptr, PAGE_READONLY, 0, 0, nullptr));
    if (!mapping) return false;
    UniqueMappedView view(::MapViewOfFile(mapping.get(), FILE_MAP_READ, 0, 0, 0));
    if (!view) return false;
    use(static_cast<const std::uint8_t*>(view.get()), static_cast<std::size_t>(size.QuadPart),
        context);
    return true;
}

bool WriteFileFromStart(const std::wstring& path, const std::vector<std::uint8_t>& bytes) {
    win32::UniqueFileHandle file(::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_WRITE,
                                               nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                                               nullptr));
    if (!file) return false;
    if (bytes.size() > MAXDWORD) {
        ::SetLastError(ERROR_FILE_TOO_LARGE);
        return false;
    }
    DWORD written = 0;
    return ::WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written,
                       nullptr) &&
           written == bytes.size();
}

}  // namespace platform
