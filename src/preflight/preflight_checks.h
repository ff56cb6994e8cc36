#pragma once
// Settings of the preflight run (App::performPreflightChecks and its probes). They are fixed on
// purpose: the management side cannot stretch the wait or lower the bar.
#include <cstdint>

namespace preflight {

// Waiting for a running Windows Update installation: the timeout is only reported; the wait is
// made of kWindowsUpdateMaxAttempts checks, kWindowsUpdateWaitIntervalMs apart.
inline constexpr std::uint32_t kWindowsUpdateWaitTimeoutMinutes = 10;
inline constexpr std::uint32_t kWindowsUpdateWaitIntervalMs = 60000;
inline constexpr std::uint32_t kWindowsUpdateMaxAttempts = 10;

// 300 MB (300 x 2^20 bytes) free on the volume of the current directory, quotas aside.
inline constexpr std::uint64_t kMinimumFreeDiskBytes = 314572800;

}  // namespace preflight
