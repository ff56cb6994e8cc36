#pragma once
// Facts about the machine rather than the process.
#include <cstdint>

namespace platform {

// PROCESSOR_ARCHITECTURE_AMD64.
constexpr std::uint16_t kProcessorArchitectureAmd64 = 9;

// GetNativeSystemInfo's wProcessorArchitecture: the machine's own, even in a 32-bit process.
std::uint16_t NativeProcessorArchitecture();

}  // namespace platform
