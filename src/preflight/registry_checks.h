#pragma once
// Administrator-defined preflight checks and the reboot-pending probe (their log lines name them
// "App::performRegistryBasedChecks", "App::isRebootPending", ...).
//
// Update record: reads legacyUpgradeDetected (which root lists the checks); writes nothing.
//
// Registry contract. One check per key under <root>\Agent\PreflightChecks\ (root: see
// state/update_record.h). The list of checks is taken from the current root when the active update
// was found under the legacy root (legacyUpgradeDetected), otherwise from the legacy root; the
// values of every check are always read from the current root's key of the same name. Check names
// and value names are trimmed of blanks, tabs, CR and LF; value names match without regard to case.
//   KeyPath           the key the check is about. It begins with one of these root prefixes,
//                     written exactly so (upper case, with the backslash): "HKEY_LOCAL_MACHINE\",
//                     "HKLM\", "HKEY_CURRENT_USER\", "HKCU\", "HKEY_CLASSES_ROOT\", "HKCR\",
//                     "HKEY_CURRENT_CONFIG\", "HKCC\", "HKEY_USERS\", "HKU\". A check whose key
//                     does not exist adds nothing.
//   KeyPresentAction  action word when the key exists.
//   ValueName         without KeyPresentAction: a value under KeyPath ...
//   ExpectedValue     ... whose text must equal this (any case; empty never matches) ...
//   ValueMatchAction  ... for this action word to apply.
// Action words: REBOOT, ERROR, NONE (any case); anything else is logged and counts as NONE.
// Any value type is accepted: DWORD and QWORD read as decimal text, REG_SZ as its text,
// REG_EXPAND_SZ expanded, other types as UTF-16 text of their bytes. Values with an empty name or
// empty data, or of 8192 bytes or more, are ignored.
//
// A restart is pending when, in this order:
//   HKEY_LOCAL_MACHINE\Software\Microsoft\Windows\CurrentVersion\WindowsUpdate\Auto
//   Update\RebootRequired
//                                                     exists (Windows Update),
//   HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Component Based
//   Servicing\RebootPending
//                                                     exists (servicing stack),
//   HKLM\SOFTWARE\Quorvane\NeedReboot\Components       text, not empty: our components waiting,
//   HKLM\SOFTWARE\Tessix, Inc.\NeedReboot\Components   the same for the former product's
//   components.
#include <set>
#include <string>
#include <vector>

#include "platform/registry.h"
#include "state/registry.h"

// The final action set of the registry-driven preflight checks: "ERROR", "NONE", "REBOOT", each at
// most once, in this (case-sensitive) order.
using PreflightActionSet = std::set<std::wstring>;

namespace preflight {

inline constexpr const wchar_t* kActionNone = L"NONE";
inline constexpr const wchar_t* kActionReboot = L"REBOOT";
inline constexpr const wchar_t* kActionError = L"ERROR";

// Whether the key named by a full path with one of the root prefixes above opens for reading.
// The prefix must begin the path; a path without one names no key.
bool KeyExists(const std::wstring& keyPath);

// Every HKEY_ root name in the text replaced by its short form: HKLM, HCU, HCR, HCC, HU. Only HKLM
// is a root the registry helpers know; the other four are kept as they have always been written,
// so that a value match on such a key reads nothing, as it always did.
std::wstring ShortenRootNames(std::wstring keyPath);

// A check's values as text, keyed by trimmed name (rules above).
RegistryValueMap CheckValues(const std::vector<platform::NamedRegistryValue>& values);

// Every check's action word, as the rules above give it.
PreflightActionSet performRegistryBasedChecks();

// The action word for a stored word: REBOOT, ERROR, or NONE (also for empty and unknown words).
std::wstring getPreflightCheckAction(std::wstring action);

// The check's ValueMatchAction when its value matches ExpectedValue, else NONE.
std::wstring getValueMatchAction(const RegistryValueMap& check);

// Whether a restart is pending (the probe above).
bool isRebootPending();

}  // namespace preflight
