// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/thread_name.h"

#include <cstddef>

#include <pthread.h>

namespace tarn_internal {
void name_thread(const std::string& name)
{
    constexpr std::size_t max_bytes = 15; // pthread_setname_np refuses longer names
    (void)pthread_setname_np(pthread_self(), name.substr(0, max_bytes).c_str());
}
} // namespace tarn_internal
