// SPDX-License-Identifier: Apache-2.0
#include "help/completion.h"

#include <algorithm>
#include <set>

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

/// The value of an option among the words before the last one.
std::string value_of(const std::vector<std::string>& words, const std::string& name, const std::string& other)
{
    for (std::size_t i = 1; i + 2 < words.size(); ++i) {
        if (words[i] == name || words[i] == other)
            return words[i + 1];
    }
    return "";
}
} // namespace

std::vector<std::string> complete(const CLI::App& app, const std::vector<std::string>& words)
{
    const std::string word = words.empty() ? "" : words.back();
    std::set<std::string> found;
    const CLI::App* sub = nullptr;
    for (const CLI::App* each : app.get_subcommands([](const CLI::App*) { return true; })) {
        if (words.size() <= 1)
            found.insert(each->get_name());
        else if (slate::equals_ignoring_case(words.front(), each->get_name()))
            sub = each;
    }
    if (sub && slate::starts_with(word, "-")) {
        for (const CLI::Option* option : sub->get_options())
            for (const std::string& name : option->get_lnames())
                found.insert("--" + name);
    }
    else if (sub && sub->get_name() == "index") {
        try {
            for (const std::string& name : service_names(
                     find_fabric({"", value_of(words, "--run-dir", "--run-dir")}).run_time_directory))
                found.insert(name);
        }
        catch (const std::exception&) { // nothing to offer
        }
    }
    else if (sub && sub->get_name() == "completion")
        found = {"bash", "zsh"};
    else if (sub && sub->get_option_no_throw("PATH") && (word.empty() || word.front() == '/'))
        add_paths(found, {value_of(words, "-e", "--endpoint"), value_of(words, "--run-dir", "--run-dir")},
                  word);

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
    local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
    case $previous in
    -o | --output | -e | --endpoint | --run-dir) compopt -o default; COMPREPLY=(); return ;;
    esac
    if [[ $word == @* ]]; then
        mapfile -t COMPREPLY < <(compgen -P @ -f -- "${word#@}")
        return
    fi
    mapfile -t COMPREPLY < <("${COMP_WORDS[0]}" --complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
    [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == */ ]] && compopt -o nospace
}
complete -F _tarn tarn
)script";
    if (shell == "zsh")
        return R"script(#compdef tarn
_tarn() {
    case ${words[CURRENT-1]} in
    -o | --output | -e | --endpoint | --run-dir) _files; return ;;
    esac
    if [[ ${words[CURRENT]} == @* ]]; then
        compset -P @
        _files
        return
    fi
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
