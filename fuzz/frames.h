// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/input.h"

namespace tarn_fuzz {
/// The frames that the rest of an input holds, each behind its length in two bytes.
std::vector<std::string> read_frames(Input& input, std::size_t max_frames);

/// A custom mutator for inputs that consist of `header_bytes` options and of frames. Most frames stay
/// messages: a change of single bytes hardly ever leaves one behind that parses. `words` are texts that the
/// target knows, such as paths; names of headers are added to them.
std::size_t mutate_frames(std::uint8_t* data, std::size_t size, std::size_t max_size, unsigned int seed,
                          std::size_t header_bytes, const std::vector<std::string_view>& words);
} // namespace tarn_fuzz
