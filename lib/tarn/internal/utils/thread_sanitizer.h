// SPDX-License-Identifier: Apache-2.0
#pragma once

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

namespace tarn_internal {
/// Tell the thread sanitizer that a frame's memory passes from one thread to another. An inproc socket passes
/// it without a copy, and libzmq is not instrumented, so the sanitizer can't see its synchronisation. They do
/// nothing in other builds.
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
