#pragma once
// Version texts of agents and installers ("8.13.0.12345", "8.13.0-12345") and the rule that
// decides whether an installed version needs the offered one.
#include <array>
#include <cstdint>
#include <string>
#include <string_view>

struct VersionNumbers {
    std::array<std::int32_t, 3> leading{};  // major, minor, patch; signed
    std::uint32_t build = 0;                // unsigned
    bool operator==(const VersionNumbers&) const = default;
};

// strtol / strtoul with base 0 as the Windows C runtime reads them (long is 32 bits there):
// leading white space, a sign, "0x" for hexadecimal, a leading "0" for octal; reading stops at the
// first character that does not fit ("08" is 0). Out-of-range values saturate; a minus sign on
// the unsigned reading negates modulo 2^32.
std::int32_t ReadLongAutoBase(std::wstring_view text);
std::uint32_t ReadUnsignedLongAutoBase(std::wstring_view text);

// The text is split into tokens at runs of '.', '-' and '_', with quotes grouping as on a command
// line (core/tokenizer.h). Fewer than three tokens: false, parts untouched. Otherwise the first
// three tokens are the leading numbers and a fourth, when present, the build number; further
// tokens are ignored.
bool ParseVersionText(std::wstring_view text, VersionNumbers& parts);

// The comparison proper, given whether an upgrade is already known to be needed (the result never
// clears that). The first three numbers decide, in order, unless the offered ones are all 0 or
// negative; when they tie or are skipped, only a build number on both sides that grew counts, so
// an installed version without a build number is never upgraded on the build alone.
bool UpgradeNeeded(const VersionNumbers& installed, const VersionNumbers& update,
                   bool alreadyNeeded);
