// SPDX-License-Identifier: Apache-2.0
#include "help/page.h"

#include <CLI/CLI.hpp>

#include "help_page.h"

namespace tarn_command {
namespace {
using help_page::Page;
using help_page::Rows;

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
        {"1", "anything else, such as a file that can't be read, or output that can't be written"},
        {"2", "wrong arguments"},
        {"4", "a status of 400 to 499, but for 408"},
        {"5", "a status of 500 to 599"},
        {"6", "no such endpoint, or no permission to connect"},
        {"7", "no answer in time, here or at the router: status 408"},
    };
    return rows;
}

Page make_page(const CLI::App& app, const Command* command, const std::vector<Command>& commands)
{
    Page page;
    page.section = "1";
    page.exit_statuses = exit_rows();
    if (!command) {
        page.name = "tarn";
        page.summary = "requests, published changes and services of a device";
        page.synopsis = "tarn COMMAND [OPTION]...";
        page.description = program_description;
        page.options = help_page::options_of(app);
        page.examples = program_examples();
        for (const Command& each : commands) {
            page.commands.emplace_back(each.name, each.summary);
            page.see_also.push_back("tarn-" + each.name + "(1)");
        }
        page.see_also.emplace_back("tarnd(8)");
        return page;
    }
    page.name = "tarn " + command->name;
    page.summary = command->summary;
    page.synopsis = page.name;
    page.description = command->description;
    page.examples = command->examples;
    page.see_also = {"tarn(1)"};
    for (const CLI::Option* option :
         app.get_options([](const CLI::Option* candidate) { return candidate->get_positional(); })) {
        const bool is_list = option->get_items_expected_max() > 1;
        const std::string name = option->get_name(true) + (is_list ? "..." : "");
        page.synopsis += option->get_required() ? " " + name : " [" + name + "]";
        page.arguments.emplace_back(option->get_name(true), option->get_description());
    }
    page.synopsis += " [OPTION]...";
    page.options = help_page::options_of(app);
    if (app.get_parent())
        for (const auto& option : help_page::options_of(*app.get_parent()))
            if (option.first != "-h, --help" && option.first != "--version")
                page.options.push_back(option);
    return page;
}
} // namespace

std::string help_page_of(const CLI::App& app, const Command* command, const std::vector<Command>& commands,
                         std::size_t columns)
{
    Page page = make_page(app, command, commands);
    if (command)
        page.exit_statuses.clear(); // those of the program, which has them
    return help_page::to_help(page, columns);
}

std::string manual_page_of(const CLI::App& app, const Command* command, const std::vector<Command>& commands)
{
    return help_page::to_manual(make_page(app, command, commands));
}
} // namespace tarn_command
