// SPDX-License-Identifier: Apache-2.0
// A published change.

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <slate/strings.h>
#include <slate/uri.h>
#include <tarn/client.h>
#include <tarn/publisher.h>
#include <tarn/zmq_subsystem.h>

#include "body_source.h"
#include "command.h"
#include "fabric_choice.h"
#include "failure.h"
#include "options.h"
#include "output/json.h"
#include "output/terminal.h"

namespace tarn_command {
namespace {
struct PublishOptions {
    std::shared_ptr<Place> place;
    std::shared_ptr<std::string> timeout;
    std::string verb;
    std::string path;
    std::optional<std::string> body;
    std::string statistics;
    std::vector<std::string> headers;
    bool as_json = false;
};

/// Whoever answers there must be a relay's statistics.
void require_relay(const tarn::Endpoint& statistics, const slate::Duration& timeout)
{
    const auto answer = tarn::make_client(statistics, 0)->get("/relay/stats", nullptr, timeout);
    if (const int status = exit_status_of(*answer, statistics); status != ExitGood)
        throw Failure(status, explain(*answer, {statistics, std::nullopt}, "/relay/stats"));
}

class Publication {
public:
    explicit Publication(const PublishOptions& options)
        : options_(options),
          verb_(parse_verb(options)),
          path_(parse_path(options.path)),
          headers_(parse_headers(options.headers)),
          timeout_(parse_duration(*options.timeout, "-t")),
          object_{{"verb", verb_}, {"path", path_}, {"endpoint", nullptr}, {"exit", nullptr}}
    {
        if (verb_ == "del" && options.body)
            throw Failure(ExitUsage, "a del has no body, and '" + brief(*options.body) +
                                         "' would be lost; write `tarn publish del /alarm`");
        if (options.place->endpoint.empty() != options.statistics.empty())
            throw Failure(ExitUsage,
                          "-e and --stats belong together: a publisher asks for the statistics of the relay "
                          "at -e whether it is heard; name both, or a fabric with --run-dir");
    }

    int run()
    {
        return print_object(options_.as_json, object_, [this] { return publish(); });
    }

private:
    static std::string parse_verb(const PublishOptions& options)
    {
        const std::string verb = slate::to_lower(options.verb);
        if (verb != "put" && verb != "del" && verb != "delete")
            throw Failure(ExitUsage, "a change is a put or a del, and not '" + brief(options.verb) +
                                         "'; write `tarn publish put /clock/zone UTC`");
        return verb == "put" ? "put" : "del";
    }

    int publish()
    {
        const std::string body = BodySource(options_.body).read_all(); // a change travels in one message
        const auto target = choose_target(*options_.place, &tarn::Fabric::relay_in, "relay");
        object_["endpoint"] = target.endpoint->to_string();
        const auto statistics =
            target.fabric ? target.fabric->relay_stats : parse_endpoint(options_.statistics);
        require_served(target.endpoint, "the relay");
        require_served(statistics, "the statistics of the relay");
        tarn::ZmqSubsystem subsystem;
        require_relay(statistics, timeout_);
        const auto publisher = connect(target.endpoint, statistics);
        const auto reply =
            verb_ == "put" ? publisher->put(path_, body, headers_) : publisher->del(path_, headers_);
        if (!reply->good())
            throw Failure(reply->local_cause() == tarn::LocalCause::InvalidRequest ? ExitUsage : ExitOther,
                          "the change of " + brief(path_) + " can't be sent: " + status_text(*reply) + " " +
                              escape(reply->status_message()) + "; check path and body");
        if (verb_ == "put")
            object_["bytes"] = body.size();
        return ExitGood;
    }

    /// Whether the relay hears this publisher is known once there is one.
    std::shared_ptr<tarn::Publisher> connect(const tarn::Endpoint& relay,
                                             const tarn::Endpoint& statistics) const
    {
        try {
            return tarn::make_publisher(
                {.timeout = timeout_, .endpoint = relay, .stats_endpoint = statistics});
        }
        catch (const std::runtime_error& error) {
            throw Failure(ExitTimeout, escape(error.what()) + "; see with `tarn get -e " +
                                           escape(statistics->to_string()) +
                                           " /relay/stats` whether it is that relay");
        }
    }

    const PublishOptions& options_;
    const std::string verb_;
    const std::string path_;
    const std::shared_ptr<slate::Dictionary> headers_;
    const slate::Duration timeout_;
    nlohmann::ordered_json object_; // for --json
};
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
            add_headers(app, options->headers);
            options->timeout = add_timeout(app, "1s");
            app.add_flag("--json", options->as_json, "prints one JSON object, also after a failure");
            return [=] { return Publication(*options).run(); };
        }};
}
} // namespace tarn_command
