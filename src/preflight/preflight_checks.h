#pragma once
// The preflight run: Windows Update activity with a bounded wait, free disk space, then the
// registry-driven checks and the reboot-pending probe (registry_checks.h), condensed into one
// result. Free functions: they use nothing of the run but the update record and the platform. Their
// log lines still name them "App::<function>", as administrators' log searches expect.
//
// Its settings are fixed on purpose: the management side cannot stretch the wait or lower the bar.
//
// Update record: reads legacyUpgradeDetected (through the registry checks); writes nothing.
#include <cstdint>

#include "core/run_result.h"

namespace preflight {

// Waiting for a running Windows Update installation: the timeout is only reported; the wait is
// made of kWindowsUpdateMaxAttempts checks, kWindowsUpdateWaitIntervalMs apart.
inline constexpr std::uint32_t kWindowsUpdateWaitTimeoutMinutes = 10;
inline constexpr std::uint32_t kWindowsUpdateWaitIntervalMs = 60000;
inline constexpr std::uint32_t kWindowsUpdateMaxAttempts = 10;

// 300 MB (300 x 2^20 bytes) free on the volume of the current directory, quotas aside.
inline constexpr std::uint64_t kMinimumFreeDiskBytes = 314572800;

// kPreflightOk, or the first reason found against the update: kPreflightUpdateInProgress,
// kPreflightInsufficientDisk, kPreflightFailed (a check asked for ERROR), kPreflightReboot.
RunResult performPreflightChecks();

// Whether the Windows Update installer is busy; a failed query counts as not busy.
bool isWindowsUpdateInProgress();

// Whether the current directory's volume has kMinimumFreeDiskBytes free; not knowing counts as
// enough.
bool isDiskspaceSufficientForUpdate();

}  // namespace preflight
