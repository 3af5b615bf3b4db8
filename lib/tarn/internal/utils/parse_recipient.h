// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace slate {
class Dictionary;
}

namespace tarn_internal {
/// Parses a recipient such as "/a/b@1203,1207?format=json": a path, optionally "@" and the addressed process
/// ids, optionally "?" and a query. `*to` gets the ids as text, `*path` the path with a leading slash, and
/// `params` the undecoded pairs of the query; all three are emptied first.
///
/// More than two separators are an error in the log, and the path stays empty. Throws std::out_of_range if a
/// part next to a separator is missing, as in "@12".
void parse_recipient(std::string_view recipient, std::string* to, std::string* path,
                     const std::shared_ptr<slate::Dictionary>& params);
} // namespace tarn_internal
