// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>

#include "slate/duration.h"

namespace slate {
class Dictionary;
}

namespace tarn_internal {
/// The setting `key` as a duration; `dflt` if it is absent, and, with an error in the log, if its text is not
/// a duration.
slate::Duration duration_setting(const slate::Dictionary& settings, const std::string& key,
                                 const slate::Duration& dflt);

/// The setting `key` as a number of bytes; none if it is absent, and, with an error in the log, if its text
/// isn't a positive whole number.
std::optional<std::size_t> size_setting(const slate::Dictionary& settings, const std::string& key);

/// The setting `key` as the mode of a file, such as "0770": three octal digits, of which a "0" may stand in
/// front. None if it is absent, and, with an error in the log, for any other text.
std::optional<std::filesystem::perms> mode_setting(const slate::Dictionary& settings, const std::string& key);

/// The same as a number of messages, of which an int holds each.
std::optional<int> count_setting(const slate::Dictionary& settings, const std::string& key);
} // namespace tarn_internal
