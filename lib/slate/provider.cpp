// SPDX-License-Identifier: Apache-2.0
#include "slate/provider.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <limits>
#include <map>
#include <mutex>
#include <string_view>
#include <tuple>
#include <utility>

namespace slate {
namespace {
constexpr int no_severity = -1;

// A bound this close to a whole number is meant to be that number; the power function is slightly inexact.
constexpr double rounding_tolerance = 1e-12;

std::uint64_t start_value(const Rational<int>& start)
{
    if (start.denominator == 0)
        return 0;
    // In 64 bits, since the least int divided by -1 doesn't fit into an int. The division rounds toward zero,
    // which makes no difference to a negative start: that becomes zero anyway.
    const std::int64_t value = std::int64_t{start.numerator} / start.denominator;
    return value > 0 ? static_cast<std::uint64_t>(value) : 0;
}

class CounterImpl : public Counter {
public:
    CounterImpl(std::string name, std::string text, std::uint64_t start)
        : name_(std::move(name)),
          text_(std::move(text)),
          value_(start)
    {
    }

    void increment() override { value_.fetch_add(1, std::memory_order_relaxed); }
    void set_severity(int severity) override { severity_.store(severity, std::memory_order_relaxed); }
    std::uint64_t value() const override { return value_.load(std::memory_order_relaxed); }

    const std::string& name() const { return name_; }

    CounterSnapshot snapshot() const
    {
        const int severity = severity_.load(std::memory_order_relaxed);
        return {name_, text_, value(), severity < 0 ? std::nullopt : std::optional<int>(severity)};
    }

private:
    const std::string name_;
    const std::string text_;
    std::atomic<std::uint64_t> value_;
    std::atomic<int> severity_{no_severity};
};

/// A sum that never overflows. Lock-free.
class Sum {
public:
    void add(std::uint64_t value)
    {
        if (low_.fetch_add(value, std::memory_order_relaxed) >
            std::numeric_limits<std::uint64_t>::max() - value)
            high_.fetch_add(1, std::memory_order_relaxed);
    }

    long double value() const
    {
        return std::ldexp(static_cast<long double>(high_.load(std::memory_order_relaxed)), 64) +
               static_cast<long double>(low_.load(std::memory_order_relaxed));
    }

private:
    std::atomic<std::uint64_t> low_{0};
    std::atomic<std::uint64_t> high_{0};
};

/// The largest values of the buckets, in ascending order.
std::vector<std::int64_t> make_bounds(std::int64_t lowest, std::int64_t highest, unsigned int buckets)
{
    lowest = std::max<std::int64_t>(lowest, 1);
    if (highest <= lowest || buckets == 0)
        return {std::max(lowest, highest)};

    const double ratio = static_cast<double>(highest) / static_cast<double>(lowest);
    std::vector<std::int64_t> bounds(buckets, highest);
    for (unsigned int i = 0; i + 1 < buckets; ++i) {
        const double exact = static_cast<double>(lowest) * std::pow(ratio, (i + 1.0) / buckets);
        const double nearest = std::round(exact);
        const double whole =
            std::abs(nearest - exact) <= exact * rounding_tolerance ? nearest : std::floor(exact);
        if (whole < static_cast<double>(highest))
            bounds[i] = static_cast<std::int64_t>(whole);
    }
    return bounds;
}

class StatisticImpl : public Statistic {
public:
    StatisticImpl(std::string name, std::string text, std::vector<std::int64_t> bounds, double factor)
        : name_(std::move(name)),
          text_(std::move(text)),
          factor_(factor),
          bounds_(std::move(bounds)),
          counts_(bounds_.size())
    {
    }

    void record(std::int64_t value) override
    {
        const auto magnitude = static_cast<std::uint64_t>(value);
        if (value < 0)
            negative_sum_.add(0 - magnitude);
        else
            positive_sum_.add(magnitude);
        lower(min_, value);
        raise(max_, value);
        // Last, so that a thread that sees the count sees the rest too.
        counts_[bucket_of(value)].fetch_add(1, std::memory_order_release);
    }

    const std::string& name() const { return name_; }

    StatisticSnapshot snapshot() const
    {
        StatisticSnapshot result{name_, text_, 0, 0, 0, 0, {}};
        for (std::size_t i = 0; i < bounds_.size(); ++i) {
            const std::uint64_t count = counts_[i].load(std::memory_order_acquire);
            result.count += count;
            result.buckets.push_back({static_cast<double>(bounds_[i]) * factor_, count});
        }
        if (result.count == 0)
            return result;

        result.min = static_cast<double>(min_.load(std::memory_order_relaxed)) * factor_;
        result.max = static_cast<double>(max_.load(std::memory_order_relaxed)) * factor_;
        const long double sum = positive_sum_.value() - negative_sum_.value();
        result.mean = static_cast<double>(sum / static_cast<long double>(result.count)) * factor_;
        return result;
    }

private:
    static void lower(std::atomic<std::int64_t>& least, std::int64_t value)
    {
        auto seen = least.load(std::memory_order_relaxed);
        while (value < seen && !least.compare_exchange_weak(seen, value, std::memory_order_relaxed)) {
        }
    }

    static void raise(std::atomic<std::int64_t>& greatest, std::int64_t value)
    {
        auto seen = greatest.load(std::memory_order_relaxed);
        while (value > seen && !greatest.compare_exchange_weak(seen, value, std::memory_order_relaxed)) {
        }
    }

    std::size_t bucket_of(std::int64_t value) const
    {
        const auto bound = std::lower_bound(bounds_.begin(), bounds_.end(), value);
        return std::min(static_cast<std::size_t>(bound - bounds_.begin()), bounds_.size() - 1);
    }

    const std::string name_;
    const std::string text_;
    const double factor_;
    const std::vector<std::int64_t> bounds_;
    std::vector<std::atomic<std::uint64_t>> counts_;
    std::atomic<std::int64_t> min_{std::numeric_limits<std::int64_t>::max()};
    std::atomic<std::int64_t> max_{std::numeric_limits<std::int64_t>::min()};
    // Kept apart, as a single sum near zero would keep carrying into its high half while others read it.
    Sum positive_sum_;
    Sum negative_sum_;
};

/// The item of that name, or null.
template <class T>
std::shared_ptr<T> find_by_name(const std::vector<std::shared_ptr<T>>& items, const std::string& name)
{
    const auto item =
        std::find_if(items.begin(), items.end(), [&](const auto& i) { return i->name() == name; });
    return item == items.end() ? nullptr : *item;
}

class ProviderImpl : public Provider {
public:
    ProviderImpl(std::string full_name, std::string base, std::string instance, unsigned int serial,
                 bool listed)
        : full_name_(std::move(full_name)),
          base_(std::move(base)),
          instance_(std::move(instance)),
          serial_(serial),
          listed_(listed)
    {
    }

    std::shared_ptr<Counter> add_counter(const std::string& name, const Rational<int>& start,
                                         const std::string& text, CounterPolicy /*policy*/) override
    {
        const std::lock_guard lock(mutex_);
        auto counter = find_by_name(counters_, name);
        if (!counter) {
            counter = std::make_shared<CounterImpl>(name, text, start_value(start));
            counters_.push_back(counter);
        }
        return counter;
    }

    std::shared_ptr<Statistic> add_statistic(const std::string& name, std::int64_t lowest,
                                             std::int64_t highest, unsigned int buckets,
                                             const std::string& text, double factor) override
    {
        const std::lock_guard lock(mutex_);
        auto statistic = find_by_name(statistics_, name);
        if (!statistic) {
            statistic =
                std::make_shared<StatisticImpl>(name, text, make_bounds(lowest, highest, buckets), factor);
            statistics_.push_back(statistic);
        }
        return statistic;
    }

    std::string name() const override { return full_name_; }

    bool is_listed() const { return listed_; }

    ProviderSnapshot snapshot() const
    {
        ProviderSnapshot result{base_, instance_, {}, {}};
        if (serial_ > 1)
            result.instance += "#" + std::to_string(serial_);

        const std::lock_guard lock(mutex_);
        for (const auto& counter : counters_)
            result.counters.push_back(counter->snapshot());
        for (const auto& statistic : statistics_)
            result.statistics.push_back(statistic->snapshot());
        return result;
    }

    /// Orders by name and then by instance: first the empty one, then numbers by value, then other texts.
    bool comes_before(const ProviderImpl& other) const { return order() < other.order(); }

private:
    std::tuple<std::string_view, bool, std::size_t, std::string_view, unsigned int> order() const
    {
        const bool is_number = instance_.find_first_not_of("0123456789") == std::string::npos;
        return {base_, !is_number, is_number ? instance_.size() : 0, instance_, serial_};
    }

    const std::string full_name_;
    const std::string base_;
    const std::string instance_;
    const unsigned int serial_; // 1 unless the name was taken
    const bool listed_;

    mutable std::mutex mutex_; // guards the lists, not the numbers in them
    std::vector<std::shared_ptr<CounterImpl>> counters_;
    std::vector<std::shared_ptr<StatisticImpl>> statistics_;
};

struct Registry {
    std::mutex mutex; // guards providers
    std::map<std::string, std::shared_ptr<ProviderImpl>> providers;
};

/// Never destroyed, since objects of static lifetime remove their providers in their destructors, in whatever
/// order.
Registry& registry()
{
    static Registry* const instance = new Registry;
    return *instance;
}
} // namespace

std::shared_ptr<Provider> add_provider(const std::string& name, const std::string& instance, bool listed)
{
    const std::string wanted = instance.empty() ? name : name + "[" + instance + "]";

    const std::lock_guard lock(registry().mutex);
    auto& providers = registry().providers;
    std::string free_name = wanted;
    unsigned int serial = 1;
    while (providers.contains(free_name))
        free_name = wanted + "#" + std::to_string(++serial);

    const auto provider = std::make_shared<ProviderImpl>(free_name, name, instance, serial, listed);
    providers.emplace(free_name, provider);
    return provider;
}

void remove_provider(const std::string& name)
{
    std::unique_lock lock(registry().mutex);
    const auto provider = registry().providers.extract(name);
    lock.unlock(); // before the provider is destroyed
}

std::vector<ProviderSnapshot> snapshot()
{
    std::vector<std::shared_ptr<const ProviderImpl>> listed;
    {
        const std::lock_guard lock(registry().mutex);
        for (const auto& [name, provider] : registry().providers) {
            if (provider->is_listed())
                listed.push_back(provider);
        }
    }
    std::sort(listed.begin(), listed.end(), [](const auto& a, const auto& b) { return a->comes_before(*b); });

    std::vector<ProviderSnapshot> result;
    result.reserve(listed.size());
    for (const auto& provider : listed)
        result.push_back(provider->snapshot());
    return result;
}
} // namespace slate
