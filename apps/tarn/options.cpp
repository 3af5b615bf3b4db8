// SPDX-License-Identifier: Apache-2.0
#include "options.h"

#include <algorithm>
#include <cstdio>

#include <CLI/CLI.hpp>
#include <slate/dictionary.h>
#include <slate/strings.h>

#include "command.h"
#include "output/terminal.h"

namespace tarn_command {
namespace {
bool verbose = false;

/// How many letters to change, add, leave out or swap with their neighbour.
std::size_t distance(std::string_view a, std::string_view b)
{
    std::vector<std::vector<std::size_t>> rows(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i) {
        for (std::size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                rows[i][j] = i + j;
                continue;
            }
            const std::size_t replaced = rows[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
            rows[i][j] = std::min({replaced, rows[i - 1][j] + 1, rows[i][j - 1] + 1});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                rows[i][j] = std::min(rows[i][j], rows[i - 2][j - 2] + 1);
        }
    }
    return rows.back().back();
}

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

std::string nearest(const std::string& text, const std::vector<std::string>& known)
{
    static constexpr std::size_t max_length = 64; // the time grows with the square
    std::string best;
    if (text.size() > max_length)
        return best;
    std::size_t least = std::max<std::size_t>(1, text.size() / 3) + 1;
    for (const std::string& candidate : known) {
        if (candidate.size() > max_length)
            continue;
        if (const auto steps = distance(text, candidate); steps < least) {
            least = steps;
            best = candidate;
        }
    }
    return best;
}

std::string suggestion(const std::string& text, const std::vector<std::string>& known)
{
    const std::string found = nearest(text, known);
    return found.empty() ? "" : "; did you mean '" + escape(found) + "'?";
}
} // namespace tarn_command
