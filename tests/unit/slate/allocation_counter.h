// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

/// How many times this thread has allocated memory with new. Works in each program that is linked with the
/// .cpp, which is a file of its own since a compiler that sees both sides inlined takes them for a mismatch.
std::size_t allocations();
