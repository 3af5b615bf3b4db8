// SPDX-License-Identifier: Apache-2.0
// A published change.

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <system_error>

#include <CLI/CLI.hpp>
#include <slate/strings.h>
#include <slate/uri.h>
#include <tarn/client.h>
#include <tarn/publisher.h>
#include <tarn/zmq_subsystem.h>

#include "command.h"
#include "fabric_choice.h"
#include "failure.h"
#include "options.h"
#include "output/terminal.h"

namespace tarn_command {
namespace {
struct PublishOptions {
    std::shared_ptr<Place> place;
    std::shared_ptr<std::string> timeout;
    std::string verb;
    std::string path;
    std::string body;
    std::string statistics;
    std::vector<std::string> headers;
};

/// A change travels in one message, so its body is read as a whole.
std::string read_body(const std::string& argument)
{
    if (argument == "-")
        return {std::istreambuf_iterator<char>(std::cin), {}};
    if (!slate::starts_with(argument, "@"))
        return argument;
    const std::string name = argument.substr(1);
    std::error_code ignored;
    std::ifstream file(name, std::ios::binary);
    const bool is_directory = std::filesystem::is_directory(name, ignored);
    if (!file || is_directory)
        throw Failure(ExitUsage, "cannot read the body from '" + escape(name) +
                                     "': " + std::generic_category().message(is_directory ? EISDIR : errno) +
                                     "; name a file behind the '@', or '-' for standard input");
    return {std::istreambuf_iterator<char>(file), {}};
}

int publish(const PublishOptions& options)
{
    const std::string verb = slate::to_lower(options.verb);
    if (verb != "put" && verb != "del" && verb != "delete")
        throw Failure(ExitUsage, "a change is a put or a del, and not '" + escape(options.verb) +
                                     "'; write `tarn publish put /clock/zone UTC`");
    const std::string path = parse_path(options.path);
    const auto headers = parse_headers(options.headers);
    const auto timeout = parse_duration(*options.timeout, "-t");
    const std::string body = read_body(options.body);
    if (options.place->endpoint.empty() != options.statistics.empty())
        throw Failure(ExitUsage, "-e and --stats belong together: a publisher asks for the statistics of the "
                                 "relay at -e whether it is heard; name both, or a fabric with --run-dir");

    const auto target = choose_target(*options.place, &tarn::Fabric::relay_in, "relay");
    const auto statistics = target.fabric ? target.fabric->relay_stats : parse_endpoint(options.statistics);
    require_served(target.endpoint, "the relay");
    require_served(statistics, "the statistics of the relay");
    tarn::ZmqSubsystem subsystem;
    // Whoever answers there must be a relay's statistics; that it hears this publisher is asked next.
    const auto answer = tarn::make_client(statistics, 0)->get("/relay/stats", nullptr, timeout);
    if (const int status = exit_status_of(*answer, statistics); status != ExitGood)
        throw Failure(status, explain(*answer, {statistics, std::nullopt}, "/relay/stats"));
    std::shared_ptr<tarn::Publisher> publisher;
    try {
        publisher = tarn::make_publisher(
            {.timeout = timeout, .endpoint = target.endpoint, .stats_endpoint = statistics});
    }
    catch (const std::runtime_error& error) {
        throw Failure(ExitTimeout, escape(error.what()) + "; see with `tarn get -e " +
                                       escape(statistics->to_string()) +
                                       " /relay/stats` whether it is that relay");
    }
    const auto reply = verb == "put" ? publisher->put(path, body, headers) : publisher->del(path, headers);
    if (!reply->good())
        throw Failure(reply->local_cause() == tarn::LocalCause::InvalidRequest ? ExitUsage : ExitOther,
                      "the change of " + escape(path) + " can't be sent: " + status_text(*reply) + " " +
                          escape(reply->status_message()) + "; check path and body");
    return ExitGood;
}
} // namespace

Command publish_command()
{
    return {
        "publish",
        "publish a change to all who subscribe",
        "Sends a change to the relay, which passes it on to everybody who subscribes to it. Nobody "
        "answers; the exit status 0 means that the relay hears this publisher. Services keep their own "
        "values: to change one, use put.",
        {{"tarn publish put /alarm on", "a change of a value"},
         {"tarn publish put /camera/photo @photo.jpg", "with the contents of a file"},
         {"tarn publish del /alarm", "the value is gone"}},
        [](CLI::App& app) {
            auto options = std::make_shared<PublishOptions>();
            app.add_option("VERB", options->verb, "put or del")->required();
            app.add_option("PATH", options->path, "what has changed, such as /alarm")->required();
            app.add_option("BODY", options->body, "the new value: a text, @FILE, or - for standard input");
            options->place = add_place(app, "where the relay receives changes");
            app.add_option("--stats", options->statistics, "where the relay at -e answers for its statistics")
                ->type_name("ENDPOINT");
            app.add_option("-H,--header", options->headers, "adds a header")
                ->type_name("'KEY: VALUE'")
                ->expected(1)
                ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
            options->timeout = add_timeout(app, "1s");
            return [=] { return publish(*options); };
        }};
}
} // namespace tarn_command
