// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "tarn/route.h"

namespace tarn_internal {
/// The patterns of a route that don't begin with "/". Paths do, so that such a pattern hardly means what it
/// says.
std::vector<std::string> patterns_without_slash(const Route& route);

/// What the author of a route has probably overlooked, a sentence each, when it has been primed.
/// `without_slash` is what patterns_without_slash() said before that: priming puts the slash in.
std::vector<std::string> find_oversights(const Route& route, const std::vector<std::string>& without_slash);
} // namespace tarn_internal
