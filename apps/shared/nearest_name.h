// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <vector>

/// The name that is spelled most like a mistyped one, or empty if none is alike.
std::string find_nearest(std::string_view name, const std::vector<std::string>& names);
