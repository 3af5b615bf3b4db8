// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/transport/thread_mark.h"

namespace tarn_internal {
namespace {
thread_local const void* present_owner = nullptr;
} // namespace

ThreadMark::ThreadMark(const void* owner)
{
    present_owner = owner;
}

ThreadMark::~ThreadMark()
{
    present_owner = nullptr;
}

bool ThreadMark::is_set_for(const void* owner)
{
    return present_owner == owner;
}
} // namespace tarn_internal
