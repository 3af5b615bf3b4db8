// SPDX-License-Identifier: Apache-2.0
#include "options.h"

#include <algorithm>
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

/// The process ids between "@" and "?".
std::string find_fault_of_ids(const std::string& text)
{
    const auto ids = slate::split<std::vector<std::string>>(text, ",", false, true);
    int id = 0;
    for (const std::string& each : ids) {
        if (!slate::try_parse(each, &id))
            return "behind the '@' are the ids of processes, and '" + brief(each) + "' is none";
    }
    return ids.empty() ? "nothing follows the '@'" : "";
}

std::string trim(std::string_view text)
{
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos)
        return "";
    return std::string(text.substr(first, text.find_last_not_of(" \t") - first + 1));
}

/// What is wrong with a path such as "/a/b@1203,1207?format=json"; empty if nothing is.
std::string find_fault(const std::string& text)
{
    if (!slate::is_utf8(text))
        return "it isn't UTF-8";
    for (const char separator : {'@', '?'}) {
        if (std::count(text.begin(), text.end(), separator) > 1)
            return std::string("it has more than one '") + separator + "'; in a parameter write " +
                   (separator == '@' ? "%40" : "%3F");
    }
    const auto at = text.find('@');
    const auto query = text.find('?');
    const auto end = std::min({at, query, text.size()});
    if (trim(text.substr(0, end)).empty())
        return std::string("nothing stands before the '") + text[end] + "'";
    if (at != std::string::npos && query < at)
        return "an '@' stands before the '?', with the ids of processes; in a parameter write %40";
    if (query != std::string::npos && trim(text.substr(query + 1)).empty())
        return "nothing follows the '?'";
    return at == std::string::npos ? "" : find_fault_of_ids(trim(text.substr(at + 1, query - at - 1)));
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
                      option + " takes a time such as 500ms, 2s or 1min, and not '" + brief(text) + "'");
    return *duration;
}

std::string parse_path(const std::string& text)
{
    if (trim(text).empty())
        throw Failure(ExitUsage, "the path is empty; write one such as /clock/time");
    if (const std::string fault = find_fault(text); !fault.empty())
        throw Failure(ExitUsage, "'" + brief(text) + "' is not a path: " + fault +
                                     "; write one such as /clock/time or '/clock/time?format=json'");
    return text.front() == '/' ? text : "/" + text;
}

std::shared_ptr<slate::Dictionary> parse_headers(const std::vector<std::string>& texts)
{
    auto headers = slate::make_dictionary();
    for (const std::string& text : texts) {
        const auto colon = text.find(':');
        const std::string key = trim(text.substr(0, colon));
        if (colon == std::string::npos || key.empty())
            throw Failure(ExitUsage, "'" + brief(text) + "' is not a header; write it as 'Key: value'");
        const std::string value = trim(text.substr(colon + 1));
        if (!slate::is_utf8(text))
            throw Failure(ExitUsage, "the header '" + brief(key) + "' isn't UTF-8; encode its value");
        headers->set(key, std::string_view(value));
    }
    return headers;
}

void add_headers(CLI::App& app, std::vector<std::string>& headers)
{
    app.add_option("-H,--header", headers, "adds a header, such as 'Accept: application/json'")
        ->type_name("'KEY: VALUE'")
        ->allow_extra_args(false); // what follows is a path or a body
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
        if (slate::try_parse(text, &number))
            return std::string();
        const bool is_too_large = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
        return std::string("it takes a whole number") + (is_too_large ? " up to 4294967295" : "") +
               ", and not '" + brief(text) + "'";
    };
}

std::function<std::string(const std::string&)> not_empty(const std::string& example)
{
    return [=](const std::string& text) {
        return text.empty() ? "it is empty; name one such as " + example : std::string();
    };
}

std::string suggestion(const std::string& text, const std::vector<std::string>& known)
{
    const std::string found = find_nearest(text, known);
    return found.empty() ? "" : "; did you mean '" + escape(found) + "'?";
}
} // namespace tarn_command
