// SPDX-License-Identifier: Apache-2.0
// How long the way to a service takes.

#include <algorithm>
#include <cstdio>
#include <numeric>

#include <CLI/CLI.hpp>
#include <tarn/client.h>
#include <tarn/proto/message.pb.h>
#include <tarn/zmq_subsystem.h>

#include "command.h"
#include "fabric_choice.h"
#include "failure.h"
#include "interrupt.h"
#include "options.h"
#include "output/body.h"
#include "output/terminal.h"

namespace tarn_command {
namespace {
struct PingOptions {
    std::shared_ptr<Place> place;
    std::shared_ptr<std::string> timeout;
    std::string path;
    unsigned long count = 4;
    std::string interval = "1s";
};

std::string milliseconds(double value)
{
    char text[32];
    (void)std::snprintf(text, sizeof text, "%.3f ms", value);
    return text;
}

void show_summary(unsigned long sent, const std::vector<double>& times)
{
    std::string text = std::to_string(sent) + " sent, " + std::to_string(times.size()) + " answered";
    if (!times.empty()) {
        const auto [least, most] = std::minmax_element(times.begin(), times.end());
        const double sum = std::accumulate(times.begin(), times.end(), 0.0);
        text += "; least " + milliseconds(*least) + ", mean " +
                milliseconds(sum / static_cast<double>(times.size())) + ", most " + milliseconds(*most);
    }
    write_out(text + "\n");
}

int ping(const PingOptions& options)
{
    const std::string path = parse_path(options.path);
    const auto timeout = parse_duration(*options.timeout, "-t");
    const auto interval = parse_duration(options.interval, "--interval");
    if (options.count == 0)
        throw Failure(ExitUsage, "-n takes a number of requests from 1, and not 0");
    const auto target = choose_target(*options.place, &tarn::Fabric::router, "router");
    require_served(target.endpoint, "the endpoint");

    Interrupt interrupt;
    tarn::ZmqSubsystem subsystem;
    const auto client = tarn::make_client(target.endpoint, 0);
    std::vector<double> times;
    std::shared_ptr<tarn::Reply> last;
    unsigned long sent = 0;
    while (sent < options.count) {
        if (sent > 0 && interrupt.wait(interval) != Interrupt::Cause::Time)
            break;
        ++sent;
        const slate::StopWatch watch(true);
        const auto reply = client->head(path, nullptr, timeout);
        const double time = static_cast<double>(watch.elapsed()) / 1000;
        const int status = reply->message ? static_cast<int>(reply->status()) : 0;
        const bool is_answer = reply->message && !reply->is_local() && status != 408;
        if (is_answer) {
            times.push_back(time);
            const int pid = reply->head().from().pid();
            write_out(status_text(*reply) + (pid != 0 ? " from process " + std::to_string(pid) : "") + "  " +
                      milliseconds(time) + "\n");
        }
        else
            write_out(paint("no answer", Colour::Red) + "  " + milliseconds(time) + "\n");
        flush_out();
        if (!is_answer || !last)
            last = reply;
    }
    show_summary(sent, times);
    if (times.size() == sent)
        return ExitGood; // any status is an answer
    throw Failure(std::max<int>(ExitOther, exit_status_of(*last, target.endpoint)),
                  explain(*last, target, path));
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
                return [=] { return ping(*options); };
            }};
}
} // namespace tarn_command
