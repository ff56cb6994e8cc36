#include <cwctype>

#include "fake_platform.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/system.h"

namespace platform {

std::uint32_t LastError() { return fake::State().lastError; }
void SetLastError(std::uint32_t error) { fake::State().lastError = error; }

std::wstring SystemMessage(std::uint32_t error) {
    switch (error) {
        case 2: return L"The system cannot find the file specified.";
        case 3: return L"The system cannot find the path specified.";
        case 5: return L"Access is denied.";
        case 32: return L"The process cannot access the file because it is being used by another process.";
        case 1603: return L"Fatal error during installation.";
        case 1619: return L"This installation package could not be opened.";
        case 1638: return L"Another version of this product is already installed.";
        case 3010: return L"The requested operation is successful.  Changes will not be effective until the system is rebooted.";
        case 0x80070005: return L"Access is denied.";
        default: return L"";
    }
}

std::wstring ProgramPath(std::uint32_t& error) {
    error = fake::State().programPathError;
    return error ? std::wstring() : fake::State().programPath;
}

std::optional<FileVersion> ReadFileVersion(const std::wstring&) { return fake::State().fileVersion; }

InstanceMutex CreateNamedMutexHeldForLife(const std::wstring& name) {
    auto& s = fake::State();
    if (s.deniedMutexes.count(name)) return {s.lastError = status::kAccessDenied, {}};
    const auto [mutex, created] = s.mutexes.try_emplace(name, ObjectOwner{OwnerKind::kThisAccount, L""});
    s.lastError = created ? status::kSuccess : status::kAlreadyExists;
    return {s.lastError, created ? ObjectOwner{} : mutex->second};
}

bool HoldLockFileForLife(const std::wstring& path) {
    auto& s = fake::State();
    const auto cut = path.rfind(L'\\');
    if (s.locked.count(path)) {
        s.lastError = 32;  // another process holds it
        return false;
    }
    if (cut == std::wstring::npos || !PathExists(path.substr(0, cut))) {
        s.lastError = status::kPathNotFound;
        return false;
    }
    s.files[path] = {};
    s.locked.insert(path);
    return true;
}

bool RestrictDllSearch() {
    auto& s = fake::State();
    if (s.dllSearchError) {
        s.lastError = s.dllSearchError;
        return false;
    }
    s.dllSearchRestricted = true;
    return true;
}

std::wstring CommandLine() { return fake::State().commandLine; }

void WriteStdout(const std::wstring& text) { fake::State().console += text; }

bool EqualsIgnoreCase(const std::wstring& a, const std::wstring& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (std::towlower(static_cast<std::wint_t>(a[i])) != std::towlower(static_cast<std::wint_t>(b[i])))
            return false;
    return true;
}

LocalTime LocalNow() { return fake::State().now; }
std::int64_t UtcSecondsNow() { return fake::State().utcSeconds; }

void SleepMilliseconds(std::uint32_t milliseconds) {
    fake::State().sleeps.push_back(milliseconds);
    // Time moves on as if the sleep had happened, so that time-based decisions can be tested.
    fake::State().utcSeconds += milliseconds / 1000;
}

}  // namespace platform
