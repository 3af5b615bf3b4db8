// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/settings.h"

#include <algorithm>
#include <cstdint>

#include "slate/dictionary.h"
#include "slate/log.h"
#include "slate/strings.h"

namespace tarn_internal {
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
    if (!settings.has(key))
        return std::nullopt;
    const std::string text = settings.get(key, "");
    std::uint64_t value = 0;
    if (slate::try_parse(text, &value) && value > 0 && value <= INT64_MAX)
        return static_cast<std::size_t>(std::min<std::uint64_t>(value, SIZE_MAX));
    slate::log_error(SLATE_HERE, "setting is not a number of bytes: ", key, " = ", text);
    return std::nullopt;
}
} // namespace tarn_internal
