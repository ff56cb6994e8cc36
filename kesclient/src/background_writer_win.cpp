#include "background_writer_win.h"

namespace kesclient {

BackgroundWriter::BackgroundWriter(PartialFile& partial, std::uint8_t* first, std::uint8_t* second,
                                   std::size_t capacity)
    : partial_(partial), buffers_{first, second}, capacity_(capacity) {
    thread_ = std::thread(&BackgroundWriter::Work, this);
}

BackgroundWriter::~BackgroundWriter() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    changed_.notify_all();
    thread_.join();
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
    changed_.wait(lock, [this] { return !busy_; });
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
        busy_ = false;
        changed_.notify_all();
    }
}

}  // namespace kesclient
