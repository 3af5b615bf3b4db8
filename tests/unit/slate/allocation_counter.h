// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

/// How many times this thread has allocated memory with new. The operators are in a .cpp of their own: a
/// compiler that inlines them into a test warns of memory from malloc that delete frees.
std::size_t allocations();
