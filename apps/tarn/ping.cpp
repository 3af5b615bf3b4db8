// SPDX-License-Identifier: Apache-2.0
// How long the way to a service takes.

#include <algorithm>
#include <cstdio>
#include <numeric>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <slate/uri.h>
#include <tarn/client.h>
#include <tarn/proto/message.pb.h>
#include <tarn/zmq_subsystem.h>

#include "command.h"
#include "fabric_choice.h"
#include "failure.h"
#include "interrupt.h"
#include "options.h"
#include "output/body.h"
#include "output/json.h"
#include "output/terminal.h"

namespace tarn_command {
namespace {
struct PingOptions {
    std::shared_ptr<Place> place;
    std::shared_ptr<std::string> timeout;
    std::string path;
    unsigned long count = 4;
    std::string interval = "1s";
    bool as_json = false;
};

/// What the requests have shown so far.
struct Tally {
    unsigned long sent = 0;
    std::vector<double> times; ///< of those that were answered, in milliseconds
    nlohmann::ordered_json replies = nlohmann::ordered_json::array();
};

std::string milliseconds(double value)
{
    char text[32];
    (void)std::snprintf(text, sizeof text, "%.3f ms", value);
    return text;
}

void show_summary(const PingOptions& options, const Tally& tally, nlohmann::ordered_json& object)
{
    const auto& times = tally.times;
    object["sent"] = tally.sent;
    object["answered"] = times.size();
    std::string text = std::to_string(tally.sent) + " sent, " + std::to_string(times.size()) + " answered";
    if (!times.empty()) {
        const auto [least, most] = std::minmax_element(times.begin(), times.end());
        const double mean =
            std::accumulate(times.begin(), times.end(), 0.0) / static_cast<double>(times.size());
        text += "; least " + milliseconds(*least) + ", mean " + milliseconds(mean) + ", most " +
                milliseconds(*most);
        object["least_ms"] = *least;
        object["mean_ms"] = mean;
        object["most_ms"] = *most;
    }
    object["replies"] = tally.replies;
    if (!options.as_json)
        write_out(text + "\n");
}

/// Whether somebody has answered, with any status; the line for that.
bool take_reply(const PingOptions& options, Tally& tally, const tarn::Reply& reply, double time)
{
    const int status = reply.message ? static_cast<int>(reply.status()) : 0;
    const bool is_answer = reply.message && !reply.is_local() && status != 408;
    const int pid = is_answer ? reply.head().from().pid() : 0;
    nlohmann::ordered_json object = {{"answered", is_answer}, {"ms", time}};
    std::string text = paint("no answer", Colour::Red);
    if (is_answer) {
        tally.times.push_back(time);
        object["status"] = status;
        text = status_text(reply);
    }
    if (pid != 0) {
        object["pid"] = pid;
        text += " from process " + std::to_string(pid);
    }
    tally.replies.push_back(object);
    if (!options.as_json)
        write_out(text + "  " + milliseconds(time) + "\n");
    flush_out();
    return is_answer;
}

int send_requests(const PingOptions& options, const std::string& path, const slate::Duration& timeout,
                  const slate::Duration& interval, nlohmann::ordered_json& object)
{
    const auto target = choose_target(*options.place, &tarn::Fabric::router, "router");
    object["endpoint"] = target.endpoint->to_string();
    require_served(target.endpoint, "the endpoint");

    Interrupt interrupt;
    tarn::ZmqSubsystem subsystem;
    const auto client = tarn::make_client(target.endpoint, 0);
    Tally tally;
    std::shared_ptr<tarn::Reply> last;
    while (tally.sent < options.count) {
        if (tally.sent > 0 && interrupt.wait(interval) != Interrupt::Cause::Time)
            break;
        double time = 0;
        std::shared_ptr<tarn::Reply> reply;
        const bool is_over = interrupt.run([&] {
            const slate::StopWatch watch(true);
            reply = client->head(path, nullptr, timeout);
            time = static_cast<double>(watch.elapsed()) / 1000;
        });
        ++tally.sent;
        if (!is_over) { // that nobody waits for the last one isn't anybody's fault
            show_summary(options, tally, object);
            const bool is_good = !tally.times.empty() && tally.times.size() + 1 == tally.sent;
            const int status = is_good ? ExitGood : ExitTimeout;
            Interrupt::leave(print_object(options.as_json, object, [=] { return status; }));
        }
        if (!take_reply(options, tally, *reply, time) || !last)
            last = reply;
    }
    show_summary(options, tally, object);
    if (tally.times.size() == tally.sent)
        return ExitGood; // any status is an answer
    throw Failure(std::max<int>(ExitOther, exit_status_of(*last, target.endpoint)),
                  explain(*last, target, path));
}

int ping(const PingOptions& options)
{
    const std::string path = parse_path(options.path);
    const auto timeout = parse_duration(*options.timeout, "-t");
    const auto interval = parse_duration(options.interval, "--interval");
    if (options.count == 0)
        throw Failure(ExitUsage, "-n takes a number of requests from 1, and not 0");
    nlohmann::ordered_json object = {{"path", path}, {"endpoint", nullptr}};
    return print_object(options.as_json, object,
                        [&] { return send_requests(options, path, timeout, interval, object); });
}
} // namespace

Command ping_command()
{
    return {"ping",
            "measure the way to a service",
            "Sends HEAD requests one after the other and prints how long each answer took. Any status counts "
            "as an answer, also 404: it comes from the process that it names.",
            {{"tarn ping /clock/time", "four times"},
             {"tarn ping -n 100 --interval 10ms /clock", "a hundred times"}},
            [](CLI::App& app) {
                auto options = std::make_shared<PingOptions>();
                app.add_option("PATH", options->path, "such as /clock/time")->required();
                options->place = add_place(app, request_endpoint);
                options->timeout = add_timeout(app, "1s");
                app.add_option("-n,--count", options->count, "how many requests (4)")
                    ->type_name("N")
                    ->check(whole_number());
                app.add_option("--interval", options->interval, "the pause between two requests (1s)")
                    ->type_name("TIME");
                app.add_flag("--json", options->as_json,
                             "as one JSON object, at the end, also after a failure");
                return [=] { return ping(*options); };
            }};
}
} // namespace tarn_command
