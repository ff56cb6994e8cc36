#pragma once
// The one active agent update of this run, read from the registry.
//
// The management service announces an update by creating a key under \Agent\Update\ of a product
// root (ROOT below). An update under the former product's root is an upgrade from that product
// and wins over one under the current root; among several keys the first one the registry
// enumerates wins.
//   current root  HKLM\Software\Quorvane\Lumenar
//   legacy root   HKLM\Software\Tessix, Inc.\Tessix KDX
//
// Registry contract. "Policy-aware" reads also honour the policy keys (state/policy_config.h).
//
// ROOT\Agent\Update\ (current root only), read at program start:
//   Enabled                     text or DWORD  default "1"       policy-aware. The update feature
//                                                                switch: on for "true", "yes", "on"
//                                                                (any case) or a non-zero number;
//                                                                anything else (empty too) makes
//                                                                the tool exit at once.
//   MAXDOWNLOADANDUPGRADERETRY  text or DWORD  default 2         policy-aware. Attempts allowed
//                                                                for a download or an upgrade;
//                                                                signed.
//   RetryWaitPeriod             text or DWORD  default 300000    policy-aware. Milliseconds to wait
//                                                                before a download is retried.
//   A value that is not a decimal number of the right range keeps its default (logged).
//
// ROOT\Agent\Update\<id>\, one key per update, created by the management service. Values are
// read as text whatever their type (DWORD and QWORD as decimal text):
//   STATE               text        read, written  READY, DOWNLOAD, WAIT, NOLOGON, UPDATING, DONE
//                                                  (any case when read; written in upper case)
//   AGENT               text        read           "OREL" (main desktop agent) or "OTHER"; required
//   VERSION             text        read           version to install
//   URL                 multi-text  read           download locations in order; required
//   PROXY               multi-text  read           proxy servers in order
//   PACURL              text        read           proxy auto-configuration location
//   ARCH                text        read           processor architecture of the package
//   METADATA            text        read           property bag; its THUMBPRINT items are the
//                                                  accepted server certificate thumbprints
//   CHECKSUM            text        read           package checksum
//   FILESIZE            text        read           package size
//   CERTTYPE            text        read           kind of signing certificate
//   OPTIONS             text        read           installer options (PREFLIGHTCHECK_ENABLED=...)
//   RESULT              text        read, written  outcome of the last step
//   FILENAME            text        read, written  installer file name
//   PACKAGEFILENAME     text        read           package file name on the server
//   RELATIVEFOLDERPATH  text        read           package folder on the server
//   RETRY               text        read, written  attempts used so far; 0 when absent or not a
//                                                  number
//   ERRORCODE           text        written        error name of the last failure
//   ERRORDESC           text        written        error description of the last failure
//   PreflightCheckComplete  DWORD   read, written  1 once the preflight run of this update has
//                                                  finished (current root only); default 0
//
// ROOT\Agent\UpdateStatusVolatile\NeedReboot  text "1", volatile key  written when the tool asks
//   for a restart; read at start (any type) to wait for it; gone by itself after the restart.
#include <cstdint>
#include <map>
#include <string>
#include <vector>

// The two locations above, under a product root; every reader and writer uses these.
inline constexpr const wchar_t* kUpdateKeysPath = L"\\Agent\\Update\\";
inline constexpr const wchar_t* kNeedRebootMarkerPath = L"\\Agent\\UpdateStatusVolatile\\NeedReboot";

namespace update_state {
constexpr int kInvalid = 0;
constexpr int kReady = 1;     // "READY"
constexpr int kDownload = 2;  // "DOWNLOAD"
constexpr int kWait = 3;      // "WAIT"
constexpr int kNoLogon = 4;   // "NOLOGON"
constexpr int kUpdating = 5;  // "UPDATING"
constexpr int kDone = 6;      // "DONE"
}  // namespace update_state

inline constexpr std::int32_t kDefaultMaxDownloadAndUpgradeRetry = 2;
inline constexpr std::uint32_t kDefaultRetryWaitPeriodMs = 300000;

// The update key's values. UtilGetRegistry starts from a cleared copy of these, so that a value
// missing from the registry leaves its field empty rather than stale.
struct UpdateKeyValues {
    int state = update_state::kInvalid;     // STATE
    std::wstring agent;                     // AGENT
    std::wstring version;                   // VERSION
    std::vector<std::wstring> urls;         // URL
    std::vector<std::wstring> proxies;      // PROXY
    std::wstring pacUrl;                    // PACURL
    std::wstring arch;                      // ARCH
    std::wstring metadata;                  // METADATA, as stored
    std::vector<std::wstring> thumbprints;  // METADATA's THUMBPRINT items, in document order
    std::wstring checksum;                  // CHECKSUM
    std::wstring fileSize;                  // FILESIZE
    std::wstring certType;                  // CERTTYPE
    std::wstring options;                   // OPTIONS
    std::wstring result;                    // RESULT
    std::wstring fileName;                  // FILENAME
    std::wstring packageFileName;           // PACKAGEFILENAME
    std::wstring relativeFolderPath;        // RELATIVEFOLDERPATH
    std::int32_t retry = 0;                 // RETRY

    bool operator==(const UpdateKeyValues&) const = default;
};

struct UpdateRecord : UpdateKeyValues {
    // Which update: set by UtilGetActiveUpdate. An empty key id means there is none.
    std::wstring keyId;
    bool legacyUpgradeDetected = false;  // found under the legacy root

    // Outcome of this run, stored as ERRORCODE and ERRORDESC.
    std::wstring errorCode;
    std::wstring errorDesc;
    // Installed and offered version of the last agent the run launched; empty when none ran.
    std::wstring installedVersion;
    std::wstring updateVersion;
    // A restart is due at the end of the run (stored as NeedReboot).
    bool forceReboot = false;

    // Process settings, read once at start by ReadRetrySettings.
    std::int32_t maxRetry = kDefaultMaxDownloadAndUpgradeRetry;
    std::uint32_t retryWaitMs = kDefaultRetryWaitPeriodMs;
};

// The process-wide record; it lives until the process ends. Each step's header names the fields it
// reads and writes, in a line beginning "Update record:". In run order:
//   Util_GetUpdateState (here)   writes keyId, legacyUpgradeDetected and every UpdateKeyValues field
//   ReadRetrySettings (here)     writes maxRetry, retryWaitMs
//   preflight, download, install steps        see preflight/, download/download.h, app/app.h
//   SetForceReboot (state/force_reboot.h)      forceReboot
//   Util_UpdateDone (state/state_transitions.h), Util_UpdateDataForTelemetry (report/telemetry.h),
//   Util_CheckReboot (report/reboot.h)         the run's closing steps
UpdateRecord& ActiveUpdateRecord();
void ResetUpdateRecordForTesting();

// Finds the update key: sets keyId and legacyUpgradeDetected. False when there is none.
bool UtilGetActiveUpdate();

// Reads the update key's values into the record. Fields whose value is absent end up empty (0
// for state and retry). False when there is no key id, the key is empty or missing, or AGENT or
// URL is empty. Malformed METADATA is not an error: it just yields no thumbprints.
bool UtilGetRegistry();

// The properties agent selection needs: "AGENT", "VERSION", "ARCH", "OPTIONS", "FILENAME".
using UpdateProperties = std::map<std::wstring, std::wstring>;

// Finds and reads the update and checks the agent kind. False when there is no usable update.
bool Util_GetUpdateState(UpdateProperties& properties);

// "READY" (any case) -> 1 ... "DONE" -> 6; anything else 0, logged.
int UtilStateId(const std::wstring& name);
// 1 -> "READY" ... 6 -> "DONE"; anything else empty, logged.
std::wstring stateStr(int id);

// PreflightCheckComplete of the active update (current root), default off.
bool ReadPreflightCheckComplete();

// The update feature switch: Enabled, default on.
bool ReadUpdateEnabled();

// Reads MAXDOWNLOADANDUPGRADERETRY and RetryWaitPeriod into the record, once at start.
void ReadRetrySettings();
