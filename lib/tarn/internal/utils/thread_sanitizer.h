// SPDX-License-Identifier: Apache-2.0
#pragma once

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

namespace tarn_internal {
/// Tells the thread sanitizer that a frame's memory goes from one thread to another. An inproc socket passes
/// it on as it is, and libzmq, which comes without instrumentation, doesn't show how it synchronises that.
/// Nothing in any other build.
inline void tsan_release([[maybe_unused]] void* memory)
{
#if defined(__SANITIZE_THREAD__)
    __tsan_release(memory);
#endif
}

inline void tsan_acquire([[maybe_unused]] void* memory)
{
#if defined(__SANITIZE_THREAD__)
    __tsan_acquire(memory);
#endif
}
} // namespace tarn_internal
