// SPDX-License-Identifier: Apache-2.0
// Published changes, as they arrive.

#include <algorithm>
#include <chrono>
#include <ctime>
#include <mutex>
#include <optional>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <slate/strings.h>
#include <slate/uri.h>
#include <tarn/formats.h>
#include <tarn/route.h>
#include <tarn/server.h>
#include <tarn/zmq_subsystem.h>
#include <unistd.h>

#include "command.h"
#include "fabric_choice.h"
#include "interrupt.h"
#include "options.h"
#include "output/body.h"
#include "output/json.h"
#include "output/terminal.h"

namespace tarn_command {
namespace {
struct WatchOptions {
    std::shared_ptr<Place> place;
    std::vector<std::string> paths;
    std::optional<std::size_t> count;
    std::string duration;
    bool as_json = false;
};

/// The path without empty segments, which patterns of routes don't count either.
std::string without_empty_segments(const std::string& path)
{
    return "/" + slate::join(slate::split<std::vector<std::string>>(path, "/", false, true), "/");
}

/// Prints changes on the thread of the subscriber.
class WatchRoute : public tarn::Route {
public:
    WatchRoute(const std::vector<tarn::RoutePattern>& subscribed, std::vector<std::string> paths,
               const WatchOptions& options, Interrupt& interrupt)
        : Route("watch", "", subscribed, tarn::Access::Public),
          paths_(std::move(paths)),
          options_(options),
          interrupt_(interrupt)
    {
    }

    void put(tarn::Context& change) override { show(change, "put"); }
    void del(tarn::Context& change) override { show(change, "del"); }

    /// What has kept it from printing, if something has.
    std::optional<Failure> failure()
    {
        const std::lock_guard lock(mutex_);
        return failure_;
    }

private:
    bool is_wanted(const std::string& path) const
    {
        if (paths_.empty())
            return path != "/relay"; // where each publisher says at its start that it is there
        const std::string plain = without_empty_segments(path);
        return std::any_of(paths_.begin(), paths_.end(), [&](const std::string& wanted) {
            return plain == wanted || slate::starts_with(plain, wanted == "/" ? wanted : wanted + "/");
        });
    }

    void show(const tarn::Context& change, const char* verb)
    {
        const std::lock_guard lock(mutex_);
        if (is_over_ || !is_wanted(change.request.path()))
            return;
        try {
            write_out(options_.as_json ? object_line(change, verb) : text_line(change, verb));
            flush_out();
        }
        catch (const Failure& failure) {
            failure_ = failure;
            is_over_ = true;
        }
        if (options_.count && ++shown_ == *options_.count)
            is_over_ = true;
        if (is_over_)
            interrupt_.notify();
    }

    static std::string time_text(bool is_utc)
    {
        const auto now = std::chrono::system_clock::now();
        const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
        std::tm parts{};
        is_utc ? gmtime_r(&seconds, &parts) : localtime_r(&seconds, &parts);
        char text[64];
        const std::size_t size = is_utc ? std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts)
                                        : std::strftime(text, sizeof text, "%H:%M:%S", &parts);
        text[size] = '\0';
        char fraction[16];
        const auto milliseconds =
            std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
        (void)std::snprintf(fraction, sizeof fraction, ".%03d", static_cast<int>(milliseconds));
        return std::string(text) + fraction;
    }

    static std::string format_text(const tarn::Context& change)
    {
        return tarn::to_mime_type(change.request.format());
    }

    std::string text_line(const tarn::Context& change, const std::string& verb) const
    {
        const std::string path = escape(change.request.path());
        const std::string time = time_text(false);
        const std::string format = format_text(change);
        std::string body;
        if (change.request.has_body())
            body = is_showable(change.request.format(), change.request.data())
                       ? escape(change.request.data())
                       : "(" + std::to_string(change.request.data().size()) + " bytes)";
        if (is_terminal(STDOUT_FILENO)) {
            const std::size_t used = time.size() + columns_of(path) + format.size() + 3 + 8;
            const std::size_t width = terminal_width(STDOUT_FILENO);
            body = fit(body, std::max<std::size_t>(8, width - std::min(width, used)));
        }
        std::string line = paint(time, Colour::Grey) + "  " +
                           paint(verb, verb == "put" ? Colour::Green : Colour::Red) + "  " +
                           paint(path, Colour::Cyan);
        if (!format.empty())
            line += "  " + paint(format, Colour::Grey);
        if (!body.empty())
            line += "  " + body;
        return line + "\n";
    }

    static std::string object_line(const tarn::Context& change, const char* verb)
    {
        nlohmann::ordered_json object = {{"time", time_text(true) + "Z"},
                                         {"verb", verb},
                                         {"path", change.request.path()},
                                         {"pid", change.request.head().from().pid()}};
        if (const std::string format = format_text(change); !format.empty())
            object["format"] = format;
        if (change.request.has_body())
            add_body(object, change.request.path(), change.request.format(), change.request.data());
        return to_line(object) + "\n";
    }

    const std::vector<std::string> paths_;
    const WatchOptions& options_;
    Interrupt& interrupt_;
    std::mutex mutex_; // guards what follows, for the main thread
    std::size_t shown_ = 0;
    bool is_over_ = false;
    std::optional<Failure> failure_;
};

/// What to subscribe to. A subscription is for the first segment of a path; the route looks at the rest. The
/// empty pattern is for everything, and for segments that would mean something else in a pattern.
std::vector<tarn::RoutePattern> patterns_for(const std::vector<std::string>& paths)
{
    std::vector<tarn::RoutePattern> patterns;
    for (const std::string& path : paths) {
        const std::string first = "/" + path.substr(1, path.find('/', 1) - 1);
        if (first == "/" || first.find_first_of(":()<>*?=") != std::string::npos)
            return {tarn::RoutePattern("")};
        patterns.emplace_back(first + "/(:next)"); // a static pattern wouldn't take "/a//"
        patterns.emplace_back(first + "/*");
    }
    if (patterns.empty())
        patterns.emplace_back("");
    return patterns;
}

int watch(const WatchOptions& options)
{
    std::vector<std::string> paths;
    for (const std::string& text : options.paths) {
        const std::string path = parse_path(text);
        if (path.find_first_of("@?") != std::string::npos)
            throw Failure(ExitUsage,
                          "'" + brief(text) +
                              "' is not the path of a change, which has neither '@' nor '?'; write "
                              "one such as /clock");
        paths.push_back(without_empty_segments(path));
    }
    if (options.count && *options.count == 0)
        throw Failure(ExitUsage, "-n takes a number of changes from 1, and not 0");
    std::optional<slate::Duration> limit;
    if (!options.duration.empty())
        limit = parse_duration(options.duration, "--for");
    require_output();
    const auto target = choose_target(*options.place, &tarn::Fabric::relay_out, "relay");
    require_served(target.endpoint, "the relay");

    Interrupt interrupt;
    const auto route = std::make_shared<WatchRoute>(patterns_for(paths), paths, options, interrupt);
    Interrupt::Cause cause{};
    {
        tarn::ZmqSubsystem subsystem;
        subsystem.add_subscriber(target.endpoint)->add(route);
        say_verbosely("watching " + escape(target.endpoint->to_string()));
        cause = interrupt.wait(limit);
    }
    if (const auto failure = route->failure())
        throw Failure(*failure);
    return cause == Interrupt::Cause::OutputClosed ? ExitOther : ExitGood;
}
} // namespace

Command watch_command()
{
    return {
        "watch",
        "print published changes as they arrive",
        "Prints each change that the relay forwards from now on: time, verb, path, format, and body or "
        "size. With paths it prints the changes of exactly these and of all below them. Runs until "
        "Ctrl-C. If the relay restarts meanwhile, it goes on with what is published then.",
        {{"tarn watch", "everything"},
         {"tarn watch /clock /settings/location", "of these, and below them"},
         {"tarn watch -n 1 --for 10s /alarm", "wait for one change, for ten seconds at most"},
         {"tarn watch --json | jq -r .path", "one JSON object for each change"}},
        [](CLI::App& app) {
            auto options = std::make_shared<WatchOptions>();
            app.add_option("PATH", options->paths, "such as /clock; everything if there is none");
            options->place = add_place(app, "where the relay forwards changes");
            app.add_option("-n,--count", options->count, "end after so many changes")
                ->type_name("N")
                ->check(whole_number());
            app.add_option("--for", options->duration, "end after this time, such as 10s")->type_name("TIME");
            app.add_flag("--json", options->as_json, "one JSON object in a line for each change");
            return [=] { return watch(*options); };
        }};
}
} // namespace tarn_command
