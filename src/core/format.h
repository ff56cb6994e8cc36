#pragma once
// The one formatter for log lines and other wide texts: printf-style patterns, kept exactly as the
// system's messages are written ("%s: Update key: %s"), checked against the argument types at run
// time. %s takes a wide string on every platform, which the C runtime's wide printf does not.
#include <fmt/printf.h>
#include <fmt/xchar.h>

#include <string>
#include <string_view>

namespace core {

template <typename... Args>
std::wstring Format(std::wstring_view pattern, const Args&... args) {
    try {
        return fmt::sprintf(pattern, args...);
    } catch (const fmt::format_error&) {
        // A pattern that does not fit its arguments is a programming fault; keep the line
        // readable instead of losing it.
        return std::wstring(pattern) + L" [bad format]";
    }
}

}  // namespace core
