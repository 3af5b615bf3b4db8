// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/settings.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <string>

#include "slate/dictionary.h"
#include "slate/log.h"
#include "slate/strings.h"

namespace tarn_internal {
namespace {
/// From 1 to `most`; with an error in the log for anything else.
std::optional<std::uint64_t> number_setting(const slate::Dictionary& settings, const std::string& key,
                                            std::uint64_t most, const std::string& what)
{
    if (!settings.has(key))
        return std::nullopt;
    const std::string text = settings.get(key, "");
    std::uint64_t value = 0;
    if (slate::try_parse(text, &value) && value > 0 && value <= most)
        return value;
    slate::log_error(SLATE_HERE, "setting is not a number of " + what, ": ", key, " = " + text);
    return std::nullopt;
}
} // namespace

slate::Duration duration_setting(const slate::Dictionary& settings, const std::string& key,
                                 const slate::Duration& dflt)
{
    if (!settings.has(key))
        return dflt;
    const std::string text = settings.get(key, "");
    if (const auto value = slate::Duration::parse(text))
        return *value;
    slate::log_error(SLATE_HERE, "setting is not a duration: ", key, " = ", text);
    return dflt;
}

std::optional<std::size_t> size_setting(const slate::Dictionary& settings, const std::string& key)
{
    const auto value = number_setting(settings, key, INT64_MAX, "bytes");
    return value ? std::optional(static_cast<std::size_t>(std::min<std::uint64_t>(*value, SIZE_MAX)))
                 : std::nullopt;
}

std::optional<std::filesystem::perms> mode_setting(const slate::Dictionary& settings, const std::string& key)
{
    if (!settings.has(key))
        return std::nullopt;
    const std::string text = settings.get(key, "");
    const bool is_mode = text.find_first_not_of("01234567") == std::string::npos &&
                         (text.size() == 3 || (text.size() == 4 && text.front() == '0'));
    if (is_mode)
        return static_cast<std::filesystem::perms>(std::stoul(text, nullptr, 8));
    slate::log_error(SLATE_HERE, "setting is not a mode, such as 0770: ", key, " = ", text);
    return std::nullopt;
}

std::optional<int> count_setting(const slate::Dictionary& settings, const std::string& key)
{
    const auto value = number_setting(settings, key, INT_MAX, "messages");
    return value ? std::optional(static_cast<int>(*value)) : std::nullopt;
}
} // namespace tarn_internal
