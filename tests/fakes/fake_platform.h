#pragma once
// In-memory stand-ins for src/platform/: a registry, a file system, a clock whose sleep is only
// recorded, a console that collects its output, and the program's identity. Tests arrange the
// state through fake::State() and inspect it afterwards; FakePlatformScope resets it on both ends.
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/text.h"
#include "platform/clock.h"
#include "platform/disk.h"
#include "platform/registry.h"
#include "platform/restart.h"
#include "platform/system.h"
#include "platform/windows_update.h"

namespace fake {

struct RegistryKey {
    std::wstring name;
    bool isVolatile = false;
    std::vector<std::unique_ptr<RegistryKey>> subkeys;                  // creation order
    std::vector<std::pair<std::wstring, platform::RegistryValue>> values;  // creation order
};

struct PlatformState {
    // Registry: one tree per hive; the 32-bit view of HKLM\Software is Software\WOW6432Node.
    std::map<platform::Hive, RegistryKey> hives;
    std::set<std::wstring, core::NoCaseLess> deniedKeys;  // "HKLM\\key": every access fails with 5

    // File system.
    std::map<std::wstring, std::vector<std::uint8_t>, core::NoCaseLess> files;
    std::set<std::wstring, core::NoCaseLess> folders;
    std::set<std::wstring, core::NoCaseLess> locked;           // writes and deletes fail with 32
    std::set<std::wstring, core::NoCaseLess> uncreatableFolders;  // CreateFolder fails with 5
    // What SecureExistingFolder finds (default: a plain folder owned by SYSTEM).
    struct FolderSecurity {
        bool isLink = false;
        platform::ObjectOwner owner{platform::OwnerKind::kSystem, L"NT AUTHORITY\\SYSTEM"};
        bool isPrivate = false;
        std::uint32_t inspectError = 0;
        std::uint32_t secureError = 0;
    };
    std::map<std::wstring, FolderSecurity, core::NoCaseLess> folderSecurity;
    std::set<std::wstring, core::NoCaseLess> unmovable;  // MovePath from here fails with 5
    int replantedOnMove = 0;  // the next moves each find a file planted again at once where they left
    std::wstring tempFolder = L"C:\\Users\\svc\\AppData\\Local\\Temp\\";
    std::optional<std::uint32_t> tempFolderResult;  // overrides the API's count when set

    // Process.
    std::uint32_t lastError = 0;
    std::wstring programPath = L"C:\\Program Files\\Quorvane\\updatetool.exe";
    std::uint32_t programPathError = 0;  // non-zero: ProgramPath fails with it
    std::optional<platform::FileVersion> fileVersion = platform::FileVersion{0x00080010, 0x00020003};
    std::map<std::wstring, platform::ObjectOwner> mutexes;  // with the owner an opener reads
    std::set<std::wstring> deniedMutexes;                   // CreateMutexW fails with 5
    std::wstring commandLine = L"\"C:\\Program Files\\Quorvane\\updatetool.exe\"";
    std::wstring console;
    std::map<std::wstring, std::wstring> environment;  // for %VAR% expansion
    bool dllSearchRestricted = false;
    std::uint32_t dllSearchError = 0;  // non-zero: RestrictDllSearch fails with it

    // Time.
    platform::LocalTime now{};
    std::int64_t utcSeconds = 1772460189;
    std::vector<std::uint32_t> sleeps;  // every requested sleep, in milliseconds

    // Restart.
    int restartRequests = 0;
    platform::RestartOutcome restartOutcome = platform::RestartOutcome::kInitiated;

    // Processes: each run takes the next scripted entry (none: "exited with 0").
    struct ScriptedProcess {
        std::uint32_t exitCode = 0;
        std::uint32_t createError = 0;    // non-zero: CreateProcessW fails with it
        std::uint32_t exitCodeError = 0;  // non-zero: GetExitCodeProcess fails with it
    };
    std::deque<ScriptedProcess> processScript;
    std::vector<std::wstring> processesRun;  // command lines, including failed creations
    std::vector<std::wstring> heldFiles;     // the file held for each run ("" when none); a
                                             // path in `locked` cannot be held (32), nor one
                                             // missing from `files` (2)
    // Installed products by upgrade code (case-insensitive, as GUID texts are).
    struct InstalledProduct {
        std::wstring productCode;
        std::wstring versionString;
        std::uint32_t infoStatus = 0;  // non-zero: MsiGetProductInfoW fails with it
    };
    std::map<std::wstring, InstalledProduct, core::NoCaseLess> installedProducts;
    std::uint16_t nativeArchitecture = 9;  // x64

    // Windows Update: each query takes the next scripted answer (none: "not busy"); outside an
    // initialised apartment it fails as COM would, so a missing initialisation shows.
    std::deque<platform::UpdateInstallerBusy> updateInstallerScript;
    int updateInstallerQueries = 0;
    platform::ComResult comInitializeResult = 0;  // S_OK; 1 is S_FALSE, negative a failure
    int comInitializeCalls = 0;
    int comUninitializeCalls = 0;
    std::wstring currentDirectory = L"C:\\Program Files\\Quorvane";
    std::uint32_t currentDirectoryError = 0;  // non-zero: GetCurrentDirectoryW fails with it
    platform::DiskSpace diskSpace{64ull << 30, 128ull << 30, 64ull << 30};
    std::uint32_t diskSpaceError = 0;           // non-zero: GetDiskFreeSpaceExW fails with it
    std::vector<std::wstring> diskSpaceQueries;  // the paths asked about, in order
};

PlatformState& State();
void Reset();

// Convenience for tests, in the tool's own path notation ("HKLM\\Software\\X\\Value").
void SetRegistryValue(const std::wstring& path, const platform::RegistryValue& value);
void SetRegistryString(const std::wstring& path, const std::wstring& text);
void SetRegistryDword(const std::wstring& path, std::uint32_t value);
void CreateRegistryKey(const std::wstring& keyPath);
std::optional<platform::RegistryValue> GetRegistryValue(const std::wstring& path);
bool IsVolatileKey(const std::wstring& keyPath);

std::wstring FileText(const std::wstring& path);  // UTF-16LE after a BOM, as the log writes it

class FakePlatformScope {
public:
    FakePlatformScope() { Reset(); }
    ~FakePlatformScope() { Reset(); }
    FakePlatformScope(const FakePlatformScope&) = delete;
    FakePlatformScope& operator=(const FakePlatformScope&) = delete;
};

}  // namespace fake
