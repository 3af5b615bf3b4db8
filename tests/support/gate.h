// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace tarn_test {
/// A gate that handlers wait at.
class Gate {
public:
    void pass()
    {
        std::unique_lock lock(mutex_);
        ++waiting_;
        changed_.notify_all();
        changed_.wait(lock, [&] { return open_; });
    }
    void open()
    {
        const std::lock_guard lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    /// Whether so many come to wait.
    bool await(int count, std::chrono::milliseconds limit = std::chrono::seconds(20))
    {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, limit, [&] { return waiting_ >= count; });
    }

private:
    std::mutex mutex_; // guards the two below
    std::condition_variable changed_;
    int waiting_ = 0;
    bool open_ = false;
};
} // namespace tarn_test
