// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/parse.h"

#include "slate/encoding.h"
#include "slate/strings.h"

namespace tarn_internal {
namespace {
using Pair = std::pair<std::string, std::string>;
} // namespace

std::string to_topic(const std::string& path)
{
    return path.substr(0, path.find('/', 1));
}

std::vector<Pair> parse_query(std::string_view query)
{
    std::vector<Pair> pairs;
    for (const std::string& item : slate::split<std::vector<std::string>>(query, "&", false, true))
        pairs.push_back(slate::split<Pair>(item, "=", false, true));
    return pairs;
}

std::pair<std::string, bool> insert_query(std::string& url, const std::string& key, const std::string& value)
{
    const auto [base, query] = slate::split<Pair>(url, "?", false, true);
    if (query.empty()) {
        url = base + "?" + key + "=" + slate::encode_uri_component(value, true);
        return {value, true};
    }
    for (const auto& [present_key, present_value] : parse_query(query)) {
        if (present_key == key)
            return {present_value, false};
    }
    // Not encoded, unlike the first parameter: callers rely on the difference.
    url += "&" + key + "=" + value;
    return {value, true};
}
} // namespace tarn_internal
