// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/own_thread.h"

namespace tarn_internal {
namespace {
thread_local const void* present_owner = nullptr;
} // namespace

OwnThread::OwnThread(const void* owner)
{
    present_owner = owner;
}

OwnThread::~OwnThread()
{
    present_owner = nullptr;
}

bool OwnThread::is_of(const void* owner)
{
    return present_owner == owner;
}
} // namespace tarn_internal
