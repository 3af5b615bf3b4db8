// SPDX-License-Identifier: Apache-2.0
#include "help_page.h"

#include <algorithm>

#include <CLI/CLI.hpp>
#include <slate/strings.h>

namespace help_page {
namespace {
std::string option_names(const CLI::Option& option)
{
    std::string names;
    for (const std::string& name : option.get_snames())
        names += (names.empty() ? "-" : ", -") + name;
    for (const std::string& name : option.get_lnames())
        names += (names.empty() ? "--" : ", --") + name;
    if (option.get_type_size() != 0 && !option.get_type_name().empty())
        names += " " + option.get_type_name();
    return names;
}

/// The text in lines of at most `columns`, each after `indent` blanks.
std::string wrap(const std::string& text, std::size_t columns, std::size_t indent, std::size_t used = 0)
{
    const std::string margin(indent, ' ');
    std::string result = used == 0 ? margin : "";
    std::size_t at = std::max(used, indent);
    bool is_first = true;
    for (const std::string& word : slate::split<std::vector<std::string>>(text, " ", false, true)) {
        if (!is_first && at + 1 + word.size() > columns) {
            result += "\n" + margin;
            at = indent;
            is_first = true;
        }
        if (!is_first) {
            result += ' ';
            ++at;
        }
        result += word;
        at += word.size();
        is_first = false;
    }
    return result + "\n";
}

std::string rows_text(const char* title, const Rows& rows, std::size_t columns)
{
    if (rows.empty())
        return "";
    std::size_t width = 0;
    for (const auto& [name, meaning] : rows)
        width = std::max(width, name.size());
    const std::size_t indent = std::min<std::size_t>(width + 4, columns / 2);
    std::string result = std::string("\n") + title + "\n";
    for (const auto& [name, meaning] : rows) {
        const std::string start = "  " + name;
        if (start.size() + 2 > indent)
            result += start + "\n" + wrap(meaning, columns, indent);
        else
            result +=
                start + std::string(indent - start.size(), ' ') + wrap(meaning, columns, indent, indent);
    }
    return result;
}

std::string roff(const std::string& text)
{
    std::string result;
    for (const char c : text) {
        if (c == '\\')
            result += "\\e";
        else if (c == '-')
            result += "\\-";
        else if (c == '\'' && result.empty())
            result += "\\&'";
        else if (c == '.' && result.empty())
            result += "\\&.";
        else
            result += c;
    }
    return result;
}

std::string roff_rows(const char* title, const Rows& rows)
{
    if (rows.empty())
        return "";
    std::string result = std::string(".SH ") + title + "\n";
    for (const auto& [name, meaning] : rows)
        result += ".TP\n\\fB" + roff(name) + "\\fR\n" + roff(meaning) + "\n";
    return result;
}

/// "tarn(1)" as a reference: ".BR tarn (1)".
std::string roff_reference(const std::string& reference)
{
    const auto section = std::min(reference.find('('), reference.size());
    return ".BR " + roff(reference.substr(0, section)) + " " + reference.substr(section);
}
} // namespace

Rows options_of(const CLI::App& app)
{
    Rows rows;
    for (const CLI::Option* option :
         app.get_options([](const CLI::Option* candidate) { return candidate->nonpositional(); }))
        rows.emplace_back(option_names(*option), option->get_description());
    return rows;
}

std::string to_help(const Page& page, std::size_t columns)
{
    columns = std::clamp<std::size_t>(columns, 40, 100);
    std::string text =
        "Usage: " + wrap(page.synopsis, columns, 7, 7) + "\n" + wrap(page.description, columns, 0);
    text += rows_text("Commands:", page.commands, columns);
    text += rows_text("Arguments:", page.arguments, columns);
    text += rows_text("Options:", page.options, columns);
    text += "\nExamples:\n";
    for (const Example& example : page.examples)
        text += "  " + example.command + "\n" + wrap(example.meaning, columns, 6);
    return text + rows_text("Exit status:", page.exit_statuses, columns);
}

std::string to_manual(const Page& page)
{
    std::string name = page.name;
    std::replace(name.begin(), name.end(), ' ', '-');
    std::string text = ".TH " + slate::to_upper(name) + " " + page.section +
                       " \"" TARN_DATE "\" \"tarn " TARN_VERSION "\" \"tarn\"\n";
    text += ".SH NAME\n" + roff(name) + " \\- " + roff(page.summary) + "\n";
    text += ".SH SYNOPSIS\n\\fB" + roff(page.synopsis) + "\\fR\n";
    text += ".SH DESCRIPTION\n" + roff(page.description) + "\n";
    text += roff_rows("COMMANDS", page.commands);
    text += roff_rows("ARGUMENTS", page.arguments);
    text += roff_rows("OPTIONS", page.options);
    text += ".SH EXAMPLES\n";
    for (const Example& example : page.examples)
        text += ".TP\n\\fB" + roff(example.command) + "\\fR\n" + roff(example.meaning) + "\n";
    text += roff_rows("EXIT STATUS", page.exit_statuses);
    text += ".SH SEE ALSO\n";
    for (const std::string& reference : page.see_also)
        text += roff_reference(reference) + (&reference == &page.see_also.back() ? "\n" : ",\n");
    return text;
}
} // namespace help_page
