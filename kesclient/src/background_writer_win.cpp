#include "background_writer_win.h"

namespace kesclient {

BackgroundWriter::BackgroundWriter(PartialFile& partial, std::uint8_t* first, std::uint8_t* second,
                                   std::size_t capacity, std::uint64_t checkpointBytes)
    : partial_(partial),
      buffers_{first, second},
      capacity_(capacity),
      checkpointBytes_(checkpointBytes),
      lastCheckpoint_(partial.size()) {
    thread_ = std::thread(&BackgroundWriter::Work, this);
    flusher_ = std::thread(&BackgroundWriter::Checkpoints, this);
}

BackgroundWriter::~BackgroundWriter() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    changed_.notify_all();
    thread_.join();
    flusher_.join();
}

bool BackgroundWriter::Submit(std::size_t size) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return !busy_; });
    if (failed_) return false;
    if (size == 0) return true;
    pending_ = buffers_[current_];
    pendingSize_ = size;
    busy_ = true;
    current_ = 1 - current_;
    lock.unlock();
    changed_.notify_all();
    return true;
}

bool BackgroundWriter::Drain(std::string* why) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return !busy_ && !checkpointing_; });
    if (failed_ && why != nullptr) *why = error_;
    return !failed_;
}

void BackgroundWriter::Work() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return busy_ || stop_; });
        if (!busy_) return;  // stopping, nothing left
        const std::uint8_t* data = pending_;
        const std::size_t size = pendingSize_;
        lock.unlock();
        std::string why;
        const bool ok = partial_.Append(data, size, &why);
        lock.lock();
        if (!ok && !failed_) {
            failed_ = true;
            error_ = why;
        }
        // A checkpoint still running is not waited for: the next chunk asks again.
        const std::uint64_t written = partial_.size();
        if (ok && !checkpointing_ && written - lastCheckpoint_ >= checkpointBytes_) {
            lastCheckpoint_ = checkpointAt_ = written;
            checkpointing_ = true;
        }
        busy_ = false;
        changed_.notify_all();
    }
}

void BackgroundWriter::Checkpoints() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return checkpointing_ || stop_; });
        if (!checkpointing_) return;
        const std::uint64_t offset = checkpointAt_;
        lock.unlock();
        partial_.Checkpoint(offset);
        lock.lock();
        checkpointing_ = false;
        changed_.notify_all();
    }
}

}  // namespace kesclient
