// SPDX-License-Identifier: Apache-2.0
#include "slate/provider.h"

#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {
// Counters and statistics consist of these, so that counting never waits for a reader.
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);
static_assert(std::atomic<std::int64_t>::is_always_lock_free);
static_assert(std::atomic<int>::is_always_lock_free);

constexpr auto cumulative = slate::CounterPolicy::Cumulative;
using Names = std::vector<std::string>;

/// A registered provider, which the destructor removes.
class Registered {
public:
    explicit Registered(const std::string& name, const std::string& instance = "", bool listed = true)
        : provider_(slate::add_provider(name, instance, listed))
    {
    }
    ~Registered() { slate::remove_provider(provider_->name()); }
    Registered(const Registered&) = delete;
    Registered& operator=(const Registered&) = delete;

    slate::Provider* operator->() const { return provider_.get(); }

private:
    std::shared_ptr<slate::Provider> provider_;
};

/// The providers of this name in snapshot().
std::vector<slate::ProviderSnapshot> shown(const std::string& name)
{
    auto all = slate::snapshot();
    std::erase_if(all, [&](const auto& provider) { return provider.name != name; });
    return all;
}

Names instances(const std::string& name)
{
    Names result;
    for (const auto& provider : shown(name))
        result.push_back(provider.instance);
    return result;
}

slate::StatisticSnapshot only_statistic(const std::string& name)
{
    return shown(name).at(0).statistics.at(0);
}

std::vector<double> bounds(const slate::StatisticSnapshot& statistic)
{
    std::vector<double> result;
    for (const auto& bucket : statistic.buckets)
        result.push_back(bucket.upper_bound);
    return result;
}

std::vector<std::uint64_t> counts(const slate::StatisticSnapshot& statistic)
{
    std::vector<std::uint64_t> result;
    for (const auto& bucket : statistic.buckets)
        result.push_back(bucket.count);
    return result;
}

TEST(Provider, IsNamedAfterNameAndInstance)
{
    EXPECT_EQ(Registered("zmq.client", "3")->name(), "zmq.client[3]");
    EXPECT_EQ(Registered("zmq.client")->name(), "zmq.client");
}

TEST(Provider, GetsAUniqueNameIfItsNameIsTaken)
{
    const Registered first("route", "status");
    const Registered second("route", "status");
    {
        const Registered third("route", "status");
        EXPECT_EQ(first->name(), "route[status]");
        EXPECT_EQ(second->name(), "route[status]#2");
        EXPECT_EQ(third->name(), "route[status]#3");
        EXPECT_EQ(instances("route"), (Names{"status", "status#2", "status#3"}));
    }

    const Registered again("route", "status");
    EXPECT_EQ(again->name(), "route[status]#3");
    const Registered plain("route[status]");
    EXPECT_EQ(plain->name(), "route[status]#4");
}

TEST(Provider, IsShownOnlyIfListed)
{
    const Registered listed("shown", "1", true);
    const Registered unlisted("shown", "2", false);

    EXPECT_EQ(instances("shown"), Names{"1"});
}

TEST(Provider, DisappearsFromSnapshotsOnceRemovedButKeepsWorking)
{
    const auto provider = slate::add_provider("removed", "1", true);
    const auto counter = provider->add_counter("c", 0, "", cumulative);

    slate::remove_provider(provider->name());
    slate::remove_provider(provider->name());
    slate::remove_provider("unknown");

    EXPECT_TRUE(shown("removed").empty());
    counter->increment();
    provider->add_counter("c", 0, "", cumulative)->increment();
    provider->add_statistic("s", 1, 10, 2, "", 1)->record(5);
    EXPECT_EQ(counter->value(), 2u);
    EXPECT_EQ(provider->name(), "removed[1]");
}

TEST(Provider, IsRemovedByItsFullNameOnly)
{
    const Registered provider("whole", "1");

    slate::remove_provider("whole");

    EXPECT_EQ(instances("whole"), Names{"1"});
}

TEST(Provider, ReturnsTheSameCounterForTheSameName)
{
    const Registered provider("shared");
    const auto counter = provider->add_counter("c", 5, "first", cumulative);

    const auto same = provider->add_counter("c", 7, "second", cumulative);
    same->increment();

    EXPECT_EQ(counter, same);
    EXPECT_EQ(counter->value(), 6u);
    EXPECT_EQ(shown("shared")[0].counters[0].text, "first");
    EXPECT_EQ(provider->add_statistic("s", 1, 9, 2, "", 1), provider->add_statistic("s", 2, 3, 4, "", 5));
}

TEST(Counter, StartsFromItsFractionRoundedDown)
{
    const Registered provider("start");
    const auto start = [&](const char* name, const slate::Rational<int>& value) {
        return provider->add_counter(name, value, "", cumulative)->value();
    };

    EXPECT_EQ(start("0/1", {0, 1}), 0u);
    EXPECT_EQ(start("7/2", {7, 2}), 3u);
    EXPECT_EQ(start("-7/-2", {-7, -2}), 3u);
    EXPECT_EQ(start("6", 6), 6u);
    EXPECT_EQ(start("-1/2", {-1, 2}), 0u);
    EXPECT_EQ(start("-3/2", {-3, 2}), 0u); // a count is never negative
    EXPECT_EQ(start("least", {std::numeric_limits<int>::min(), -1}), 2147483648u);
}

TEST(Counter, HasTheSeverityItIsGiven)
{
    const Registered provider("severity");
    provider->add_counter("plain", 0, "", cumulative);
    provider->add_error_counter("error", 0, "", cumulative);
    provider->add_warning_counter("warning", 0, "", cumulative);

    const auto counters = shown("severity").at(0).counters;

    EXPECT_EQ(counters.at(0).severity, std::nullopt);
    EXPECT_EQ(counters.at(1).severity, 0);
    EXPECT_EQ(counters.at(2).severity, 1);
}

TEST(Counter, LosesNoIncrementOfManyThreads)
{
    const Registered provider("concurrent");
    const auto counter = provider->add_counter("c", 0, "", cumulative);

    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 50'000; ++n)
                counter->increment();
        });
    }
    for (auto& thread : threads)
        thread.join();

    EXPECT_EQ(counter->value(), 200'000u);
    EXPECT_EQ(shown("concurrent").at(0).counters.at(0).value, 200'000u);
}

TEST(Statistic, IsAllZeroAtFirst)
{
    const Registered provider("fresh");
    provider->add_statistic("s", 1, 1000, 3, "milliseconds", 1);

    const auto statistic = only_statistic("fresh");

    EXPECT_EQ(statistic.name, "s");
    EXPECT_EQ(statistic.text, "milliseconds");
    EXPECT_EQ(statistic.count, 0u);
    EXPECT_EQ(statistic.min, 0);
    EXPECT_EQ(statistic.max, 0);
    EXPECT_EQ(statistic.mean, 0);
}

TEST(Statistic, GrowsItsBoundsByAConstantFactor)
{
    const Registered provider("bounds");
    provider->add_statistic("decades", 1, 1000, 3, "", 1);
    provider->add_statistic("doubles", 4, 64, 4, "", 1);
    provider->add_statistic("scaled", 1, 1000, 3, "", 0.001);
    provider->add_statistic("coarse", 1, 4, 8, "", 1);
    provider->add_statistic("huge", 1, std::numeric_limits<std::int64_t>::max(), 3, "", 1);

    const auto statistics = shown("bounds").at(0).statistics;

    EXPECT_EQ(bounds(statistics.at(0)), (std::vector<double>{10, 100, 1000}));
    EXPECT_EQ(bounds(statistics.at(1)), (std::vector<double>{8, 16, 32, 64}));
    EXPECT_EQ(bounds(statistics.at(2)), (std::vector<double>{0.01, 0.1, 1}));
    EXPECT_EQ(bounds(statistics.at(3)), (std::vector<double>{1, 1, 1, 2, 2, 2, 3, 4}));
    EXPECT_EQ(bounds(statistics.at(4)), (std::vector<double>{2097152, 4398046511104, 9223372036854775808.0}));
}

TEST(Statistic, SortsEachValueIntoItsBucket)
{
    const Registered provider("buckets");
    const auto statistic = provider->add_statistic("s", 1, 1000, 3, "", 1);

    for (const std::int64_t value : {1, 10, 11, 100, 101, 1000})
        statistic->record(value);

    EXPECT_EQ(counts(only_statistic("buckets")), (std::vector<std::uint64_t>{2, 2, 2}));
}

TEST(Statistic, CountsValuesOutsideInTheFirstOrLastBucket)
{
    const Registered provider("outside");
    const auto statistic = provider->add_statistic("s", 10, 1000, 2, "", 1);

    for (const std::int64_t value :
         {std::numeric_limits<std::int64_t>::min(), std::int64_t{-1}, std::int64_t{0}, std::int64_t{9},
          std::int64_t{1001}, std::numeric_limits<std::int64_t>::max()})
        statistic->record(value);

    EXPECT_EQ(counts(only_statistic("outside")), (std::vector<std::uint64_t>{4, 2}));
}

TEST(Statistic, HasOneBucketForARangeThatMakesNoSense)
{
    const Registered provider("one");
    provider->add_statistic("no buckets", 1, 100, 0, "", 1);
    provider->add_statistic("upside down", 100, 10, 5, "", 1);
    provider->add_statistic("no range", 10, 10, 5, "", 1);
    provider->add_statistic("below one", -5, 0, 5, "", 1);
    provider->add_statistic("from one", -5, 100, 2, "", 1);

    const auto statistics = shown("one").at(0).statistics;

    EXPECT_EQ(bounds(statistics.at(0)), std::vector<double>{100});
    EXPECT_EQ(bounds(statistics.at(1)), std::vector<double>{100});
    EXPECT_EQ(bounds(statistics.at(2)), std::vector<double>{10});
    EXPECT_EQ(bounds(statistics.at(3)), std::vector<double>{1});
    EXPECT_EQ(bounds(statistics.at(4)), (std::vector<double>{10, 100}));
}

TEST(Statistic, ScalesWhatItShows)
{
    const Registered provider("scaled");
    const auto statistic = provider->add_statistic("s", 1, 1000, 3, "seconds", 0.5);

    for (const std::int64_t value : {10, 20, 60})
        statistic->record(value);

    const auto shown_statistic = only_statistic("scaled");
    EXPECT_EQ(shown_statistic.count, 3u);
    EXPECT_EQ(shown_statistic.min, 5);
    EXPECT_EQ(shown_statistic.max, 30);
    EXPECT_EQ(shown_statistic.mean, 15);
}

TEST(Statistic, KeepsItsMeanBeyondTheRangeOfASum)
{
    const Registered provider("sum");
    const auto large = provider->add_statistic("large", 1, 10, 1, "", 1);
    const auto mixed = provider->add_statistic("mixed", 1, 10, 1, "", 1);

    for (int i = 0; i < 5; ++i)
        large->record(std::numeric_limits<std::int64_t>::max());
    for (const std::int64_t value : {-10, 4, -6, 8})
        mixed->record(value);

    const auto statistics = shown("sum").at(0).statistics;
    EXPECT_DOUBLE_EQ(statistics.at(0).mean, 9223372036854775807.0);
    EXPECT_EQ(statistics.at(1).mean, -1);
    EXPECT_EQ(statistics.at(1).min, -10);
    EXPECT_EQ(statistics.at(1).max, 8);
}

TEST(Statistic, LosesNoValueOfManyThreads)
{
    const Registered provider("recorded");
    const auto statistic = provider->add_statistic("s", 1, 1000, 3, "", 1);
    constexpr int values = 1000;
    constexpr int rounds = 20;

    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < values * rounds; ++n)
                statistic->record(n % values + 1);
        });
    }
    for (int i = 0; i < 50; ++i) {
        const auto meanwhile = only_statistic("recorded");
        if (meanwhile.count > 0) {
            EXPECT_LE(meanwhile.min, meanwhile.max);
        }
    }
    for (auto& thread : threads)
        thread.join();

    const auto result = only_statistic("recorded");
    EXPECT_EQ(result.count, 80'000u);
    EXPECT_EQ(counts(result), (std::vector<std::uint64_t>{800, 7'200, 72'000}));
    EXPECT_EQ(result.min, 1);
    EXPECT_EQ(result.max, 1000);
    EXPECT_EQ(result.mean, 500.5);
}

TEST(Snapshot, IsOrderedByNameAndInstance)
{
    const Registered e("order", "10"), d("order", "b"), c("order", "2"), b("order", "a"), a("order");
    const Registered before("orde", "z"), behind("order.x", "0");

    std::vector<std::pair<std::string, std::string>> found;
    for (const auto& provider : slate::snapshot()) {
        if (provider.name.starts_with("orde"))
            found.emplace_back(provider.name, provider.instance);
    }

    ASSERT_EQ(found.size(), 7u);
    EXPECT_EQ(found.front(), (std::pair<std::string, std::string>("orde", "z")));
    EXPECT_EQ(found.back(), (std::pair<std::string, std::string>("order.x", "0")));
    EXPECT_EQ(instances("order"), (Names{"", "2", "10", "a", "b"}));
}

TEST(Snapshot, ShowsNumbersInTheOrderInWhichTheyWereAdded)
{
    const Registered provider("added");
    for (const auto* name : {"z", "a", "m"}) {
        provider->add_counter(name, 0, std::string("text of ") + name, cumulative);
        provider->add_statistic(name, 1, 2, 1, "", 1);
    }

    const auto result = shown("added").at(0);

    ASSERT_EQ(result.counters.size(), 3u);
    ASSERT_EQ(result.statistics.size(), 3u);
    EXPECT_EQ(result.counters[0].name, "z");
    EXPECT_EQ(result.counters[1].name, "a");
    EXPECT_EQ(result.counters[2].name, "m");
    EXPECT_EQ(result.counters[2].text, "text of m");
    EXPECT_EQ(result.statistics[0].name, "z");
    EXPECT_EQ(result.statistics[2].name, "m");
}

TEST(Snapshot, CanBeTakenWhileProvidersComeAndGo)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([] {
            for (int n = 0; n < 300; ++n) {
                const Registered provider("fleeting", "1");
                provider->add_counter("c", 0, "", cumulative)->increment();
            }
        });
    }
    for (int n = 0; n < 300; ++n) {
        for (const auto& provider : shown("fleeting"))
            EXPECT_LE(provider.counters.size(), 1u);
    }
    for (auto& thread : threads)
        thread.join();

    EXPECT_TRUE(shown("fleeting").empty());
}
} // namespace
