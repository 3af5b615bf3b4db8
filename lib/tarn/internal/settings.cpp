// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/settings.h"

#include "slate/dictionary.h"
#include "slate/log.h"

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
} // namespace tarn_internal
