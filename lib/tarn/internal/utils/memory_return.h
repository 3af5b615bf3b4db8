// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

#include "slate/duration.h"

namespace tarn_internal {
/// Gives memory back to the system after large messages, or very many. The C library keeps what was freed,
/// for the next ones; a device that had one burst would keep it for good.
///
/// A loop waits for its next message for wait_time() at most, and calls give_back() if none has come. So a
/// burst costs one more wake-up, and an idle process none.
///
/// Threads: for one thread.
class MemoryReturn {
public:
    /// A message of that size has been handled.
    void note(std::size_t bytes);

    /// Infinite, unless there is something to give back.
    slate::Duration wait_time() const;

    /// Gives back what the whole process has free.
    void give_back();

private:
    bool pending_ = false;
    std::size_t messages_ = 0; // since memory was given back
};
} // namespace tarn_internal
