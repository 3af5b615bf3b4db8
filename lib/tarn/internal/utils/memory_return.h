// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

#include "slate/duration.h"

namespace tarn_internal {
/// Gives memory back to the system after large messages, or very many. The C library keeps what was freed,
/// for the next ones; a device that had one burst would keep it for good.
///
/// A loop waits for its next message for wait_time() at most, and tells after_wait() whether one has come.
/// Memory goes back a second after a burst if nothing comes, so that a burst costs one more wake-up and an
/// idle process none, or else `longest` after its first message, whatever comes.
///
/// Threads: for one thread.
class MemoryReturn {
public:
    explicit MemoryReturn(const slate::Duration& longest = slate::Seconds(5)) : longest_(longest) {}

    /// A message of that size has been handled.
    void note(std::size_t bytes);

    /// Infinite, unless there is something to give back.
    slate::Duration wait_time() const;

    /// Gives back what the whole process has free, if it is time.
    void after_wait(bool has_message);

private:
    void give_back();

    const slate::Duration longest_;
    bool pending_ = false;
    slate::StopWatch since_pending_{false};
    std::size_t messages_ = 0; // since memory was given back
};
} // namespace tarn_internal
