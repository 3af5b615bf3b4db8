// SPDX-License-Identifier: Apache-2.0
#include "options.h"

#include <cstdio>

#include <CLI/CLI.hpp>
#include <slate/dictionary.h>
#include <slate/strings.h>

#include "command.h"
#include "nearest_name.h"
#include "output/terminal.h"

namespace tarn_command {
namespace {
bool verbose = false;

std::string trim(std::string_view text)
{
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos)
        return "";
    return std::string(text.substr(first, text.find_last_not_of(" \t") - first + 1));
}
} // namespace

void set_verbose(bool is_verbose)
{
    verbose = is_verbose;
}

void say_verbosely(const std::string& text)
{
    if (verbose)
        (void)std::fprintf(stderr, "tarn: %s\n", text.c_str());
}

slate::Duration parse_duration(const std::string& text, const std::string& option)
{
    auto duration = slate::Duration::parse(text);
    if (!duration)
        duration = slate::Duration::parse(text + "s");
    if (!duration || duration->is_not_initialized() || duration->is_negative())
        throw Failure(ExitUsage,
                      option + " takes a time such as 500ms, 2s or 1min, and not '" + escape(text) + "'");
    return *duration;
}

std::string parse_path(const std::string& text)
{
    if (text.empty())
        throw Failure(ExitUsage, "the path is empty; write one such as /clock/time");
    return text.front() == '/' ? text : "/" + text;
}

std::shared_ptr<slate::Dictionary> parse_headers(const std::vector<std::string>& texts)
{
    auto headers = slate::make_dictionary();
    for (const std::string& text : texts) {
        const auto colon = text.find(':');
        const std::string key = trim(text.substr(0, colon));
        if (colon == std::string::npos || key.empty())
            throw Failure(ExitUsage, "'" + escape(text) + "' is not a header; write it as 'Key: value'");
        const std::string value = trim(text.substr(colon + 1));
        if (!slate::is_utf8(text))
            throw Failure(ExitUsage, "the header '" + escape(key) + "' isn't UTF-8; encode its value");
        headers->set(key, std::string_view(value));
    }
    return headers;
}

std::shared_ptr<std::string> add_timeout(CLI::App& app, const char* dflt)
{
    auto text = std::make_shared<std::string>(dflt);
    app.add_option("-t,--timeout", *text,
                   std::string("how long an answer may take, such as 500ms (") + dflt + ")")
        ->type_name("TIME");
    return text;
}

std::function<std::string(const std::string&)> whole_number()
{
    return [](const std::string& text) {
        unsigned int number = 0;
        return slate::try_parse(text, &number) ? std::string()
                                               : "it takes a whole number, and not '" + text + "'";
    };
}

std::string suggestion(const std::string& text, const std::vector<std::string>& known)
{
    const std::string found = find_nearest(text, known);
    return found.empty() ? "" : "; did you mean '" + escape(found) + "'?";
}
} // namespace tarn_command
