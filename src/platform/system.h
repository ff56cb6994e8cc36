#pragma once
// Process-level facts and services: last error, system messages, the program's own module, the
// single-instance mutex and the console.
#include <cstdint>
#include <optional>
#include <string>

namespace platform {

std::uint32_t LastError();
void SetLastError(std::uint32_t error);

// FormatMessageW text for a system error code, without the trailing line break; empty if none.
std::wstring SystemMessage(std::uint32_t error);

// GetModuleFileNameW for the program itself; empty and error set on failure.
std::wstring ProgramPath(std::uint32_t& error);

// The fixed file-information version of a module: most and least significant 32-bit words.
struct FileVersion {
    std::uint32_t mostSignificant = 0;
    std::uint32_t leastSignificant = 0;
};
std::optional<FileVersion> ReadFileVersion(const std::wstring& path);

// Who owns a securable object (a folder, a mutex), as far as the tool's decisions need to know.
enum class OwnerKind { kUnreadable, kSystem, kAdministrators, kThisAccount, kOtherAccount };
struct ObjectOwner {
    OwnerKind kind = OwnerKind::kUnreadable;
    std::wstring account;  // "DOMAIN\name", or the SID as text when it has no name; may be empty
};

// CreateMutexW(nullptr, TRUE, name). The handle is never closed: process exit releases it.
struct InstanceMutex {
    std::uint32_t error = 0;  // the last error after the call: 183 when the name exists already,
                              // 5 when it exists and lets us not even open it
    ObjectOwner owner;        // of an existing one (183), read from the handle the call returned
};
InstanceMutex CreateNamedMutexHeldForLife(const std::wstring& name);

// Creates or opens the file with no sharing, deleted when the process ends; the handle is never
// closed, so nobody else can open the file while this process lives. False (last error set; 32
// when another process holds it) otherwise.
bool HoldLockFileForLife(const std::wstring& path);

// Restricts where DLLs are looked for, for the rest of the process: System32 and the program's own
// folder, never the current folder or PATH, where anyone may plant a DLL for an elevated process
// to load. False (last error set) when the system refuses.
bool RestrictDllSearch();

// The full command line of the process (GetCommandLineW); empty if there is none.
std::wstring CommandLine();

// Writes text to standard output as it is (no line break added).
void WriteStdout(const std::wstring& text);

// Whole-string comparison without regard to case, as the user's locale sees it.
bool EqualsIgnoreCase(const std::wstring& a, const std::wstring& b);

}  // namespace platform
