#pragma once
// An installable product the tool can update: its installed and offered versions, the installer
// file, the decision whether to upgrade and the launch of the installer. The kinds are in
// generic_agent.h and orel_agent.h; the driver uses them only through this interface.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agent/version.h"

// What Launch reports. 4 means opposite things for the two kinds, which the driver knows.
using LaunchResult = int;
namespace launch_result {
constexpr LaunchResult kDone = 0;              // ran and judged by its exit code, or test mode
constexpr LaunchResult kNothingToRun = 1;      // no command line or no installer
constexpr LaunchResult kInvalidExtension = 2;  // GenericAgent: neither .msi nor .exe
constexpr LaunchResult kNotRun = 3;            // could not be started or its exit code read
constexpr LaunchResult kGenericInstallerFailed = 4;  // GenericAgent: exit code not 0/1641/3010
constexpr LaunchResult kOrelRestartRequested = 4;    // OrelAgent: exit code 3010
}  // namespace launch_result

// The mode the driver passes to Launch.
namespace launch_mode {
constexpr int kLastMainAgent = 0;  // the last agent of the run, an OrelAgent
constexpr int kNotLast = 1;        // more agents follow: the restart is suppressed
constexpr int kLastOther = 2;      // the last agent of the run, of another kind
}  // namespace launch_mode

class Agent {
public:
    // A non-empty version overrides the offered version; a non-empty filename names the installer
    // (a bare name is taken from the workspace folder, a path as it stands).
    Agent(const std::wstring& version, const std::wstring& filename);
    virtual ~Agent() = default;
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    // Fills the installed version, the offered version and the installer path as the kind knows.
    virtual bool GetVersion() = 0;
    // Whether the installed version needs the offered one (version.h); sets upgradeNeeded.
    virtual bool CompVersion();
    virtual LaunchResult Launch(bool test, int mode, const std::wstring& options,
                                std::uint32_t& exitCode) = 0;
    virtual bool ParseVersion(const std::wstring& text, VersionNumbers& parts) const;

    // The first product related to the upgrade code and its "VersionString".
    bool FindInstalledVersion(const std::wstring& upgradeCode);
    // Unless the installer is already named: the first workspace file "<prefix>[-x86_64]*" that
    // does not contain exclude and fits the host, with the version cut out of its name.
    bool FindUpdateVersion(const std::wstring& prefix, bool want64, const std::wstring& exclude);
    // The decision: forced or needed, and an installer to run.
    bool UpdateAvailable(bool force) const;
    // Runs the command line and waits for it without limit (not in test mode: exit code 0).
    // Returns kDone, kNothingToRun or kNotRun; exitCode is written only when an exit code exists.
    LaunchResult LaunchHelper(bool test, const std::wstring& commandLine,
                              std::uint32_t& exitCode) const;

    // Whether the machine is x64, worked out and logged once and then kept for the process. The
    // program asks right after its log is created, before the entry point (src/app/main.cpp).
    static bool IsHostX64();
    // The detection itself, with its log line.
    static bool DetectHostX64();

    const std::wstring& installedVersion() const { return installedVersion_; }
    const std::wstring& updateVersion() const { return updateVersion_; }
    bool upgradeNeeded() const { return upgradeNeeded_; }
    const std::wstring& installerPath() const { return installerPath_; }
    bool installerIsMsi() const { return installerIsMsi_; }

protected:
    std::wstring installedVersion_;  // empty when unknown
    std::wstring updateVersion_;     // empty when unknown
    bool upgradeNeeded_ = false;     // only ever goes from false to true
    std::wstring installerPath_;
    bool installerIsMsi_ = false;
};

// Makes Agent::IsHostX64 answer as told while it lives.
class ScopedHostX64ForTesting {
public:
    explicit ScopedHostX64ForTesting(bool x64);
    ~ScopedHostX64ForTesting();
    ScopedHostX64ForTesting(const ScopedHostX64ForTesting&) = delete;
    ScopedHostX64ForTesting& operator=(const ScopedHostX64ForTesting&) = delete;

private:
    std::optional<bool> previous_;
};

// The installer path as it goes into a command line: in double quotes when it holds a blank or a
// tab. Unquoted, CreateProcessW would try each prefix up to a blank as a program first
// ("C:\Program.exe" for "C:\Program Files\..."), which lets a planted file run elevated.
std::wstring CommandLinePath(const std::wstring& installerPath);

// The first name the workspace search takes, in the order given: names containing exclude (when
// it is not empty) are skipped; with only64 a name must contain "x86_64", otherwise it must not.
// Substrings are compared on lower-cased copies.
std::optional<std::wstring> ChooseInstallerName(const std::vector<std::wstring>& names,
                                                const std::wstring& exclude, bool only64);

// The version carried in an installer's file name: the name without its extension, less as many
// leading characters as the prefix has, every "x86_64" removed on an x64 host, '-' and '_'
// stripped from both ends. "Tessix-Lumenar-Agent-x86_64-8.13.0-12345.exe" -> "8.13.0-12345".
std::wstring VersionFromInstallerName(const std::wstring& name, std::size_t prefixLength,
                                      bool hostX64);
