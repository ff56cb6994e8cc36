#pragma once
// Hashes and writes the body on a second thread while the network fills the next buffer, so that
// a transfer runs at the pace of the slower of the two instead of their sum. Two buffers take
// turns; nothing is allocated per chunk.
//
// Every checkpointBytes written, a third thread flushes the partial file and records it as the
// resume point while writing goes on. The disk then keeps up with the network instead of taking
// the whole file in the flush before the final rename, and a crash loses at most that much.
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "partial_file_win.h"

namespace kesclient {

class BackgroundWriter {
public:
    // first and second: capacity bytes each, owned by the caller.
    static constexpr std::uint64_t kCheckpointBytes = 32ull << 20;

    BackgroundWriter(PartialFile& partial, std::uint8_t* first, std::uint8_t* second,
                     std::size_t capacity, std::uint64_t checkpointBytes = kCheckpointBytes);
    ~BackgroundWriter();
    BackgroundWriter(const BackgroundWriter&) = delete;
    BackgroundWriter& operator=(const BackgroundWriter&) = delete;

    std::uint8_t* buffer() const { return buffers_[current_]; }
    std::size_t capacity() const { return capacity_; }

    // Hands the first size bytes of buffer() over and makes the other buffer current, once the
    // writer is done with it. False when an earlier write failed.
    bool Submit(std::size_t size);
    // Waits until everything handed over is on its way to disk and no checkpoint is running;
    // false, with *why, when a write failed.
    bool Drain(std::string* why);

private:
    void Work();
    void Checkpoints();

    PartialFile& partial_;
    std::uint8_t* buffers_[2];
    int current_ = 0;
    std::size_t capacity_;
    std::mutex mutex_;
    std::condition_variable changed_;
    const std::uint8_t* pending_ = nullptr;
    std::size_t pendingSize_ = 0;
    bool busy_ = false;
    bool stop_ = false;
    bool failed_ = false;
    std::string error_;
    const std::uint64_t checkpointBytes_;
    std::uint64_t lastCheckpoint_ = 0;  // offset of the last checkpoint asked for
    std::uint64_t checkpointAt_ = 0;    // offset of the checkpoint to take now
    bool checkpointing_ = false;
    std::thread thread_;
    std::thread flusher_;
};

}  // namespace kesclient
