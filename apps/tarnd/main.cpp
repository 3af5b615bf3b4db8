// SPDX-License-Identifier: Apache-2.0
// The router and the relay of one device, or of one person; `tarnd --help` tells the rest.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <exception>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <unistd.h>

#include <tarn/tarn.h>

#include "daemon.h"
#include "options.h"
#include "service_manager.h"
#include "start.h"
#include "termination_signal.h"

namespace {
using namespace std::chrono_literals;

/// How long the end may take. Nothing of the daemon is lost if it is cut short: it keeps no state.
constexpr auto time_to_end = 4000ms; // 5 s are promised, also on a busy machine

slate::TraceLevel to_level(const std::string& name)
{
    for (int level = slate::ExtremeLevel; level <= slate::ErrorLevel; ++level) {
        if (slate::to_string(static_cast<slate::TraceLevel>(level)) == name)
            return static_cast<slate::TraceLevel>(level);
    }
    return slate::InfoLevel;
}

std::shared_ptr<slate::LogSink> make_sink(const std::string& name)
{
    if (name != "journal")
        return slate::make_stderr_sink();
    if (access("/dev/log", W_OK) != 0)
        throw std::runtime_error("no journal takes log lines here, as /dev/log is missing; use "
                                 "--log-sink stderr");
    return slate::make_syslog_sink("tarnd");
}

/// Tells the service manager that the daemon is alive, as long as it answers.
class Watchdog {
public:
    Watchdog(const Daemon& daemon, const ServiceManager& manager)
    {
        if (const auto limit = manager.watchdog())
            thread_ =
                std::thread([this, &daemon, &manager, period = *limit / 2] { run(daemon, manager, period); });
    }
    ~Watchdog()
    {
        {
            const std::lock_guard lock(mutex_);
            ends_ = true;
        }
        wake_.notify_all();
        if (thread_.joinable())
            thread_.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    void run(const Daemon& daemon, const ServiceManager& manager, std::chrono::microseconds period)
    {
        std::unique_lock lock(mutex_);
        auto next = std::chrono::steady_clock::now();
        while (!ends_) {
            lock.unlock();
            if (is_alive(daemon, period))
                manager.alive();
            lock.lock();
            next = std::max(next + period, std::chrono::steady_clock::now());
            wake_.wait_until(lock, next, [&] { return ends_; });
        }
    }

    static bool is_alive(const Daemon& daemon, std::chrono::microseconds period)
    {
        try {
            if (daemon.answers(period))
                return true;
            slate::log_error(SLATE_HERE, "no answer of its own in time for the watchdog");
        }
        catch (const std::exception& error) { // for example no more file descriptors
            slate::log_error(SLATE_HERE, "cannot ask itself for the watchdog: ", error.what());
        }
        return false;
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    bool ends_ = false;
    std::thread thread_;
};

/// Ends the process if its proper end takes too long, for example because a service doesn't answer a request
/// that is in flight.
void end_in_time()
{
    std::thread([] {
        std::this_thread::sleep_for(time_to_end);
        slate::log_warn(SLATE_HERE, "ended without waiting for the requests in flight");
        _exit(0);
    }).detach();
}

void run(const TerminationSignal& termination, const Options& options)
{
    const ServiceManager manager;
    const Daemon daemon(options);
    const Watchdog watchdog(daemon, manager);
    manager.ready();
    std::cout << "tarnd: serving in " << options.run_time_directory.string() << std::endl;
    termination.wait();
    manager.stopping();
    end_in_time();
}
} // namespace

int main(int argc, char** argv)
{
    start::occupy_standard_streams();
    const TerminationSignal termination;
    std::signal(SIGPIPE, SIG_IGN); // standard output may be a pipe that nobody reads
    int status = 0;
    const auto options = read_options(argc, argv, status);
    if (!options)
        return status;
    try {
        slate::set_log_level(to_level(options->log_level));
        slate::set_log_sinks({make_sink(options->log_sink)});
        start::raise_descriptor_limit();
        run(termination, *options);
    }
    catch (const std::exception& error) {
        std::cerr << "tarnd: " << error.what() << "\n";
        return 1;
    }
}
