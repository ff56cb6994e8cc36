#pragma once
// Time and waiting. Sleep is the only blocking wait the tool does on its own.
#include <cstdint>
#include <ctime>

namespace platform {

struct LocalTime {
    std::tm tm{};          // tm_year since 1900, tm_mon from 0, as the C runtime gives them
    int milliseconds = 0;  // 0..999
};

LocalTime LocalNow();
std::int64_t UtcSecondsNow();  // seconds since 1970-01-01 UTC
void SleepMilliseconds(std::uint32_t milliseconds);

}  // namespace platform
