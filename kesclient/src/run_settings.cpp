#include "run_settings.h"

#include "ascii_text.h"

namespace kesclient {
namespace {

constexpr std::uint64_t kMinimumMs = 100;
constexpr std::uint64_t kMaximumMs = 7ull * 24 * 60 * 60 * 1000;

}  // namespace

std::optional<std::uint64_t> ParseMilliseconds(std::string_view text) {
    if (text.size() > 12) return std::nullopt;
    const auto value = ParseDecimal(text, kMaximumMs);
    if (!value || *value < kMinimumMs) return std::nullopt;
    return value;
}

RunSettings LoadRunSettings(const std::function<std::string(const char* name)>& lookup) {
    RunSettings settings;
    // WinHTTP takes its timeouts as int milliseconds; 7 days fits.
    if (const auto ms = ParseMilliseconds(lookup("KESCLIENT_CONNECT_TIMEOUT_MS"))) {
        settings.connectTimeoutMs = static_cast<std::uint32_t>(*ms);
    }
    if (const auto ms = ParseMilliseconds(lookup("KESCLIENT_STALL_TIMEOUT_MS"))) {
        settings.stallTimeoutMs = static_cast<std::uint32_t>(*ms);
    }
    if (const auto ms = ParseMilliseconds(lookup("KESCLIENT_RUN_TIMEOUT_MS")))
        settings.runTimeoutMs = *ms;
    return settings;
}

}  // namespace kesclient
