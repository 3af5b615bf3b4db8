// SPDX-License-Identifier: Apache-2.0
#include "bench.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <ctime>
#include <exception>
#include <iostream>
#include <stdexcept>

namespace bench {
namespace {
constexpr long long ns_per_second = 1'000'000'000;

long long percentile(std::vector<long long>& times, std::size_t percent)
{
    const auto rank = times.begin() + static_cast<std::ptrdiff_t>((times.size() - 1) * percent / 100);
    std::nth_element(times.begin(), rank, times.end());
    return *rank;
}

/// At the beginning of each change.
struct Stamp {
    long long series;
    long long sent_ns;
};

/// Returns a little early rather than sleep for a moment: changes then leave in small groups, and the rate
/// holds.
void sleep_until(long long ns)
{
    constexpr long long shortest_ns = 50'000;
    if (ns - now_ns() < shortest_ns)
        return;
    const timespec until{ns / ns_per_second, ns % ns_per_second};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
}

/// One command of measure().
void repeat(const std::function<void()>& operation, std::size_t count, double seconds)
{
    std::vector<long long> times;
    const long long begin = now_ns();
    const long long end = begin + static_cast<long long>(seconds * ns_per_second);
    long long now = begin;
    do {
        operation();
        const long long before = now;
        now = now_ns();
        times.push_back(now - before);
    } while (count ? times.size() < count : now < end);

    std::cout << "{\"operations\": " << times.size()
              << ", \"seconds\": " << static_cast<double>(now - begin) / ns_per_second
              << ", \"p50_ns\": " << percentile(times, 50) << ", \"p99_ns\": " << percentile(times, 99) << "}"
              << std::endl;
}
} // namespace

Arguments::Arguments(int argc, char** argv) : role_(argc > 1 ? argv[1] : "")
{
    for (int i = 2; i < argc; ++i) {
        const std::string argument = argv[i];
        const auto equals = argument.find('=');
        require(equals != std::string::npos, "an argument is not KEY=VALUE");
        values_[argument.substr(0, equals)] = argument.substr(equals + 1);
    }
}

std::string Arguments::text(const std::string& key) const
{
    const auto found = values_.find(key);
    if (found == values_.end())
        throw std::runtime_error("missing argument: " + key);
    return found->second;
}

long Arguments::number(const std::string& key) const
{
    return std::stol(text(key));
}

std::string Arguments::text(const std::string& key, const std::string& dflt) const
{
    return has(key) ? text(key) : dflt;
}

long Arguments::number(const std::string& key, long dflt) const
{
    return has(key) ? number(key) : dflt;
}

int run(int argc, char** argv, std::initializer_list<Role> roles)
{
    try {
        const Arguments arguments(argc, argv);
        for (const Role& role : roles) {
            if (role.name == arguments.role()) {
                role.run(arguments);
                return 0;
            }
        }
        std::cerr << argv[0] << ": unknown role: " << arguments.role() << "\n";
        return 2;
    }
    catch (const std::exception& error) {
        std::cerr << argv[0] << ": " << error.what() << "\n";
        return 1;
    }
}

void serve()
{
    std::cout << "serving" << std::endl;
    for (std::string line; std::getline(std::cin, line);)
        ;
}

void measure(const std::function<void()>& operation)
{
    std::cout << "ready" << std::endl;
    double amount = 0;
    for (std::string command; std::cin >> command >> amount;) {
        require(command == "go" || command == "do", "not a command");
        if (command == "go")
            repeat(operation, 0, amount);
        else
            repeat(operation, static_cast<std::size_t>(amount), 0);
    }
}

void publish(std::size_t size, const std::function<void(const std::string& change)>& send)
{
    std::cout << "ready" << std::endl;
    std::string command;
    long series = 0, count = 0, rate = 0;
    while (std::cin >> command >> series >> count >> rate) {
        const long long first = now_ns();
        for (long i = 0; i < count; ++i) {
            sleep_until(first + i * ns_per_second / rate);
            Stamp stamp{series, now_ns()};
            std::string change(size, 'x');
            std::memcpy(change.data(), &stamp, sizeof stamp);
            send(change);
        }
        std::cout << "{\"first_ns\": " << first << "}" << std::endl;
    }
}

void Arrivals::take(std::string_view change)
{
    const long long now = now_ns();
    Stamp stamp{};
    require(change.size() >= sizeof stamp, "a change is too short");
    std::memcpy(&stamp, change.data(), sizeof stamp);

    const std::lock_guard lock(mutex_);
    if (stamp.series != series_) {
        series_ = stamp.series;
        times_.clear();
    }
    times_.push_back(now - stamp.sent_ns);
    last_ns_ = now;
    if (is_complete())
        changed_.notify_one();
}

void Arrivals::report()
{
    constexpr auto first_wait = std::chrono::seconds(2);
    constexpr auto next_wait = std::chrono::milliseconds(300);

    std::cout << "ready" << std::endl;
    std::string command;
    long series = 0;
    std::size_t count = 0;
    while (std::cin >> command >> series >> count) {
        std::unique_lock lock(mutex_);
        expected_series_ = series;
        expected_ = count;
        std::size_t before = 0;
        do {
            before = series_ == series ? times_.size() : 0;
            changed_.wait_for(lock, before ? next_wait : first_wait, [this] { return is_complete(); });
        } while (!is_complete() && series_ == series && times_.size() != before);

        auto times = series_ == series ? times_ : std::vector<long long>();
        std::cout << "{\"arrived\": " << times.size() << ", \"last_ns\": " << last_ns_;
        if (!times.empty())
            std::cout << ", \"p50_ns\": " << percentile(times, 50)
                      << ", \"p99_ns\": " << percentile(times, 99);
        std::cout << "}" << std::endl;
    }
}

void require(bool condition, const char* text)
{
    if (!condition)
        throw std::runtime_error(text);
}

long long now_ns()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * ns_per_second + now.tv_nsec;
}
} // namespace bench
