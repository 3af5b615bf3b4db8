// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace slate {
/// A fraction. The denominator must not be 0.
template <class T>
struct Rational {
    constexpr Rational(T numerator_value = 0, T denominator_value = 1)
        : numerator(numerator_value),
          denominator(denominator_value)
    {
    }

    T numerator;
    T denominator;
};

/// How a counter behaves over time. So far there is only one way.
enum class CounterPolicy : int {
    /// The counter only goes up and is never reset.
    Cumulative = 0,
};

/// Counts events. Any thread may use it at any time, and no operation locks or throws.
class Counter {
public:
    virtual ~Counter() = default;

    // Programs are linked against the order of these functions: add new ones at the end.

    /// Adds one.
    virtual void increment() = 0;
    /// Marks the counted events as errors (0) or warnings (1). A counter has no severity until this is
    /// called.
    virtual void set_severity(int severity) = 0;
    virtual std::uint64_t value() const = 0;
};

/// Summarises many values of one quantity, such as a size or a time. Any thread may use it at any time, and
/// no operation locks or throws.
class Statistic {
public:
    virtual ~Statistic() = default;

    // Programs are linked against the order of these functions: add new ones at the end.

    /// Adds a value, in the unit that Provider::add_statistic() scales with its factor.
    virtual void record(std::int64_t value) = 0;
};

/// A named source of log lines, counters and statistics. Each long-lived object has its own, by which an
/// application tells the objects apart: see add_provider() and snapshot().
///
/// Threads: any thread may use it at any time.
class Provider {
public:
    virtual ~Provider() = default;

    // Programs are linked against the order of these functions: add new ones at the end.

    /// The counter of that name, never null. It is made if there is none yet; otherwise the other arguments
    /// are ignored. It starts at `start`, rounded down, or at 0 if that is negative. `text` describes it to
    /// people.
    virtual std::shared_ptr<Counter> add_counter(const std::string& name, const Rational<int>& start,
                                                 const std::string& text, CounterPolicy policy) = 0;

    /// The statistic of that name, never null. It is made if there is none yet; otherwise the other arguments
    /// are ignored. Values from `lowest` (at least 1) to `highest` are counted in `buckets` buckets. The
    /// bounds of the buckets grow by a constant factor, so that the resolution is proportional to the value.
    /// Values outside are counted in the first or the last bucket. A range or a number of buckets that makes
    /// no sense gives a single bucket. `text` describes the statistic to people, and `factor` turns a
    /// recorded value into the unit named there, such as 0.001 for milliseconds shown as seconds.
    virtual std::shared_ptr<Statistic> add_statistic(const std::string& name, std::int64_t lowest,
                                                     std::int64_t highest, unsigned int buckets,
                                                     const std::string& text, double factor) = 0;

    /// The name under which this provider is registered, including the instance, such as "zmq.client[3]".
    virtual std::string name() const = 0;

    /// A counter of errors: the same as add_counter(), and sets the severity to 0.
    std::shared_ptr<Counter> add_error_counter(const std::string& name, const Rational<int>& start,
                                               const std::string& text, CounterPolicy policy)
    {
        auto counter = add_counter(name, start, text, policy);
        counter->set_severity(0);
        return counter;
    }

    /// A counter of warnings: the same as add_counter(), and sets the severity to 1.
    std::shared_ptr<Counter> add_warning_counter(const std::string& name, const Rational<int>& start,
                                                 const std::string& text, CounterPolicy policy)
    {
        auto counter = add_counter(name, start, text, policy);
        counter->set_severity(1);
        return counter;
    }
};

/// Makes a new provider and registers it under its name and, in brackets, its instance, unless that is empty.
/// If that name is taken, a number is added to it, as in "route[status]#2". Only providers that are `listed`
/// appear in snapshot(). The result is never null. Any thread may call it.
std::shared_ptr<Provider> add_provider(const std::string& name, const std::string& instance, bool listed);

/// Removes the provider with that Provider::name() from the registry; an unknown name is ignored. The
/// provider and its counters keep working for those that hold them. Any thread may call it.
void remove_provider(const std::string& name);

/// A counter at the moment of a snapshot.
struct CounterSnapshot {
    std::string name;
    std::string text;
    std::uint64_t value;
    /// 0 for errors, 1 for warnings; no value for a plain counter.
    std::optional<int> severity;
};

/// A bucket of a statistic.
struct BucketSnapshot {
    /// The largest value that is counted here, already scaled by the statistic's factor.
    double upper_bound;
    std::uint64_t count;
};

/// A statistic at the moment of a snapshot. Its values are scaled by its factor. `min`, `max` and `mean` are
/// 0 while `count` is 0.
struct StatisticSnapshot {
    std::string name;
    std::string text;
    std::uint64_t count;
    double min;
    double max;
    double mean;
    std::vector<BucketSnapshot> buckets;
};

/// A provider at the moment of a snapshot.
struct ProviderSnapshot {
    /// The name without the instance.
    std::string name;
    /// The instance, followed by the number that was added to it if its name was taken, such as "status#2".
    std::string instance;
    /// Both in the order in which they were added.
    std::vector<CounterSnapshot> counters;
    std::vector<StatisticSnapshot> statistics;
};

/// The counters and statistics of all listed providers, ordered by name and instance. Any thread may call it.
/// Each number is read atomically; events counted meanwhile may or may not be included.
std::vector<ProviderSnapshot> snapshot();
} // namespace slate
