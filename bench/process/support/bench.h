// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <condition_variable>
#include <functional>
#include <initializer_list>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

/// What the programs of the process benchmarks share. Each is started by bench/run as
///
///   PROGRAM ROLE [KEY=VALUE ...]
///
/// and prints a line once it is ready. bench/run then writes commands to its standard input, one on each
/// line, and the program answers each with one line of JSON. It ends when its standard input does, so that
/// none is left behind if bench/run dies. An exception ends the program with its text on standard error.
namespace bench {
class Arguments {
public:
    Arguments(int argc, char** argv);

    const std::string& role() const { return role_; }
    /// The value of a key. Throws std::runtime_error if it is missing or not a number.
    std::string text(const std::string& key) const;
    long number(const std::string& key) const;
    bool has(const std::string& key) const { return values_.count(key) != 0; }
    std::string text(const std::string& key, const std::string& dflt) const;
    long number(const std::string& key, long dflt) const;

private:
    std::string role_;
    std::map<std::string, std::string> values_;
};

struct Role {
    std::string_view name;
    void (*run)(const Arguments& arguments);
};

/// The body of main. Returns the exit status.
int run(int argc, char** argv, std::initializer_list<Role> roles);

/// Says that this process serves, and returns when it has to end.
void serve();

/// Says that this process is ready, and repeats `operation` as it is told:
///
///   go SECONDS      for that time, and at least once
///   do COUNT        so many times
///
/// It answers {"operations": n, "seconds": s, "p50_ns": ns, "p99_ns": ns}, the percentiles being those of the
/// time of one operation.
void measure(const std::function<void()>& operation);

/// Says that this process is ready, and publishes as it is told:
///
///   publish SERIES COUNT RATE      so many changes of `size` bytes, at most that many a second
///
/// It answers {"first_ns": t}, when it began to send the first one.
void publish(std::size_t size, const std::function<void(const std::string& change)>& send);

/// The receiving side of publish().
class Arrivals {
public:
    /// Takes a change, on any one thread.
    void take(std::string_view change);

    /// Says that this process is ready, and reports as it is told:
    ///
    ///   expect SERIES COUNT
    ///
    /// It answers {"arrived": n, "last_ns": t, "p50_ns": ns, "p99_ns": ns} once so many changes of that
    /// series have arrived, or none for a while: when the last one came, and how long they were under way.
    void report();

private:
    bool is_complete() const { return series_ == expected_series_ && times_.size() >= expected_; }

    std::mutex mutex_; // guards what follows
    std::condition_variable changed_;
    long series_ = 0;
    std::vector<long long> times_;
    long long last_ns_ = 0;
    long expected_series_ = 0;
    std::size_t expected_ = 0;
};

/// Throws std::runtime_error with that text. A benchmark must not measure failures.
void require(bool condition, const char* text);

/// Nanoseconds of the monotonic clock, which all processes of the machine share.
long long now_ns();

/// The chunks in which large bodies travel.
inline constexpr std::size_t chunk_bytes = 1 << 20;
} // namespace bench
