#include "platform/clock.h"

#include <windows.h>

#include <sys/timeb.h>
#include <time.h>

namespace platform {

LocalTime LocalNow() {
    LocalTime now;
    __timeb64 stamp{};
    _ftime64_s(&stamp);
    _localtime64_s(&now.tm, &stamp.time);
    now.milliseconds = stamp.millitm;
    return now;
}

std::int64_t UtcSecondsNow() { return static_cast<std::int64_t>(_time64(nullptr)); }

void SleepMilliseconds(std::uint32_t milliseconds) { ::Sleep(milliseconds); }

}  // namespace platform
