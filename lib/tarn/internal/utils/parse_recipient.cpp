// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/parse_recipient.h"

#include <vector>

#include "slate/dictionary.h"
#include "slate/log.h"
#include "slate/strings.h"
#include "tarn/internal/utils/parse.h"

namespace tarn_internal {
void parse_recipient(std::string_view recipient, std::string* to, std::string* path,
                     const std::shared_ptr<slate::Dictionary>& params)
{
    to->clear();
    path->clear();
    params->clear();

    const bool has_to = slate::contains(recipient, "@");
    const bool has_query = slate::contains(recipient, "?");
    if (!has_to && !has_query) {
        *path = recipient;
    }
    else {
        const auto pieces = slate::split<std::vector<std::string>>(recipient, "@?", true, true);
        if (pieces.size() > 3) {
            slate::log_error(SLATE_HERE, "invalid path string: ", recipient);
            return;
        }
        // The positions are fixed, whichever separator comes first in the text. at() throws for a missing
        // piece.
        *path = pieces.at(0);
        if (has_to)
            *to = pieces.at(1);
        if (has_query) {
            for (const auto& [key, value] : parse_query(pieces.at(has_to ? 2 : 1)))
                params->set(key, std::string_view(value));
        }
    }

    if (!slate::starts_with(*path, "/"))
        path->insert(0, "/");
}
} // namespace tarn_internal
