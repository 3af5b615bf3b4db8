// SPDX-License-Identifier: Apache-2.0
#include "help/completion.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>

#include <CLI/CLI.hpp>
#include <slate/log.h>
#include <slate/strings.h>
#include <slate/uri.h>
#include <tarn/zmq_subsystem.h>

#include "command.h"
#include "fabric_map.h"

namespace tarn_command {
namespace {
// Nobody waits longer for a key.
const slate::Duration patience = slate::Milliseconds(300);

/// Names come from peers, and the shell puts them on a person's command line.
bool is_plain(const std::string& text)
{
    return std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               std::string_view("/._-+,=%@").find(c) != std::string_view::npos;
    });
}

/// The part of a pattern before its first variable.
std::string literal_part(const std::string& pattern)
{
    std::string result;
    for (const std::string& segment : slate::split<std::vector<std::string>>(pattern, "/", false, true)) {
        if (segment.find_first_of(":*?(<") != std::string::npos)
            return result + "/";
        result += "/" + segment;
    }
    return result;
}

void add_paths(std::set<std::string>& found, const Place& place, const std::string& word)
{
    slate::set_log_sinks({});
    try {
        const tarn::ZmqSubsystem subsystem;
        if (!place.endpoint.empty()) {
            const auto server = services::look_at("", parse_endpoint(place.endpoint), patience);
            for (const auto& route : server.routes.details())
                for (const std::string& pattern : route.patterns())
                    found.insert(literal_part(pattern));
            return;
        }
        const auto fabric = find_fabric(place);
        for (const std::string& name : service_names(fabric.run_time_directory)) {
            const std::string prefix = "/" + name;
            if (!slate::starts_with(word, prefix + "/")) {
                found.insert(prefix + "/");
                continue;
            }
            const auto service = services::look_at(name, tarn::service_endpoint(fabric, name), patience);
            for (const auto& route : service.routes.details())
                for (const std::string& pattern : route.patterns())
                    found.insert(prefix + literal_part(pattern));
        }
    }
    catch (const std::exception&) { // nothing to offer
    }
}

void add_services(std::set<std::string>& found, const Place& place)
{
    try {
        for (const std::string& name : service_names(find_fabric(place).run_time_directory))
            found.insert(name);
    }
    catch (const std::exception&) { // nothing to offer
    }
}

void add_commands(std::set<std::string>& found, const CLI::App& app)
{
    for (const CLI::App* each : app.get_subcommands([](const CLI::App*) { return true; }))
        found.insert(each->get_name());
}

void add_options(std::set<std::string>& found, const CLI::App& app)
{
    for (const CLI::Option* option : app.get_options())
        for (const std::string& name : option->get_lnames())
            found.insert("--" + name);
}

/// The words of a command line that isn't whole yet, as far as it is there.
struct Line {
    const CLI::App* command = nullptr;
    std::size_t positionals = 0; ///< before the last word
    std::string endpoint;
    std::string run_time_directory;
    bool is_value = false;      ///< the last word belongs to an option
    bool has_separator = false; ///< "--": nothing behind it is an option
};

const CLI::App* find_command(const CLI::App& app, const std::string& word)
{
    for (const CLI::App* each : app.get_subcommands([](const CLI::App*) { return true; })) {
        if (each->check_name(word))
            return each;
    }
    return nullptr;
}

void note_value(Line& line, const CLI::Option& option, const std::string& value)
{
    if (option.check_name("--endpoint"))
        line.endpoint = value;
    else if (option.check_name("--run-dir"))
        line.run_time_directory = value;
}

/// Reads an option; the one whose value is the next word, or null.
const CLI::Option* read_option(Line& line, const std::string& word)
{
    const auto equals = word.find('=');
    const bool is_long = slate::starts_with(word, "--");
    // What follows "-e" in the same word is its value.
    const std::string name = is_long ? word.substr(0, equals) : word.substr(0, 2);
    const CLI::Option* option = line.command ? line.command->get_option_no_throw(name) : nullptr;
    if (!option || option->get_items_expected_max() == 0) // a flag
        return nullptr;
    if (word.size() == name.size())
        return option;
    note_value(line, *option, word.substr(name.size() + (is_long ? 1 : 0)));
    return nullptr;
}

Line read_line(const CLI::App& app, const std::vector<std::string>& words)
{
    Line line;
    const CLI::Option* awaits_value = nullptr;
    for (std::size_t i = 0; i + 1 < words.size(); ++i) {
        const std::string& word = words[i];
        if (awaits_value)
            note_value(line, *std::exchange(awaits_value, nullptr), word);
        else if (!line.has_separator && word == "--")
            line.has_separator = true;
        else if (!line.has_separator && word.size() > 1 && word.front() == '-')
            awaits_value = read_option(line, word);
        else if (line.command)
            ++line.positionals;
        else if (!(line.command = find_command(app, word)))
            break;
    }
    line.is_value = awaits_value != nullptr;
    return line;
}

/// What the next argument of a command is, such as "PATH"; empty if there is no place for one.
std::string next_argument(const Line& line)
{
    const auto arguments =
        line.command->get_options([](const CLI::Option* option) { return option->get_positional(); });
    if (line.positionals < arguments.size())
        return arguments[line.positionals]->get_name(true);
    const bool is_list = !arguments.empty() && arguments.back()->get_items_expected_max() > 1;
    return is_list ? arguments.back()->get_name(true) : "";
}

void add_arguments(std::set<std::string>& found, const CLI::App& app, const Line& line,
                   const std::string& word)
{
    const std::string argument = next_argument(line);
    const std::string command = line.command->get_name();
    const bool is_about_changes = command == "publish" || command == "watch";
    const Place place = {line.endpoint, line.run_time_directory};
    if (argument == "COMMAND")
        add_commands(found, app);
    else if (argument == "SHELL")
        found = {"bash", "zsh"};
    else if (argument == "VERB")
        found = {"put", "del"};
    else if (argument == "SERVICE")
        add_services(found, {"", line.run_time_directory});
    else if (argument == "PATH" && (word.empty() || word.front() == '/') &&
             !(is_about_changes && !line.endpoint.empty())) // where a relay is, which has no index
        add_paths(found, place, word);
}
} // namespace

std::vector<std::string> complete(const CLI::App& app, const std::vector<std::string>& words)
{
    const std::string word = words.empty() ? "" : words.back();
    const Line line = read_line(app, words);
    std::set<std::string> found;
    if (line.is_value)
        return {};
    if (slate::starts_with(word, "-") && !line.has_separator) {
        add_options(found, app);
        if (line.command) {
            found.erase("--version"); // of the program
            add_options(found, *line.command);
        }
    }
    else if (line.command)
        add_arguments(found, app, line, word);
    else if (std::all_of(words.begin(), words.end(), [&](const std::string& each) {
                 return &each == &words.back() || slate::starts_with(each, "-");
             }))
        add_commands(found, app);

    std::vector<std::string> result;
    std::copy_if(found.begin(), found.end(), std::back_inserter(result), [&](const std::string& candidate) {
        return slate::starts_with(candidate, word) && is_plain(candidate);
    });
    return result;
}

std::string completion_script(const std::string& shell)
{
    if (shell == "bash")
        return R"script(# bash completion of tarn
_tarn() {
    # bash splits words at '=', ':' and '@', too. What no blank parts is one word here.
    local line=${COMP_LINE:0:COMP_POINT} words=() piece i
    for ((i = 0; i <= COMP_CWORD; i++)); do
        piece=${COMP_WORDS[i]}
        if [[ $i -gt 0 && -n $piece && $line == "$piece"* ]]; then
            words[-1]+=$piece
        else
            words+=("$piece")
            line=${line#"${line%%[![:blank:]]*}"}
        fi
        line=${line#"$piece"}
    done
    local word=${words[-1]} begun
    begun=${word%"${COMP_WORDS[COMP_CWORD]}"} # which bash keeps
    case ${words[-2]} in
    -o | --output | -e | --endpoint | --run-dir | --stats) compopt -o default; COMPREPLY=(); return ;;
    esac
    case $word in
    --*=*) compopt -o default; COMPREPLY=(); return ;;
    @*)
        local file files
        mapfile -t files < <(compgen -f -- "${word#@}")
        COMPREPLY=()
        for file in "${files[@]}"; do
            [[ -d $file ]] && file+=/
            COMPREPLY+=("@$file") # an '@' at its beginning is part of a word
        done
        compopt -o filenames # which quotes them
        [[ ${COMPREPLY[0]} == */ ]] && compopt -o nospace
        return
        ;;
    esac
    mapfile -t COMPREPLY < <("${words[0]}" --complete "${words[@]:1}" 2>/dev/null)
    [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == */ ]] && compopt -o nospace
    COMPREPLY=("${COMPREPLY[@]#"$begun"}")
}
complete -F _tarn tarn
)script";
    if (shell == "zsh")
        return R"script(#compdef tarn
_tarn() {
    case ${words[CURRENT-1]} in
    -o | --output | -e | --endpoint | --run-dir | --stats) _files; return ;;
    esac
    case ${words[CURRENT]} in
    --*=*) compset -P '*='; _files; return ;;
    @*) compset -P @; _files; return ;;
    esac
    local -a found
    found=(${(f)"$(${words[1]} --complete "${(@)words[2,CURRENT]}" 2>/dev/null)"})
    compadd -S ' ' -- ${found:#*/}
    compadd -S '' -- ${(M)found:#*/}
}
if [[ ${funcstack[1]} == _tarn ]]; then _tarn "$@"; else compdef _tarn tarn; fi
)script";
    return "";
}
} // namespace tarn_command
