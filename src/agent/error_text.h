#pragma once
// How the tool writes a Windows error or installer exit code into its log.
#include <cstdint>
#include <string>

// The code as a decimal number below 0x80000000, otherwise "0x" and 16 upper-case hexadecimal
// digits (codes that high are HRESULTs, which read better in hex); then " (" + the system's
// message for it, trimmed + ")". Example: "1603 (Fatal error during installation.)".
std::wstring ErrorCodeText(std::uint32_t code);
