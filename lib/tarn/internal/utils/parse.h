// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarn_internal {
/// The first segment of a path with its leading slash, such as "/a" of "/a/b/c": the topic of a published
/// change, and of the subscription for a route pattern. A path with no further "/" is its own topic.
std::string to_topic(const std::string& path);

/// The pairs of a query such as "a=1&b=2", in order and undecoded, without empty items.
std::vector<std::pair<std::string, std::string>> parse_query(std::string_view query);

/// Adds a query parameter to a URL text, unless it has one of that key. The first parameter is
/// percent-encoded, further ones are appended as they are. Returns the value that the URL now has for the key
/// (as it stands there, or as given), and whether it was added.
std::pair<std::string, bool> insert_query(std::string& url, const std::string& key, const std::string& value);
} // namespace tarn_internal
