#pragma once
// Time bounds of a download run. Defaults suit a fleet on slow links; tests shorten them through
// the environment of the process that loads the DLL:
//   KESCLIENT_CONNECT_TIMEOUT_MS  name resolution and TCP/TLS connection, per attempt (30 s)
//   KESCLIENT_STALL_TIMEOUT_MS    longest wait for the next bytes of an answer (60 s); a stall
//                                 moves on to the next mirror
//   KESCLIENT_RUN_TIMEOUT_MS      the whole run, every download, mirror and proxy (6 h)
// Values are decimal milliseconds from 100 to 7 days; anything else keeps the default.
// Portable: the caller supplies the lookup.
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace kesclient {

struct RunSettings {
    std::uint32_t connectTimeoutMs = 30 * 1000;
    std::uint32_t stallTimeoutMs = 60 * 1000;
    std::uint64_t runTimeoutMs = 6ull * 60 * 60 * 1000;
};

std::optional<std::uint64_t> ParseMilliseconds(std::string_view text);

// lookup returns the variable's value, or "" when it is not set.
RunSettings LoadRunSettings(const std::function<std::string(const char* name)>& lookup);

}  // namespace kesclient
