// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>

#include "tarn/fabric/fabric.h"

namespace tarn_internal {
/// What tarn::find_fabric() does, with these two directories.
tarn::Fabric choose_fabric(const std::filesystem::path& device, const std::filesystem::path& personal);
} // namespace tarn_internal
