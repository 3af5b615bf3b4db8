// SPDX-License-Identifier: Apache-2.0
#include "allocations.h"

#include <cstddef>

// The program's functions come before the C library's, which has these names for the same.
extern "C" void* __libc_malloc(std::size_t size);
extern "C" void* __libc_calloc(std::size_t count, std::size_t size);
extern "C" void* __libc_realloc(void* memory, std::size_t size);

namespace {
thread_local constinit long count = 0;
} // namespace

extern "C" void* malloc(std::size_t size) noexcept
{
    ++count;
    return __libc_malloc(size);
}

extern "C" void* calloc(std::size_t number, std::size_t size) noexcept
{
    ++count;
    return __libc_calloc(number, size);
}

extern "C" void* realloc(void* memory, std::size_t size) noexcept
{
    ++count;
    return __libc_realloc(memory, size);
}

long bench::allocations()
{
    return count;
}
