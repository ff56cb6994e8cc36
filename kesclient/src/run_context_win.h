#pragma once
// What every download of one run shares: its time bounds and its one transfer buffer.
#include <chrono>
#include <cstdint>
#include <vector>

#include "run_settings.h"

namespace kesclient {

// The run's buffer, reused for every read, hash and write: no allocation per chunk, and a peak
// memory that does not grow with the file. A transfer splits it in two halves that take turns
// between the network and the disk (see background_writer_win.h).
inline constexpr std::size_t kTransferBufferBytes = 2 << 20;

struct RunContext {
    RunSettings settings;
    std::chrono::steady_clock::time_point deadline;
    std::vector<std::uint8_t> buffer;

    bool TimeUp() const { return std::chrono::steady_clock::now() >= deadline; }
    std::uint32_t RemainingMs(std::uint32_t cap) const {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        if (left <= 0) return 1;
        return left < static_cast<long long>(cap) ? static_cast<std::uint32_t>(left) : cap;
    }
};

}  // namespace kesclient
