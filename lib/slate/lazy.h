// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <utility>

namespace slate {
/// A value that is made when it is first needed.
///
/// Threads: any thread may call get(). Threads that call it while the value is being made wait for it.
template <class T>
class Lazy {
public:
    /// `maker` makes the value. It must not call get() of the same object.
    explicit Lazy(std::function<std::shared_ptr<T>()> maker) : maker_(std::move(maker)) {}

    /// The value, which is made first if there is none yet. An exception thrown by the maker passes through,
    /// and the next call tries again, as it does after a null value. An empty maker throws
    /// std::bad_function_call.
    std::shared_ptr<T> get()
    {
        const std::lock_guard lock(mutex_);
        if (!value_)
            value_ = maker_();
        return value_;
    }

private:
    std::function<std::shared_ptr<T>()> maker_;
    std::mutex mutex_; // guards value_, and is held while the maker runs
    std::shared_ptr<T> value_;
};
} // namespace slate
