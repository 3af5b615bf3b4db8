// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "tarn/route.h"

namespace tarn_fuzz {
/// Routes of every kind for a server: values of each type, resources on each store, handlers that do and
/// throw whatever a handler may, routes that take and give chunks, a private one. PUT "/reset" brings all of
/// them back to their first state. Their files lie in `folder`.
std::vector<std::shared_ptr<tarn::Route>> make_routes(const std::filesystem::path& folder);

/// Paths of these routes and what else they know, for mutate_frames.
const std::vector<std::string_view>& words_of_routes();
} // namespace tarn_fuzz
