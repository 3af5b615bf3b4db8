// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <mutex>

namespace slate {
/// A value that is made when it is first asked for. Any thread.
template <class T>
class Lazy {
public:
    explicit Lazy(std::function<std::shared_ptr<T>()> maker) : maker_(std::move(maker)) {}

    /// The value, made now if there is none yet. Whatever the maker throws passes out, and the next call
    /// tries again; an empty maker throws std::bad_function_call.
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
