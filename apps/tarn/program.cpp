// SPDX-License-Identifier: Apache-2.0
#include "program.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>

#include <CLI/CLI.hpp>
#include <slate/log.h>
#include <slate/strings.h>
#include <unistd.h>

#include "help/completion.h"
#include "help/page.h"
#include "options.h"
#include "output/body.h"
#include "output/terminal.h"

namespace tarn_command {
namespace {
/// All commands with their options, ready to read arguments.
class Program {
public:
    explicit Program(const std::vector<Command>& commands) : commands_(commands)
    {
        app_.name("tarn");
        app_.ignore_case();
        app_.set_help_flag("-h,--help", "this help");
        app_.add_flag("-v,--verbose", verbose_, "say where it goes, and show the library's log");
        app_.add_flag("--no-color", no_colour_, "no colours, as with NO_COLOR in the environment");
        for (const Command& command : commands_) {
            CLI::App* sub = app_.add_subcommand(command.name, command.summary);
            sub->fallthrough();
            sub->set_help_flag("-h,--help", "this help");
            runs_[sub] = command.add(*sub);
            if (command.name == "del")
                sub->alias("delete");
        }
        app_.set_help_flag("-h,--help", "this help");
    }

    int run(int argc, char** argv)
    {
        if (argc == 1)
            return show_usage();
        refuse_unknown_command(argv[1]);
        try {
            app_.parse(argc, argv);
        }
        catch (const CLI::CallForHelp&) {
            write_out(
                help_page_of(*current(), command_of(current()), commands_, terminal_width(STDOUT_FILENO)));
            flush_out();
            return ExitGood;
        }
        catch (const CLI::ParseError& error) {
            throw Failure(ExitUsage, usage_sentence(error));
        }
        if (app_.get_subcommands().empty())
            return show_usage();
        set_verbose(verbose_);
        if (no_colour_)
            forbid_colours();
        if (!verbose_)
            slate::set_log_sinks({}); // the sentence on standard error tells what went wrong
        const int status = runs_.at(current())();
        flush_out();
        return status;
    }

    /// What to put before a sentence, such as "tarn get".
    std::string name() const
    {
        const Command* command = command_of(current());
        return command ? "tarn " + command->name : "tarn";
    }

    void show_completions(const std::vector<std::string>& words)
    {
        for (const std::string& word : complete(app_, words))
            write_out(word + "\n");
        flush_out();
    }

    /// Writes all pages of manual into a directory.
    void write_manual(const std::filesystem::path& directory)
    {
        const auto write = [&](const std::string& page, const CLI::App& app, const Command* command) {
            std::ofstream(directory / (page + ".1")) << manual_page_of(app, command, commands_);
        };
        write("tarn", app_, nullptr);
        for (const Command& command : commands_)
            write("tarn-" + command.name, *app_.get_subcommand(command.name), &command);
    }

private:
    const CLI::App* current() const
    {
        const auto chosen = app_.get_subcommands();
        return chosen.empty() ? &app_ : chosen.front();
    }

    const Command* command_of(const CLI::App* app) const
    {
        for (const Command& command : commands_) {
            if (app_.get_subcommand(command.name) == app)
                return &command;
        }
        return nullptr;
    }

    int show_usage() const
    {
        const std::string page = help_page_of(app_, nullptr, commands_, terminal_width(STDERR_FILENO));
        (void)std::fputs(page.c_str(), stderr);
        return ExitUsage;
    }

    void refuse_unknown_command(const std::string& word) const
    {
        if (word.empty() || word.front() == '-')
            return;
        std::vector<std::string> names = {"delete"};
        for (const Command& command : commands_)
            names.push_back(command.name);
        for (const std::string& name : names) {
            if (slate::equals_ignoring_case(name, word))
                return;
        }
        const std::string near = suggestion(slate::to_lower(word), names);
        throw Failure(ExitUsage, "there is no command '" + escape(word) + "'" +
                                     (near.empty() ? "; `tarn --help` lists them" : near));
    }

    std::string usage_sentence(const CLI::ParseError& error) const
    {
        std::string text =
            escape(slate::join(slate::split<std::vector<std::string>>(error.what(), "\n", true, true), "; "));
        static constexpr std::string_view unexpected = "expected: ";
        if (const auto at = text.find(unexpected);
            dynamic_cast<const CLI::ExtrasError*>(&error) && at != std::string::npos) {
            const std::string words = text.substr(at + unexpected.size());
            text = "there is no place for '" + words + "'";
            if (slate::starts_with(words, "-"))
                text = "there is no option '" + words + "'; a body that begins with '-' goes behind '--'";
        }
        return text + "; see `" + name() + " --help`";
    }

    const std::vector<Command>& commands_;
    CLI::App app_;
    std::map<const CLI::App*, std::function<int()>> runs_;
    bool verbose_ = false;
    bool no_colour_ = false;
};

int report(const std::string& name, int status, const std::string& sentence)
{
    (void)std::fflush(stdout);
    (void)std::fprintf(stderr, "%s: %s\n", name.c_str(), sentence.c_str());
    return status;
}
} // namespace

int run_program(int argc, char** argv, const std::vector<Command>& commands)
{
    // A reader that has gone ends the command, even if whoever started it ignores the signal.
    (void)std::signal(SIGPIPE, SIG_DFL);
    Program program(commands);
    try {
        if (argc == 3 && std::string(argv[1]) == "--write-manual") { // for the build
            program.write_manual(argv[2]);
            return ExitGood;
        }
        if (argc >= 2 && std::string(argv[1]) == "--complete") { // for the shells
            program.show_completions({argv + 2, argv + argc});
            return ExitGood;
        }
        return program.run(argc, argv);
    }
    catch (const Failure& failure) {
        return report(program.name(), failure.exit_status, failure.what());
    }
    catch (const std::exception& error) {
        return report(program.name(), ExitOther, escape(error.what()) + "; -v shows the log");
    }
}
} // namespace tarn_command
