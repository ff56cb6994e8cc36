#pragma once
// In-memory stand-ins for src/platform/. Tests arrange the state through fake::State() and inspect
// it afterwards; FakePlatformScope resets it on both ends. A non-zero error knob fails its call
// with that code.
#include <cstdint>
#include <deque>
#include <map>
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

using Paths = std::set<std::wstring, core::NoCaseLess>;
template <typename T>
using ByPath = std::map<std::wstring, T, core::NoCaseLess>;

struct RegistryKey {
    std::size_t created = 0;  // subkeys enumerate in creation order
    bool isVolatile = false;
    std::vector<platform::NamedRegistryValue> values;  // creation order
};

struct PlatformState {
    // Every key by its path ("HKLM\\Software\\X"); the 32-bit view adds Software\WOW6432Node.
    ByPath<RegistryKey> hives;
    Paths deniedKeys;  // every access fails with 5

    ByPath<std::vector<std::uint8_t>> files;
    Paths folders{L"C:\\Users", L"C:\\Users\\svc", L"C:\\Users\\svc\\AppData",
                  L"C:\\Users\\svc\\AppData\\Local", L"C:\\Users\\svc\\AppData\\Local\\Temp"};
    Paths locked;              // writes and deletes fail with 32
    Paths uncreatableFolders;  // CreateFolder fails with 5
    struct FolderSecurity {    // what SecureExistingFolder finds
        bool isLink = false;
        platform::ObjectOwner owner{platform::OwnerKind::kSystem, L"NT AUTHORITY\\SYSTEM"};
        bool isPrivate = false;
        std::uint32_t inspectError = 0;
        std::uint32_t secureError = 0;
    };
    ByPath<FolderSecurity> folderSecurity;
    Paths unmovable;          // MovePath from here fails with 5
    int replantedOnMove = 0;  // the next moves each find a file planted again where they left
    std::wstring tempFolder = L"C:\\Users\\svc\\AppData\\Local\\Temp\\";
    std::optional<std::uint32_t> tempFolderResult;  // overrides the API's count

    std::uint32_t lastError = 0;
    std::wstring programPath = L"C:\\Program Files\\Quorvane\\updatetool.exe";
    std::uint32_t programPathError = 0;
    std::optional<platform::FileVersion> fileVersion = platform::FileVersion{0x00080010, 0x00020003};
    std::map<std::wstring, platform::ObjectOwner> mutexes;  // with the owner an opener reads
    std::set<std::wstring> deniedMutexes;                   // CreateMutexW fails with 5
    std::wstring commandLine = L"\"C:\\Program Files\\Quorvane\\updatetool.exe\"";
    std::wstring console;
    std::map<std::wstring, std::wstring> environment;  // for %VAR% expansion
    bool dllSearchRestricted = false;
    std::uint32_t dllSearchError = 0;

    platform::LocalTime now{};  // Reset sets 2026-03-02 14:03:09
    std::int64_t utcSeconds = 1772460189;
    std::vector<std::uint32_t> sleeps;  // in milliseconds; each moves utcSeconds on

    int restartRequests = 0;
    platform::RestartOutcome restartOutcome = platform::RestartOutcome::kInitiated;

    // Each run takes the next entry (none: "exited with 0").
    struct ScriptedProcess {
        std::uint32_t exitCode = 0;
        std::uint32_t createError = 0;
        std::uint32_t exitCodeError = 0;
    };
    std::deque<ScriptedProcess> processScript;
    std::vector<std::wstring> processesRun;  // command lines, including failed creations
    std::vector<std::wstring> heldFiles;     // per run ("" when none); must be in files, not locked
    struct InstalledProduct {
        std::wstring productCode;
        std::wstring versionString;
        std::uint32_t infoStatus = 0;
    };
    ByPath<InstalledProduct> installedProducts;  // by upgrade code
    std::uint16_t nativeArchitecture = 9;        // x64

    // Each query takes the next answer (none: "not busy"); outside an initialised apartment it
    // fails as COM would.
    std::deque<platform::UpdateInstallerBusy> updateInstallerScript;
    int updateInstallerQueries = 0;
    platform::ComResult comInitializeResult = 0;
    int comInitializeCalls = 0;
    int comUninitializeCalls = 0;
    std::wstring currentDirectory = L"C:\\Program Files\\Quorvane";
    std::uint32_t currentDirectoryError = 0;
    platform::DiskSpace diskSpace{64ull << 30, 128ull << 30, 64ull << 30};
    std::uint32_t diskSpaceError = 0;
    std::vector<std::wstring> diskSpaceQueries;
};

PlatformState& State();
void Reset();

// In the tool's own path notation ("HKLM\\Software\\X\\Value").
void SetRegistryValue(const std::wstring& path, const platform::RegistryValue& value);
void SetRegistryString(const std::wstring& path, const std::wstring& text);
void SetRegistryDword(const std::wstring& path, std::uint32_t value);
void CreateRegistryKey(const std::wstring& keyPath);
std::optional<platform::RegistryValue> GetRegistryValue(const std::wstring& path);
bool IsVolatileKey(const std::wstring& keyPath);

std::wstring FileText(const std::wstring& path);  // UTF-16LE after a BOM, as the log writes it

struct FakePlatformScope {
    FakePlatformScope() { Reset(); }
    ~FakePlatformScope() { Reset(); }
    FakePlatformScope(const FakePlatformScope&) = delete;
};

}  // namespace fake
