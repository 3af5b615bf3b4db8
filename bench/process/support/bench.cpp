// SPDX-License-Identifier: Apache-2.0
#include "bench.h"

#include <algorithm>
#include <ctime>
#include <exception>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace bench {
namespace {
constexpr long long ns_per_second = 1'000'000'000;

long long percentile(std::vector<long long>& times, std::size_t percent)
{
    const auto rank = times.begin() + static_cast<std::ptrdiff_t>((times.size() - 1) * percent / 100);
    std::nth_element(times.begin(), rank, times.end());
    return *rank;
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
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream stream(line);
        std::string command;
        double amount = 0;
        stream >> command >> amount;
        require(stream && (command == "go" || command == "do"), "not a command");
        if (command == "go")
            repeat(operation, 0, amount);
        else
            repeat(operation, static_cast<std::size_t>(amount), 0);
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
