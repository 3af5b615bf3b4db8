// SPDX-License-Identifier: Apache-2.0
#include "program.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include <CLI/CLI.hpp>
#include <slate/log.h>
#include <slate/strings.h>
#include <unistd.h>

#include "help/completion.h"
#include "help/page.h"
#include "options.h"
#include "output/body.h"
#include "output/terminal.h"
#include "start.h"

namespace tarn_command {
namespace {
/// All commands with their options, ready to read arguments.
class Program {
public:
    explicit Program(std::vector<Command> commands) : commands_(std::move(commands))
    {
        commands_.push_back(help_command());
        app_.name("tarn");
        app_.ignore_case();
        app_.require_subcommand(0, 1); // a body or a name may be called like another command
        app_.set_help_flag("-h,--help", "this help");
        app_.add_flag("-v,--verbose", verbose_, "say where it goes, and show the library's log");
        app_.add_flag("--no-color", no_colour_, "no colours, as with NO_COLOR in the environment");
        app_.set_version_flag("--version", std::string(), "what `tarn version` prints");
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
        check_command({argv + 1, argv + argc});
        try {
            app_.parse(argc, argv);
        }
        catch (const CLI::CallForHelp&) {
            return show_help(*current());
        }
        catch (const CLI::CallForVersion&) {
            return run_command(*app_.get_subcommand("version"));
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
        return run_command(*current());
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

    Command help_command() const
    {
        return {"help",
                "the help of a command, or of the program",
                "Prints what `tarn COMMAND --help` prints, or, without a command, `tarn --help`.",
                {{"tarn help get", "how to fetch something"}},
                [this](CLI::App& app) {
                    auto word = std::make_shared<std::string>();
                    app.add_option("COMMAND", *word, "such as get; the whole program if it is missing");
                    return [this, word] { return show_help(word->empty() ? app_ : find_command(*word)); };
                }};
    }

    int run_command(const CLI::App& app) const
    {
        const int status = runs_.at(&app)();
        flush_out();
        return status;
    }

    int show_help(const CLI::App& app) const
    {
        write_out(help_page_of(app, command_of(&app), commands_, terminal_width(STDOUT_FILENO)));
        flush_out();
        return ExitGood;
    }

    int show_usage() const
    {
        const std::string page = help_page_of(app_, nullptr, commands_, terminal_width(STDERR_FILENO));
        (void)std::fputs(page.c_str(), stderr);
        return ExitUsage;
    }

    /// Refuses what stands before the command and belongs behind it, and a command that there isn't.
    void check_command(const std::vector<std::string>& words) const
    {
        for (const std::string& word : words) {
            if (word.empty())
                return;
            if (word.front() == '-')
                refuse_option_of_commands(word);
            else {
                (void)find_command(word);
                return;
            }
        }
    }

    void refuse_option_of_commands(const std::string& word) const
    {
        const bool is_short = word.size() > 1 && word[1] != '-'; // perhaps with its value, as in -t5
        const std::string name = is_short ? word.substr(0, 2) : word.substr(0, word.find('='));
        if (name.size() < 2 || app_.get_option_no_throw(name))
            return;
        for (const Command& command : commands_) {
            if (app_.get_subcommand(command.name)->get_option_no_throw(name))
                throw Failure(ExitUsage, "'" + brief(name) + "' goes behind the command, as in `tarn " +
                                             command.name + " " + brief(name) + "`; see `tarn --help`");
        }
    }

    const CLI::App& find_command(const std::string& word) const
    {
        std::vector<std::string> names = {"delete"};
        for (const Command& command : commands_)
            names.push_back(command.name);
        for (const std::string& name : names) {
            if (slate::equals_ignoring_case(name, word))
                return *app_.get_subcommand(name);
        }
        const std::string near = suggestion(slate::to_lower(word), names);
        throw Failure(ExitUsage, "there is no command '" + brief(word) + "'" +
                                     (near.empty() ? "; `tarn --help` lists them" : near));
    }

    std::string usage_sentence(const CLI::ParseError& error) const
    {
        const std::string text =
            dynamic_cast<const CLI::ExtrasError*>(&error)
                ? sentence_about(app_.remaining(true))
                : escape(slate::join(slate::split<std::vector<std::string>>(error.what(), "\n", true, true),
                                     "; "));
        return text + "; see `" + name() + " --help`";
    }

    /// Of words that no argument and no option takes.
    std::string sentence_about(const std::vector<std::string>& words) const
    {
        const auto option = std::find_if(words.begin(), words.end(), [](const std::string& word) {
            return slate::starts_with(word, "-");
        });
        if (option == words.end())
            return "there is no place for '" + brief(slate::join(words, " ")) + "'";
        std::vector<std::string> names;
        for (const CLI::Option* known : current()->get_options())
            for (const std::string& name : known->get_lnames())
                names.push_back("--" + name);
        std::string near = suggestion(option->substr(0, option->find('=')), names);
        if (near.empty() && current()->get_option_no_throw("BODY"))
            near = "; a body that begins with '-' goes behind '--'";
        return "there is no option '" + brief(*option) + "'" + near;
    }

    std::vector<Command> commands_;
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
    start::occupy_standard_streams();
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
