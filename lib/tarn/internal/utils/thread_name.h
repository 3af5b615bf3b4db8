// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace tarn_internal {
/// Names the current thread, as `top -H` and debuggers show it. The system cuts names at 15 bytes.
void name_thread(const std::string& name);
} // namespace tarn_internal
