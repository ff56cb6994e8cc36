#include "logging.h"

#include <cmath>
#include <cstdarg>
#include <mutex>

namespace kesclient {
namespace {

// A mutex rather than std::atomic: MinGW's va_list carries an attribute that templates drop.
std::mutex g_mutex;
KesClientLogCallback g_sink = nullptr;

KesClientLogCallback Sink() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_sink;
}

}  // namespace

void SetLogSink(KesClientLogCallback callback) noexcept {
    try {
        const std::lock_guard<std::mutex> lock(g_mutex);
        g_sink = callback;
    } catch (...) {  // a mutex that cannot lock: keep the old sink rather than end the process
    }
}

void Log(int level, const char* format, ...) noexcept {
    KesClientLogCallback sink = nullptr;
    try {
        sink = Sink();
    } catch (...) {
        return;
    }
    if (sink == nullptr) return;
    va_list args;
    va_start(args, format);
    sink(level, format, args);
    va_end(args);
}

std::string Decimal(std::uint64_t value) {
    return std::to_string(value);
}

std::string OneDecimal(double value) {
    if (!(value >= 0) || value > 1e15) return "0.0";
    const auto tenths = static_cast<std::uint64_t>(std::llround(value * 10));
    return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10);
}

}  // namespace kesclient
