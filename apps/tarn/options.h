// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <slate/duration.h>
#include <tarn/types.h>

namespace CLI {
class App;
}

namespace tarn_command {
/// Says something on standard error, if "-v" was given.
void set_verbose(bool is_verbose);
void say_verbosely(const std::string& text);

/// "500ms", "2s", "1min", or a bare number of seconds. Throws Failure, which names `option`.
slate::Duration parse_duration(const std::string& text, const std::string& option);

/// The path as it is sent, with its leading slash, and perhaps with process ids behind "@" and parameters
/// behind "?". Throws Failure, which says what is wrong with it.
std::string parse_path(const std::string& text);

/// Headers from texts such as "Key: value". Throws Failure.
std::shared_ptr<slate::Dictionary> parse_headers(const std::vector<std::string>& texts);

/// Declares "-H", which may be repeated and stand anywhere.
void add_headers(CLI::App& app, std::vector<std::string>& headers);

/// Declares "-t": how long one answer may take.
std::shared_ptr<std::string> add_timeout(CLI::App& app, const char* dflt = "4s");

/// A check of an option: digits only. CLI11 itself takes "-1" for a very large number.
std::function<std::string(const std::string&)> whole_number();

/// A check of an option. An empty text is more likely a script's unset variable than a wish for the default.
std::function<std::string(const std::string&)> not_empty(const std::string& example);

/// "; did you mean 'x'?", or nothing.
std::string suggestion(const std::string& text, const std::vector<std::string>& known);
} // namespace tarn_command
