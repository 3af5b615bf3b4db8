// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/route_list.h"

#include <atomic>
#include <condition_variable>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "slate/provider.h"
#include "support/log_capture.h"
#include "support/wait_until.h"
#include "tarn/message_factory.h"
#include "tarn/routes/basic_route.h"

namespace {
using namespace std::chrono_literals;
using namespace tarn;
using namespace tarn_test;
using tarn_internal::RouteList;

class NotedRoute : public Route {
public:
    using Route::Route;
    void get(Context& context) const override { on_call(context, "get"); }
    void put(Context& context) override { on_call(context, "put"); }
    void del(Context& context) override { on_call(context, "del"); }
    void post(Context& context) override { on_call(context, "post"); }

    std::function<void(Context&, const std::string&)> on_call = [](Context&, const std::string&) {};
};

std::shared_ptr<NotedRoute> noted(const std::string& name, const std::string& pattern,
                                  Access access = Access::Public)
{
    return std::make_shared<NotedRoute>(name, "get", RoutePattern(pattern), access);
}

class ARouteList : public ::testing::Test {
protected:
    static constexpr int pid = 4;

    ~ARouteList() override { slate::remove_provider(provider->name()); }

    Context context_of(const std::shared_ptr<Message>& message)
    {
        Context context;
        context.pid = pid;
        context.request.message = message;
        context.reply.message = factory->make_response(message, pid);
        return context;
    }
    Context get(const std::string& path) { return context_of(factory->make_get(path)); }

    /// The name of the route that a request goes to, or empty.
    std::string taker_of(const std::string& path)
    {
        std::string name;
        Context context = get(path);
        list.invoke(context, [&](const std::shared_ptr<Route>& route) { name = route->name; });
        return name;
    }

    std::vector<std::string> names() const
    {
        std::vector<std::string> result;
        for (const auto& route : list.routes())
            result.push_back(route->name);
        return result;
    }

    /// Whether a function returns; one that doesn't is left to its fate.
    static bool returns(std::function<void()> function)
    {
        auto done = std::make_shared<std::promise<void>>();
        auto future = done->get_future();
        std::thread([function = std::move(function), done] {
            function();
            done->set_value();
        }).detach();
        return future.wait_for(20s) == std::future_status::ready;
    }

    LogCapture logs;
    std::shared_ptr<MessageFactory> factory = make_message_factory();
    std::shared_ptr<slate::Dictionary> settings = slate::make_dictionary();
    std::shared_ptr<slate::Provider> provider = slate::add_provider("list", "", false);
    int added = 0;
    int deleted = 0;
    RouteList list{{}, settings, provider, [this] { ++added; }, [this] { ++deleted; }};
};

TEST_F(ARouteList, HoldsTheIndexAloneAtFirst)
{
    EXPECT_EQ(names(), std::vector<std::string>{"index"});
    EXPECT_EQ(list.topics(), std::set<std::string>{"/index"});
    EXPECT_EQ(taker_of("/index"), "index");
}

TEST_F(ARouteList, WarnsAboutAPatternWithoutTheSlash)
{
    EXPECT_TRUE(list.add(noted("zone", "zone")));
    EXPECT_TRUE(list.add(noted("user", "user/:id")));
    EXPECT_TRUE(list.add(noted("all", "")));
    EXPECT_TRUE(list.add(noted("good", "/good")));
    EXPECT_EQ(
        logs.texts(slate::WarnLevel),
        (std::vector<std::string>{
            "route [zone]: the pattern \"zone\" doesn't begin with \"/\", as every path does; it is taken "
            "as if it did",
            "route [user]: the pattern \"user/:id\" doesn't begin with \"/\", as every path does; it is "
            "taken as if it did"}));
    EXPECT_EQ(taker_of("/zone"), "zone");
}

/// A route that keeps its patterns as they were written.
class UnprimedRoute : public NotedRoute {
public:
    using NotedRoute::NotedRoute;
    void prime(const std::shared_ptr<const slate::Dictionary>&) override {}
};

TEST_F(ARouteList, WarnsAboutAPatternThatNeverMatches)
{
    EXPECT_TRUE(
        list.add(std::make_shared<UnprimedRoute>("zone", "get", RoutePattern("zone"), Access::Public)));
    EXPECT_EQ(
        logs.texts(slate::WarnLevel),
        std::vector<std::string>{"route [zone]: the pattern \"zone\" doesn't begin with \"/\", as every "
                                 "path does; it never matches"});
    EXPECT_EQ(taker_of("/zone"), "");
}

TEST_F(ARouteList, WarnsAboutTheVerbsOfAValueRouteWithoutAFunction)
{
    EXPECT_TRUE(list.add(make_int32_route("volume", "get,put,post,del", "/volume", {})));
    EXPECT_TRUE(
        list.add(make_string_route("name", "get,put", "/name", [](Context&) { return std::string(); })));
    EXPECT_TRUE(list.add(make_bool_route("on", "get", "/on", [](Context&) { return true; })));
    EXPECT_TRUE(list.add(make_double_route(
        "level", "put,del", "/level", {}, [](Context&, double) {}, [](Context&) {})));
    EXPECT_EQ(logs.texts(slate::WarnLevel),
              (std::vector<std::string>{"route [volume]: GET has no getter; such requests get status 500",
                                        "route [volume]: PUT has no setter; such requests get status 500",
                                        "route [volume]: POST has no setter; such requests get status 500",
                                        "route [volume]: DELETE has no deleter; such requests get status 500",
                                        "route [name]: PUT has no setter; such requests get status 500"}));
}

TEST_F(ARouteList, SaysNothingOfARouteThatItRefuses)
{
    list.add(noted("zone", "/zone"));
    EXPECT_FALSE(list.add(noted("zone", "other")));
    EXPECT_EQ(logs.count(slate::WarnLevel), 0u);
}

TEST_F(ARouteList, GivesARequestToTheFirstRouteThatAcceptsIt)
{
    list.add(noted("first", "/a"));
    list.add(noted("second", "/a"));
    EXPECT_EQ(taker_of("/a"), "first");
    list.del("first");
    EXPECT_EQ(taker_of("/a"), "second");
    EXPECT_EQ(taker_of("/b"), "");
}

TEST_F(ARouteList, ThrowsForAnEmptyHandlerIfARouteAccepts)
{
    Context taken = get("/index");
    EXPECT_THROW(list.invoke(taken, RouteList::Handler()), std::bad_function_call);
    Context nobody = get("/nobody");
    list.invoke(nobody, RouteList::Handler());
}

TEST_F(ARouteList, IsFreeAgainAfterAHandlerThatThrew)
{
    list.add(noted("a", "/a"));
    Context context = get("/a");
    EXPECT_THROW(list.invoke(context, [](const auto&) { throw std::runtime_error("broken"); }),
                 std::runtime_error);
    EXPECT_EQ(taker_of("/a"), "a");
    list.del("a");
}

TEST_F(ARouteList, RefusesADuplicateNameButPrimesTheRoute)
{
    list.add(noted("a", "/a"));
    const auto duplicate = noted("a", "/b/");
    EXPECT_FALSE(list.add(duplicate));
    EXPECT_EQ(duplicate->patterns[0].pattern, "/b");
    EXPECT_FALSE(list.add(noted("index", "/x")));
    EXPECT_FALSE(list.add(nullptr));
    EXPECT_EQ(added, 1);
    const auto lines = logs.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].text, "cannot add route; duplicate name: a");
    EXPECT_EQ(lines[0].level, slate::ErrorLevel);
    EXPECT_EQ(lines[0].provider, "list");
}

TEST_F(ARouteList, StaysAsItWasIfARouteCannotBePrimed)
{
    EXPECT_THROW(list.add(noted("a", "/<nowhere>")), Exception);
    EXPECT_EQ(names(), std::vector<std::string>{"index"});
    EXPECT_EQ(added, 0);
    EXPECT_TRUE(list.add(noted("a", "/a")));
}

TEST_F(ARouteList, TellsOfEachAddAndEachDelAlsoOfAnUnknownNameAndOfNoClear)
{
    slate::set_log_level(slate::DebugLevel);
    list.add(noted("a", "/a"));
    EXPECT_EQ(added, 1);
    list.del("a");
    list.del("unknown");
    EXPECT_EQ(deleted, 2);
    list.clear();
    EXPECT_EQ(added, 1);
    EXPECT_EQ(deleted, 2);
    EXPECT_TRUE(logs.has(slate::DebugLevel, "add route: a"));
    EXPECT_EQ(logs.count(slate::DebugLevel, "del route: "), 1u);
}

TEST_F(ARouteList, HasChangedWhenItFindsThatNobodyWantsToBeTold)
{
    RouteList deaf({}, settings, provider, {}, {});
    EXPECT_THROW(deaf.add(noted("a", "/a")), std::bad_function_call);
    EXPECT_EQ(deaf.routes().size(), 2u);
    EXPECT_THROW(deaf.del("a"), std::bad_function_call);
    EXPECT_EQ(deaf.routes().size(), 1u);
    deaf.clear();
}

TEST_F(ARouteList, KeepsTheOrderOfAddingAndTheIndexFirst)
{
    for (const std::string name : {"c", "a", "b"})
        list.add(noted(name, "/" + name));
    list.del("a");
    EXPECT_EQ(names(), (std::vector<std::string>{"index", "c", "b"}));
    EXPECT_EQ(list.topics(), (std::set<std::string>{"/index", "/c", "/b"}));
    list.clear();
    EXPECT_EQ(names(), std::vector<std::string>{"index"});
}

TEST_F(ARouteList, CanLoseItsIndexAndGetsItBackWhenCleared)
{
    list.del("index");
    EXPECT_TRUE(names().empty());
    EXPECT_TRUE(list.topics().empty());
    list.del("index"); // an empty list is no special case
    list.add(noted("a", "/a"));
    EXPECT_EQ(names(), std::vector<std::string>{"a"});
    list.clear();
    EXPECT_EQ(names(), std::vector<std::string>{"index"});
}

TEST_F(ARouteList, KeepsItsIndexCurrent)
{
    const auto index = [&] {
        Context context = get("/index");
        list.invoke(context, [&](const std::shared_ptr<Route>& route) { route->get(context); });
        return context.reply.data();
    };
    EXPECT_EQ(index(), "");
    list.add(noted("a", "/a"));
    EXPECT_EQ(index(), "public  HEAD,GET   \"/a\"\npublic  HEAD,GET   \"/index\"");
    list.del("a");
    EXPECT_EQ(index(), "public  HEAD,GET   \"/index\"");
}

// --- Handlers that change the list -------------------------------------------------------------------

/// What a handler does to its own list.
class AHandler : public ARouteList, public ::testing::WithParamInterface<std::string> {
protected:
    void change()
    {
        if (GetParam() == "Add")
            list.add(noted("new", "/new"));
        else if (GetParam() == "DelItself")
            list.del("changing");
        else if (GetParam() == "DelAnother")
            list.del("another");
        else if (GetParam() == "DelTheIndex")
            list.del("index");
        else
            list.clear();
    }
};

TEST_P(AHandler, MayChangeTheListThatItsRouteIsIn)
{
    const auto changing = noted("changing", "/changing");
    changing->on_call = [&](Context&, const std::string&) { change(); };
    list.add(changing);
    list.add(noted("another", "/another"));
    EXPECT_TRUE(returns([&] {
        Context context = get("/changing");
        list.invoke(context, [&](const std::shared_ptr<Route>& route) { route->get(context); });
    }));
}

TEST_P(AHandler, MayChangeTheListAlsoIfItsRouteStandsFirst)
{
    const auto changing = noted("changing", "/changing");
    changing->on_call = [&](Context&, const std::string&) { change(); };
    list.del("index");
    list.add(changing);
    EXPECT_TRUE(returns([&] {
        Context context = get("/changing");
        list.invoke(context, [&](const std::shared_ptr<Route>& route) { route->get(context); });
    }));
}

TEST_P(AHandler, MayChangeTheListAlsoWhenItHandlesAPublishedChange)
{
    const auto changing = noted("changing", "/changing");
    changing->on_call = [&](Context&, const std::string&) { change(); };
    list.add(changing);
    list.add(noted("another", "/changing"));
    for (const auto& message : {factory->make_put("/changing", ""), factory->make_del("/changing")}) {
        EXPECT_TRUE(returns([&] {
            Context context = context_of(message);
            list.invoke(context);
        }));
    }
}

INSTANTIATE_TEST_SUITE_P(Changes, AHandler,
                         ::testing::Values("Add", "DelItself", "DelAnother", "DelTheIndex", "Clear"),
                         [](const auto& change) { return change.param; });

// --- Locks -------------------------------------------------------------------------------------------

TEST_F(ARouteList, RunsHandlersOfOneRouteOneAtATimeAndHoldsUpNobodyElse)
{
    const auto slow = noted("slow", "/slow");
    std::promise<void> entered;
    std::promise<void> go;
    std::atomic<int> calls{0};
    slow->on_call = [&](Context&, const std::string&) {
        if (calls++ == 0) {
            entered.set_value();
            go.get_future().wait();
        }
    };
    list.add(slow);
    list.add(noted("other", "/other"));
    const auto ask = [&](const std::string& path) {
        Context context = get(path);
        list.invoke(context, [&](const std::shared_ptr<Route>& route) { route->get(context); });
    };
    auto first = std::async(std::launch::async, [&] { ask("/slow"); });
    entered.get_future().wait();

    ask("/other");                // another route
    EXPECT_EQ(taker_of("/"), ""); // a lookup
    list.add(noted("new", "/new"));
    auto second = std::async(std::launch::async, [&] { ask("/slow"); });
    EXPECT_EQ(second.wait_for(50ms), std::future_status::timeout);
    EXPECT_EQ(calls, 1);
    go.set_value();
    first.wait();
    second.wait();
    EXPECT_EQ(calls, 2);
}

TEST_F(ARouteList, BearsLookupsChangesAndHandlersOnManyThreads)
{
    std::atomic<bool> stop{false};
    std::atomic<int> found{0};
    list.add(noted("fixed", "/fixed"));
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < 2; ++t) {
            threads.emplace_back([&, t] {
                const std::string name = "r" + std::to_string(t);
                for (int i = 0; i < 300; ++i) {
                    list.add(noted(name, "/" + name));
                    list.topics();
                    list.del(name);
                }
                stop = true;
            });
        }
        threads.emplace_back([&] {
            do {
                Context context = get("/index");
                list.invoke(context, [&](const std::shared_ptr<Route>& route) { route->get(context); });
                found += taker_of("/fixed") == "fixed" ? 1 : 0;
            } while (!stop);
        });
    }
    EXPECT_GT(found, 0);
}

// --- Published changes -------------------------------------------------------------------------------

TEST_F(ARouteList, HandsAChangeToEveryRouteThatAcceptsItInOrder)
{
    std::vector<std::string> calls;
    for (const std::string name : {"a", "b", "c"}) {
        const auto route = noted(name, name == "c" ? "/c" : "/x");
        route->on_call = [&, name](Context&, const std::string& verb) { calls.push_back(name + " " + verb); };
        list.add(route);
    }
    Context put = context_of(factory->make_put("/x", "1"));
    EXPECT_TRUE(list.invoke(put));
    Context del = context_of(factory->make_del("/x"));
    EXPECT_TRUE(list.invoke(del));
    EXPECT_EQ(calls, (std::vector<std::string>{"a put", "b put", "a del", "b del"}));

    Context nobody = context_of(factory->make_put("/nobody", "1"));
    EXPECT_FALSE(list.invoke(nobody));
}

TEST_F(ARouteList, AcceptsAPostAsAChangeAndCallsNobody)
{
    const auto route = noted("a", "/a");
    int calls = 0;
    route->on_call = [&](Context&, const std::string&) { ++calls; };
    list.add(route);
    Context post = context_of(factory->make_post("/a", "1"));
    EXPECT_TRUE(list.invoke(post));
    EXPECT_EQ(calls, 0);
}

TEST_F(ARouteList, ShowsAllHandlersOfAChangeTheVariablesOfTheLastRouteThatAccepted)
{
    std::vector<std::string> seen;
    for (const std::string name : {"x", "y"}) {
        const auto route = noted(name, "/a/:" + name);
        route->on_call = [&](Context& context, const std::string&) {
            seen.push_back(context.params->get("x", "-") + context.params->get("y", "-"));
        };
        list.add(route);
    }
    Context put = context_of(factory->make_put("/a/1", ""));
    list.invoke(put);
    EXPECT_EQ(seen, (std::vector<std::string>{"-1", "-1"}));
}

TEST_F(ARouteList, CallsNoLaterRouteWhenOneFailsInAChange)
{
    const auto failing = noted("failing", "/a");
    failing->on_call = [](Context&, const std::string&) { throw std::runtime_error("broken"); };
    const auto later = noted("later", "/a");
    bool called = false;
    later->on_call = [&](Context&, const std::string&) { called = true; };
    list.add(failing);
    list.add(later);
    Context put = context_of(factory->make_put("/a", ""));
    EXPECT_THROW(list.invoke(put), std::runtime_error);
    EXPECT_FALSE(called);
    Context again = context_of(factory->make_put("/a", ""));
    EXPECT_THROW(list.invoke(again), std::runtime_error); // no lock was left behind
}

TEST_F(ARouteList, SkipsAPrivateRouteInAChangeOfAnotherProcess)
{
    const auto route = noted("p", "/p", Access::Private);
    list.add(route);
    auto message = factory->make_put("/p", "");
    message->mutable_put()->mutable_head()->mutable_from()->set_pid(pid + 1);
    Context foreign = context_of(message);
    EXPECT_FALSE(list.invoke(foreign));
    message->mutable_put()->mutable_head()->mutable_from()->set_pid(pid);
    Context own = context_of(message);
    EXPECT_TRUE(list.invoke(own));
}

// The lock of the C library lets readers in before a writer that waits, so a flood of requests could keep it
// out.
TEST_F(ARouteList, LetsAChangeInBetweenLookupsThatNeverPause)
{
    for (int i = 0; i < 100; ++i)
        list.add(noted(std::to_string(i), "/x/:a/y/:b/" + std::to_string(i)));
    std::string path;
    for (int i = 0; i < 5000; ++i)
        path += "/x";
    std::atomic<int> lookups{0};
    std::atomic<bool> stop{false};
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            Context context = context_of(factory->make_get(path));
            while (!stop) {
                list.invoke(context, [](const std::shared_ptr<Route>&) {});
                ++lookups;
            }
        });
    EXPECT_TRUE(wait_until([&] { return lookups > 100; }));

    int lookups_during_changes = 0;
    constexpr int changes = 50;
    for (int i = 0; i < changes; ++i) {
        const int before = lookups;
        list.add(noted("new", "/new"));
        list.del("new");
        lookups_during_changes += lookups - before;
    }
    stop = true;
    // Those under way, and what runs while the system doesn't run this thread. A change that waits for a
    // pause takes hundreds of thousands.
    EXPECT_LT(lookups_during_changes, changes * 1000);
}
} // namespace
