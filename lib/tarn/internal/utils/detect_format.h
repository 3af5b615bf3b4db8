// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

#include "tarn/proto/format.pb.h"
#include "tarn/types.h"

namespace tarn_internal {
/// What the bytes of a body look like: markup, JSON, PDF, an image or an archive by its first bytes, else
/// `Text` or `Bin`. Reads 1,447 bytes at most, whatever the body's size.
Format detect_format(std::string_view content);

/// Whether a body of unknown format may be JSON or XML, by its first and last bytes.
bool looks_like_json(std::string_view content);
bool looks_like_xml(std::string_view content);
} // namespace tarn_internal
