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

/// How a counter behaves over time. There is one way so far.
enum class CounterPolicy : int {
    /// Only ever goes up, and is never reset.
    Cumulative = 0,
};

/// Counts events. Any thread; increment() is lock-free.
class Counter {
public:
    virtual ~Counter() = default;

    virtual void increment() = 0;
    /// Marks what is counted as trouble: 0 for errors, 1 for warnings. A plain counter has no severity.
    virtual void set_severity(int severity) = 0;
    virtual std::uint64_t value() const = 0;
};

/// Records how large something is, again and again. Any thread; record() is lock-free.
class Statistic {
public:
    virtual ~Statistic() = default;

    virtual void record(std::int64_t value) = 0;
};

/// A named source of log lines, counters and statistics. Objects that live long have one each, so that an
/// application can see them apart: see add_provider and snapshot. Any thread.
class Provider {
public:
    virtual ~Provider() = default;

    // Programs are linked against the order of these functions: add new ones at the end.

    /// A counter of that name; the same one if it exists already. `start` is the value that it starts from,
    /// rounded down, and `text` a description for people.
    virtual std::shared_ptr<Counter> add_counter(const std::string& name, const Rational<int>& start,
                                                 const std::string& text, CounterPolicy policy) = 0;

    /// A statistic of that name; the same one if it exists already. Values from `lowest` (at least 1) to
    /// `highest` are sorted into `buckets` buckets whose bounds grow by a constant factor, so that resolution
    /// stays in proportion to the value; values outside go to the first or last one. `factor` scales a
    /// recorded value into the unit that `text` tells people.
    virtual std::shared_ptr<Statistic> add_statistic(const std::string& name, std::int64_t lowest,
                                                     std::int64_t highest, unsigned int buckets,
                                                     const std::string& text, double factor) = 0;

    /// The name under which this provider can be found, instance included, such as "zmq.client[3]".
    virtual std::string name() const = 0;

    std::shared_ptr<Counter> add_error_counter(const std::string& name, const Rational<int>& start,
                                               const std::string& text, CounterPolicy policy)
    {
        auto counter = add_counter(name, start, text, policy);
        counter->set_severity(0);
        return counter;
    }

    std::shared_ptr<Counter> add_warning_counter(const std::string& name, const Rational<int>& start,
                                                 const std::string& text, CounterPolicy policy)
    {
        auto counter = add_counter(name, start, text, policy);
        counter->set_severity(1);
        return counter;
    }
};

/// Makes a provider and registers it. Each call makes a new one: if the name and instance are taken, the new
/// provider's name() tells it apart ("route[status]", then "route[status]#2"). Only a `listed` one is part of
/// snapshot(). An empty instance leaves the brackets out.
std::shared_ptr<Provider> add_provider(const std::string& name, const std::string& instance, bool listed);

/// Takes the provider with this Provider::name() out of the registry; unknown names are ignored. Whoever
/// still holds the provider may go on using it.
void remove_provider(const std::string& name);

struct CounterSnapshot {
    std::string name;
    std::string text;
    std::uint64_t value;
    /// 0 error, 1 warning, none for a plain counter.
    std::optional<int> severity;
};

struct BucketSnapshot {
    /// The largest value that belongs here, already scaled by the statistic's factor.
    double upper_bound;
    std::uint64_t count;
};

/// Scaled by the statistic's factor. min, max and mean are 0 while count is 0.
struct StatisticSnapshot {
    std::string name;
    std::string text;
    std::uint64_t count;
    double min;
    double max;
    double mean;
    std::vector<BucketSnapshot> buckets;
};

struct ProviderSnapshot {
    std::string name;
    /// With the "#2" that tells it from another one of that name and instance, if there is one.
    std::string instance;
    /// In the order in which they were added.
    std::vector<CounterSnapshot> counters;
    std::vector<StatisticSnapshot> statistics;
};

/// What all listed providers show at this moment, ordered by name and instance. Each number is read
/// atomically; numbers that are counted meanwhile may or may not be seen.
std::vector<ProviderSnapshot> snapshot();
} // namespace slate
