// SPDX-License-Identifier: Apache-2.0
#include "help/page.h"

#include <algorithm>
#include <utility>

#include <CLI/CLI.hpp>
#include <slate/strings.h>

namespace tarn_command {
namespace {
using Rows = std::vector<std::pair<std::string, std::string>>;

const char* const program_description =
    "Requests, published changes and the services of a device, for people and scripts. Without -e or "
    "--run-dir a command asks the fabric of the device in /run/tide or else your own one, the first at which "
    "somebody listens. Nothing but what was asked for goes to standard output.";

const std::vector<Example>& program_examples()
{
    static const std::vector<Example> examples = {
        {"tarn demo", "a fabric of your own to try things on, until you press Ctrl-C"},
        {"tarn services", "which services there are"},
        {"tarn get /clock/time", "ask one of them"},
    };
    return examples;
}

const Rows& exit_rows()
{
    static const Rows rows = {
        {"0", "a reply with a status of 200 to 399, or all went well"},
        {"1", "anything else, such as output that can't be written"},
        {"2", "wrong arguments"},
        {"4", "a status of 400 to 499, but for 408"},
        {"5", "a status of 500 to 599"},
        {"6", "no such endpoint, or no permission to connect"},
        {"7", "no answer in time, here or at the router: status 408"},
    };
    return rows;
}

/// What both kinds of pages are made of.
struct Page {
    std::string name;
    std::string summary;
    std::string synopsis;
    std::string description;
    Rows commands;
    Rows arguments;
    Rows options;
    std::vector<Example> examples;
};

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

void add_options(Page& page, const CLI::App& app)
{
    for (const CLI::Option* option :
         app.get_options([](const CLI::Option* candidate) { return candidate->nonpositional(); }))
        page.options.emplace_back(option_names(*option), option->get_description());
}

Page make_page(const CLI::App& app, const Command* command, const std::vector<Command>& commands)
{
    Page page;
    if (!command) {
        page = {"tarn",
                "requests, published changes and services of a device",
                "tarn COMMAND [OPTION]...",
                program_description,
                {},
                {},
                {},
                program_examples()};
        for (const Command& each : commands)
            page.commands.emplace_back(each.name, each.summary);
        add_options(page, app);
        return page;
    }
    page = {
        "tarn " + command->name, command->summary, "tarn " + command->name, command->description, {}, {}, {},
        command->examples};
    for (const CLI::Option* option :
         app.get_options([](const CLI::Option* candidate) { return candidate->get_positional(); })) {
        const bool is_list = option->get_items_expected_max() > 1;
        const std::string name = option->get_name(true) + (is_list ? "..." : "");
        page.synopsis += option->get_required() ? " " + name : " [" + name + "]";
        page.arguments.emplace_back(option->get_name(true), option->get_description());
    }
    page.synopsis += " [OPTION]...";
    add_options(page, app);
    if (app.get_parent())
        for (const CLI::Option* option : app.get_parent()->get_options())
            if (option->get_name() != "--help" && option->get_name() != "--version")
                page.options.emplace_back(option_names(*option), option->get_description());
    return page;
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
} // namespace

std::string help_page(const CLI::App& app, const Command* command, const std::vector<Command>& commands,
                      std::size_t columns)
{
    columns = std::clamp<std::size_t>(columns, 40, 100);
    const Page page = make_page(app, command, commands);
    std::string text =
        "Usage: " + wrap(page.synopsis, columns, 7, 7) + "\n" + wrap(page.description, columns, 0);
    text += rows_text("Commands:", page.commands, columns);
    text += rows_text("Arguments:", page.arguments, columns);
    text += rows_text("Options:", page.options, columns);
    text += "\nExamples:\n";
    for (const Example& example : page.examples)
        text += "  " + example.command + "\n" + wrap(example.meaning, columns, 6);
    if (!command)
        text += rows_text("Exit status:", exit_rows(), columns);
    return text;
}

std::string manual_page(const CLI::App& app, const Command* command, const std::vector<Command>& commands)
{
    const Page page = make_page(app, command, commands);
    std::string name = page.name;
    std::replace(name.begin(), name.end(), ' ', '-');
    std::string text = ".TH " + slate::to_upper(name) + " 1 \"\" \"tarn " TARN_VERSION "\" \"tarn\"\n";
    text += ".SH NAME\n" + roff(name) + " \\- " + roff(page.summary) + "\n";
    text += ".SH SYNOPSIS\n\\fB" + roff(page.synopsis) + "\\fR\n";
    text += ".SH DESCRIPTION\n" + roff(page.description) + "\n";
    text += roff_rows("COMMANDS", page.commands);
    text += roff_rows("ARGUMENTS", page.arguments);
    text += roff_rows("OPTIONS", page.options);
    text += ".SH EXAMPLES\n";
    for (const Example& example : page.examples)
        text += ".TP\n\\fB" + roff(example.command) + "\\fR\n" + roff(example.meaning) + "\n";
    text += roff_rows("EXIT STATUS", exit_rows());
    text += ".SH SEE ALSO\n";
    if (command)
        return text + ".BR tarn (1)\n";
    for (const Command& each : commands)
        text += ".BR tarn\\-" + roff(each.name) + " (1)" + (&each == &commands.back() ? "\n" : ",\n");
    return text;
}
} // namespace tarn_command
