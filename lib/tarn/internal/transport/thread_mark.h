// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <thread>
#include <utility>

namespace tarn_internal {
/// Marks the present thread as one that works for `owner`, for as long as it lives.
class ThreadMark {
public:
    explicit ThreadMark(const void* owner);
    ~ThreadMark();
    ThreadMark(const ThreadMark&) = delete;
    ThreadMark& operator=(const ThreadMark&) = delete;

    /// Whether the present thread works for `owner`.
    static bool is_set_for(const void* owner);
};

/// Makes an object that joins its threads when it goes. If its last owner is one of these threads, as when a
/// handler holds the last pointer to its own server, the object goes on a thread of its own instead, once the
/// handler is done.
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
