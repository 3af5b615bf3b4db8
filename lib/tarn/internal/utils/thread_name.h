// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace tarn_internal {
/// Names the current thread, as `top -H` and debuggers show it; cuts the name to 15 bytes, the system's
/// limit.
void name_thread(const std::string& name);
} // namespace tarn_internal
