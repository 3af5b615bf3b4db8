// SPDX-License-Identifier: Apache-2.0
// How many requests a path takes in a second, and how long they take.

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <slate/uri.h>
#include <tarn/client.h>
#include <tarn/zmq_subsystem.h>
#include <unistd.h>

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
constexpr unsigned int max_clients = 1000;

struct BenchOptions {
    std::shared_ptr<Place> place;
    std::shared_ptr<std::string> timeout;
    std::string path;
    unsigned int clients = 1;
    unsigned long count = 1000;
    bool as_json = false;
};

class Bench {
public:
    /// `object` gets what is found.
    Bench(const BenchOptions& options, std::string path, const slate::Duration& timeout, Target target,
          nlohmann::ordered_json& object)
        : options_(options),
          path_(std::move(path)),
          timeout_(timeout),
          target_(std::move(target)),
          object_(object)
    {
    }

    int run()
    {
        Interrupt interrupt; // before any thread
        {
            tarn::ZmqSubsystem subsystem;
            std::vector<std::shared_ptr<tarn::Client>> clients;
            for (unsigned int i = 0; i < options_.clients; ++i) {
                clients.push_back(tarn::make_client(target_.endpoint, 0));
                tallies_.push_back(std::make_unique<Tally>());
            }
            if (!interrupt.run([&] { connect(clients); }))
                leave();
            if (first_)
                throw Failure(exit_status_of(*first_, target_.endpoint), explain(*first_, target_, path_));
            running_ = options_.clients;
            const slate::StopWatch watch(true);
            std::vector<std::thread> threads;
            for (unsigned int i = 0; i < options_.clients; ++i)
                threads.emplace_back([this, client = clients[i], &tally = *tallies_[i], &interrupt] {
                    ask(*client, tally);
                    if (--running_ == 0)
                        interrupt.notify();
                });
            auto cause = interrupt.wait();
            seconds_ = static_cast<double>(watch.elapsed()) / 1e6;
            is_over_ = true;
            if (cause != Interrupt::Cause::Notified) // for a moment: what is under way may take long
                cause = interrupt.wait(slate::Milliseconds(100));
            if (cause != Interrupt::Cause::Notified)
                leave();
            for (auto& thread : threads)
                thread.join();
        }
        return show();
    }

private:
    /// What one client has seen.
    struct Tally {
        std::mutex mutex;
        std::vector<double> times; ///< in microseconds
    };

    /// Makes the connections, by a request of each that isn't counted; keeps the first reply that isn't good.
    void connect(const std::vector<std::shared_ptr<tarn::Client>>& clients)
    {
        for (const auto& client : clients) {
            auto reply = client->get(path_, nullptr, timeout_);
            if (exit_status_of(*reply, target_.endpoint) != ExitGood) {
                first_ = std::move(reply);
                return;
            }
        }
    }

    void ask(const tarn::Client& client, Tally& tally)
    {
        while (!is_over_ && begun_++ < options_.count) {
            const slate::StopWatch watch(true);
            const auto reply = client.get(path_, nullptr, timeout_);
            const auto microseconds = static_cast<double>(watch.elapsed());
            if (reply->message && !reply->is_local() && static_cast<int>(reply->status()) < 400) {
                const std::lock_guard lock(tally.mutex);
                tally.times.push_back(microseconds);
            }
            else
                note_failure(*reply);
        }
    }

    /// With threads that wait for answers.
    [[noreturn]] void leave()
    {
        int status = ExitOther;
        try {
            status = print_object(options_.as_json, object_, [this] { return show(); });
        }
        catch (const Failure& failure) {
            (void)std::fprintf(stderr, "tarn bench: %s\n", failure.what());
            status = failure.exit_status;
        }
        Interrupt::leave(status);
    }

    /// Shows what there is by now. Throws Failure if a request has failed.
    int show()
    {
        for (const auto& tally : tallies_) {
            const std::lock_guard lock(tally->mutex);
            times_.insert(times_.end(), tally->times.begin(), tally->times.end());
        }
        std::sort(times_.begin(), times_.end());
        const std::lock_guard lock(mutex_);
        options_.as_json ? fill_object() : show_text();
        if (failed_ > 0)
            throw Failure(failure_status_,
                          std::to_string(failed_) + " requests failed, the first one: " + failure_);
        return times_.empty() ? ExitTimeout : ExitGood; // interrupted before anything was answered
    }

    void note_failure(const tarn::Reply& reply)
    {
        const std::lock_guard lock(mutex_);
        if (failed_++ > 0)
            return;
        failure_status_ = std::max<int>(ExitOther, exit_status_of(reply, target_.endpoint));
        failure_ = explain(reply, target_, path_);
    }

    /// The time below which that share of the requests lies, in microseconds.
    double quantile(double share) const
    {
        if (times_.empty())
            return 0;
        const auto at = static_cast<std::size_t>(share * static_cast<double>(times_.size()));
        return times_[std::min(at, times_.size() - 1)];
    }

    double rate() const { return static_cast<double>(times_.size()) / std::max(seconds_, 1e-6); }

    /// How many requests took from 2^i to 2^(i+1) microseconds.
    std::map<unsigned int, std::size_t> histogram() const
    {
        std::map<unsigned int, std::size_t> counts;
        for (const double time : times_)
            ++counts[static_cast<unsigned int>(
                std::bit_width(std::max<unsigned long>(1, static_cast<unsigned long>(time))) - 1)];
        return counts;
    }

    void fill_object()
    {
        object_["clients"] = options_.clients;
        object_["requests"] = times_.size();
        object_["failed"] = failed_;
        object_["seconds"] = seconds_;
        object_["per_second"] = rate();
        object_["median_us"] = quantile(0.5);
        object_["p90_us"] = quantile(0.9);
        object_["p99_us"] = quantile(0.99);
        object_["max_us"] = quantile(1);
        object_["histogram"] = nlohmann::ordered_json::array();
        for (const auto& [power, count] : histogram())
            object_["histogram"].push_back({{"from_us", 1UL << power}, {"count", count}});
    }

    static std::string time_text(double microseconds)
    {
        char text[32];
        if (microseconds < 1000)
            (void)std::snprintf(text, sizeof text, "%.0f us", microseconds);
        else if (microseconds < 1e6)
            (void)std::snprintf(text, sizeof text, "%.1f ms", microseconds / 1000);
        else
            (void)std::snprintf(text, sizeof text, "%.1f s", microseconds / 1e6);
        return text;
    }

    void show_text() const
    {
        char line[160];
        (void)std::snprintf(line, sizeof line, "%zu requests by %u %s in %.2f s: %.0f per second, %zu failed",
                            times_.size(), options_.clients, options_.clients == 1 ? "client" : "clients",
                            seconds_, rate(), failed_);
        write_out(paint(line, Colour::Bold) + "\n");
        if (times_.empty())
            return;
        write_out("median " + time_text(quantile(0.5)) + ", 90 % " + time_text(quantile(0.9)) + ", 99 % " +
                  time_text(quantile(0.99)) + ", longest " + time_text(quantile(1)) + "\n");
        const auto counts = histogram();
        std::size_t most = 1;
        for (const auto& [power, count] : counts)
            most = std::max(most, count);
        const std::size_t width = std::clamp<std::size_t>(terminal_width(STDOUT_FILENO), 40, 100) - 30;
        for (auto power = counts.begin()->first; power <= counts.rbegin()->first; ++power) {
            const auto found = counts.find(power);
            const std::size_t count = found == counts.end() ? 0 : found->second;
            (void)std::snprintf(line, sizeof line, "%10s %9zu  ",
                                ("< " + time_text(static_cast<double>(2UL << power))).c_str(), count);
            // What there is shows, however little it is.
            const std::size_t bar = (count * width + most - 1) / most;
            write_out(line + paint(std::string(bar, '#'), Colour::Cyan) + "\n");
        }
    }

    const BenchOptions& options_;
    const std::string path_;
    const slate::Duration timeout_;
    const Target target_;
    std::atomic<unsigned long> begun_{0};
    std::atomic<unsigned int> running_{0};
    std::atomic<bool> is_over_{false};
    nlohmann::ordered_json& object_;
    std::vector<std::unique_ptr<Tally>> tallies_; // one for each client
    std::shared_ptr<tarn::Reply> first_;
    std::vector<double> times_;
    double seconds_ = 0;
    std::mutex mutex_; // guards what follows
    std::size_t failed_ = 0;
    std::string failure_;
    int failure_status_ = ExitOther;
};

int bench(const BenchOptions& options)
{
    const std::string path = parse_path(options.path);
    const auto timeout = parse_duration(*options.timeout, "-t");
    if (options.clients == 0 || options.clients > max_clients)
        throw Failure(ExitUsage, "-c takes a number of clients from 1 to " + std::to_string(max_clients) +
                                     ", and not " + std::to_string(options.clients));
    if (options.count == 0)
        throw Failure(ExitUsage, "-n takes a number of requests from 1, and not 0");
    nlohmann::ordered_json object = {{"path", path}, {"endpoint", nullptr}};
    return print_object(options.as_json, object, [&] {
        const auto target = choose_target(*options.place, &tarn::Fabric::router, "router");
        object["endpoint"] = target.endpoint->to_string();
        require_served(target.endpoint, "the endpoint");
        return Bench(options, path, timeout, target, object).run();
    });
}
} // namespace

Command bench_command()
{
    return {"bench",
            "measure requests to a path: rate and histogram",
            "Sends GET requests from several clients at once, each of which waits for its answer before it "
            "sends the next, and prints their rate and how long they took. Ctrl-C ends it early.",
            {{"tarn bench /clock/time", "1000 requests by one client"},
             {"tarn bench -c 8 -n 100000 /clock/time", "under load"},
             {"tarn bench -e /run/tide/clock/zmq.sock /time", "without the router"}},
            [](CLI::App& app) {
                auto options = std::make_shared<BenchOptions>();
                app.add_option("PATH", options->path, "such as /clock/time")->required();
                app.add_option("-c,--clients", options->clients, "how many clients at once (1)")
                    ->type_name("N")
                    ->check(whole_number());
                app.add_option("-n,--count", options->count, "how many requests in all (1000)")
                    ->type_name("N")
                    ->check(whole_number());
                options->place = add_place(app, request_endpoint);
                options->timeout = add_timeout(app);
                app.add_flag("--json", options->as_json, "as one JSON object, also after a failure");
                return [=] { return bench(*options); };
            }};
}
} // namespace tarn_command
