// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <thread>
#include <utility>

namespace tarn_internal {
/// Marks the current thread as one that works for `owner`, for the lifetime of the mark.
class ThreadMark {
public:
    explicit ThreadMark(const void* owner);
    ~ThreadMark();
    ThreadMark(const ThreadMark&) = delete;
    ThreadMark& operator=(const ThreadMark&) = delete;

    /// Whether the current thread works for `owner`.
    static bool is_set_for(const void* owner);
};

/// Makes an object whose destructor joins its threads. If one of these threads drops the last pointer, as a
/// handler may do with its own server, the object is destroyed on a separate thread instead, after the
/// handler.
template <class Owner, class... Args>
std::shared_ptr<Owner> make_with_threads(Args&&... args)
{
    const auto destroy = [](Owner* owner) {
        std::unique_ptr<Owner> owned(owner);
        if (ThreadMark::is_set_for(owner))
            std::thread([last = std::move(owned)] {}).detach();
    };
    return {std::make_unique<Owner>(std::forward<Args>(args)...).release(), destroy};
}
} // namespace tarn_internal
