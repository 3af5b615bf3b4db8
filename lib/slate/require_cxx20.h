// SPDX-License-Identifier: Apache-2.0
#pragma once

// Headers that need C++20 include this first, so that an older compiler's first error says so.
#if __cplusplus < 202002L
#error "slate and tarn need C++20: compile with -std=c++20 or later"
#endif
