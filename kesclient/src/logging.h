#pragma once
// The library's log: every message goes to the callback the tool registered (ordinal 4), which
// formats it with its own C runtime. Only %s (UTF-8 text) and %d (int) are used in formats: they
// mean the same in every runtime; wider numbers are passed as text.
#include <cstdint>
#include <string>

#include "kesclient/kesclient.h"

namespace kesclient {

enum LogLevel { kLogDebug = 0, kLogInfo = 1, kLogWarning = 2, kLogError = 3 };

void SetLogSink(KesClientLogCallback callback) noexcept;
void Log(int level, const char* format, ...) noexcept;

// Numbers for %s.
std::string Decimal(std::uint64_t value);
// "12.3" style figures for rates and durations.
std::string OneDecimal(double value);

}  // namespace kesclient
