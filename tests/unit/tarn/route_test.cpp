// SPDX-License-Identifier: Apache-2.0
#include "tarn/route.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "slate/dictionary.h"
#include "slate/provider.h"
#include "support/counters.h"
#include "support/log_capture.h"
#include "tarn/exception.h"
#include "tarn/internal/envelope.h"
#include "unit/tarn/messages.h"
#include "unit/tarn/thrown.h"

namespace {
using tarn::Access;
using tarn::Context;
using tarn::Route;
using tarn::RoutePattern;
using tarn_test::counter;
using tarn_test::dictionary_of;
using tarn_test::equal;
using tarn_test::LogCapture;
using tarn_test::logged_and_thrown;
using tarn_test::message_of;
using tarn_test::Pairs;
using tarn_test::pairs_of;

Context context_of(const std::string& request)
{
    Context context;
    context.request.message = message_of(request);
    context.reply.message = message_of("response {}");
    return context;
}

Context get_of(const std::string& path)
{
    return context_of(R"(get { head { path: ")" + path + R"(" } })");
}

/// The instances of the providers of routes that there are.
std::vector<std::string> route_providers()
{
    std::vector<std::string> instances;
    for (const auto& provider : slate::snapshot()) {
        if (provider.name == "route")
            instances.push_back(provider.instance);
    }
    return instances;
}

// ---- construction ---------------------------------------------------------------------------------------

TEST(Route, HasNameAndAccess)
{
    const Route open("status", "get", Access::Public);
    const Route closed("cache", "get", Access::Private);

    EXPECT_EQ(open.name, "status");
    EXPECT_EQ(open.access, Access::Public);
    EXPECT_EQ(closed.access, Access::Private);
}

TEST(Route, CanBeMadeWithoutPatterns)
{
    EXPECT_TRUE(Route("status", "get", Access::Public).patterns.empty());
}

TEST(Route, CanBeMadeWithOnePattern)
{
    const Route route("status", "get", RoutePattern("/status"), Access::Public);

    ASSERT_EQ(route.patterns.size(), 1U);
    EXPECT_EQ(route.patterns[0].pattern, "/status");
}

TEST(Route, CanBeMadeWithSeveralPatterns)
{
    const Route route("status", "get", std::vector<RoutePattern>{"/b", "/a"}, Access::Public);

    ASSERT_EQ(route.patterns.size(), 2U);
    EXPECT_EQ(route.patterns[0].pattern, "/b");
    EXPECT_EQ(route.patterns[1].pattern, "/a");
}

TEST(Route, HasNoSettingsAtFirst)
{
    EXPECT_FALSE(Route("status", "get", Access::Public).settings);
}

struct Methods {
    std::string words;
    bool head = false;
    bool get = false;
    bool put = false;
    bool post = false;
    bool del = false;

    friend std::ostream& operator<<(std::ostream& stream, const Methods& row)
    {
        return stream << '"' << row.words << '"';
    }
};

class RouteOfMethods : public testing::TestWithParam<Methods> {};

TEST_P(RouteOfMethods, TakesTheseVerbs)
{
    const Route route("status", GetParam().words, Access::Public);

    EXPECT_EQ(route.accepts_head, GetParam().head);
    EXPECT_EQ(route.accepts_get, GetParam().get);
    EXPECT_EQ(route.accepts_put, GetParam().put);
    EXPECT_EQ(route.accepts_post, GetParam().post);
    EXPECT_EQ(route.accepts_del, GetParam().del);
}

INSTANTIATE_TEST_SUITE_P(
    Words, RouteOfMethods,
    testing::Values(Methods{.words = ""}, Methods{.words = "get", .head = true, .get = true},
                    Methods{.words = "head", .head = true}, Methods{.words = "put", .put = true},
                    Methods{.words = "post", .post = true}, Methods{.words = "del", .del = true},
                    Methods{.words = "delete", .del = true},
                    Methods{.words = "put,post", .put = true, .post = true},
                    Methods{.words = "del,get,put,post,head",
                            .head = true,
                            .get = true,
                            .put = true,
                            .post = true,
                            .del = true},
                    Methods{.words = "get,get", .head = true, .get = true},
                    Methods{.words = ",,put,,", .put = true}, Methods{.words = ","},
                    Methods{.words = " put , del ", .put = true, .del = true}));

struct BadMethods {
    std::string words;
    std::string bad;

    friend std::ostream& operator<<(std::ostream& stream, const BadMethods& row)
    {
        return stream << '"' << row.words << '"';
    }
};

class RouteOfUnknownMethods : public testing::TestWithParam<BadMethods> {};

TEST_P(RouteOfUnknownMethods, IsRefused)
{
    EXPECT_EQ(logged_and_thrown<tarn::Exception>([] { Route("status", GetParam().words, Access::Public); }),
              "route[status] unknown method: " + GetParam().bad);
}

TEST_P(RouteOfUnknownMethods, IsRefusedInTheLogOfTheRoute)
{
    const LogCapture log;

    EXPECT_THROW(Route("status", GetParam().words, Access::Public), tarn::Exception);

    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].provider, "route[status]");
}

TEST_P(RouteOfUnknownMethods, LeavesNoProviderBehind)
{
    const LogCapture log;
    const auto before = route_providers();

    EXPECT_THROW(Route("status", GetParam().words, Access::Public), tarn::Exception);
    EXPECT_THROW(Route("status", GetParam().words, RoutePattern("/a"), Access::Public), tarn::Exception);
    EXPECT_THROW(Route("status", GetParam().words, std::vector<RoutePattern>{"/a"}, Access::Public),
                 tarn::Exception);

    EXPECT_EQ(route_providers(), before);
}

INSTANTIATE_TEST_SUITE_P(Words, RouteOfUnknownMethods,
                         testing::Values(BadMethods{"GET", "GET"}, BadMethods{"get,fly,swim", "fly"},
                                         BadMethods{"get;put", "get;put"}, BadMethods{"gets", "gets"},
                                         BadMethods{"patch", "patch"}));

// ---- its provider ---------------------------------------------------------------------------------------

class RouteThatThrows : public Route {
public:
    RouteThatThrows() : Route("status", "get", Access::Public) { throw std::runtime_error("no"); }
};

TEST(RouteProvider, IsNamedAfterTheRoute)
{
    const Route route("status", "get", Access::Public);

    EXPECT_EQ(route.provider->name(), "route[status]");
    EXPECT_EQ(route_providers(), std::vector<std::string>{"status"});
}

TEST(RouteProvider, GoesWithTheRoute)
{
    {
        const Route route("status", "get", Access::Public);
    }

    EXPECT_TRUE(route_providers().empty());
}

TEST(RouteProvider, GoesWhenTheConstructorOfADerivedRouteThrows)
{
    EXPECT_THROW(RouteThatThrows(), std::runtime_error);

    EXPECT_TRUE(route_providers().empty());
}

TEST(RouteProvider, IsNotSharedByRoutesOfOneName)
{
    const Route first("status", "get", RoutePattern("/a"), Access::Public);
    const Route second("status", "get", RoutePattern("/a"), Access::Public);
    Context context = get_of("/a");

    ASSERT_TRUE(second.accept(context));

    EXPECT_NE(first.provider, second.provider);
    EXPECT_EQ(route_providers().size(), 2U);
    EXPECT_EQ(first.accept_count->value(), 0U);
    EXPECT_EQ(second.accept_count->value(), 1U);
}

TEST(RouteProvider, StaysWhenAnotherRouteOfItsNameGoes)
{
    const Route first("status", "get", RoutePattern("/a"), Access::Public);
    auto second = std::make_unique<Route>("status", "get", Access::Public);
    Context context = get_of("/a");
    ASSERT_TRUE(first.accept(context));

    second.reset();

    EXPECT_EQ(route_providers().size(), 1U);
    EXPECT_EQ(counter("route", "status", "accept"), 1U);
}

TEST(RouteProvider, OfTheSecondRouteStaysWhenTheFirstOneGoes)
{
    auto first = std::make_unique<Route>("status", "get", Access::Public);
    const Route second("status", "get", Access::Public);
    ASSERT_EQ(second.provider->name(), "route[status]#2");

    first.reset();

    EXPECT_EQ(route_providers(), std::vector<std::string>{"status#2"});
}

TEST(RouteProvider, CountsNothingAtFirst)
{
    const Route route("status", "get", Access::Public);

    EXPECT_EQ(counter("route", "status", "accept"), 0U);
}

TEST(RouteProvider, HasThePlainCounterAcceptAndNoOther)
{
    const Route route("status", "get", Access::Public);

    for (const auto& provider : slate::snapshot()) {
        if (provider.name != "route")
            continue;
        ASSERT_EQ(provider.counters.size(), 1U);
        EXPECT_EQ(provider.counters[0].name, "accept");
        EXPECT_EQ(provider.counters[0].text, "");
        EXPECT_EQ(provider.counters[0].severity, std::nullopt);
        EXPECT_TRUE(provider.statistics.empty());
    }
}

// ---- accept ---------------------------------------------------------------------------------------------

TEST(AcceptingRoute, TakesAMatchingPath)
{
    const Route route("r", "get", RoutePattern("/a/:id"), Access::Public);
    Context context = get_of("/a/7");

    EXPECT_TRUE(route.accept(context));

    EXPECT_EQ(pairs_of(*context.params), (Pairs{{"id", "7"}, {"path_", "/a/7"}, {"pattern_", "/a/:id"}}));
}

TEST(AcceptingRoute, CountsWhatItTakes)
{
    const Route route("r", "get", RoutePattern("/a/:id"), Access::Public);
    Context first = get_of("/a/7");
    Context second = get_of("/a/8");
    Context other = get_of("/b");

    ASSERT_TRUE(route.accept(first));
    ASSERT_TRUE(route.accept(second));
    ASSERT_FALSE(route.accept(other));

    EXPECT_EQ(counter("route", "r", "accept"), 2U);
}

TEST(AcceptingRoute, CountsWhatItTakesOnSeveralThreadsAtOnce)
{
    constexpr int threads = 4;
    constexpr int requests = 500;
    const Route route("r", "get", RoutePattern("/a/:id"), Access::Public);

    std::vector<std::thread> running;
    for (int i = 0; i < threads; ++i) {
        running.emplace_back([&] {
            for (int j = 0; j < requests; ++j) {
                Context context = get_of("/a/7");
                (void)route.accept(context);
            }
        });
    }
    for (std::thread& thread : running)
        thread.join();

    EXPECT_EQ(route.accept_count->value(), static_cast<std::uint64_t>(threads) * requests);
}

TEST(AcceptingRoute, LeavesTheContextAloneIfItRefuses)
{
    const Route route("r", "get", RoutePattern("/a/:id"), Access::Public);
    Context context = get_of("/b");
    const auto old = slate::make_dictionary();
    context.params = old;

    EXPECT_FALSE(route.accept(context));

    EXPECT_EQ(context.params, old);
    EXPECT_TRUE(old->keys().empty());
}

TEST(AcceptingRoute, PutsANewDictionaryInThePlaceOfTheOldOne)
{
    const Route route("r", "get", RoutePattern("/a"), Access::Public);
    Context context = get_of("/a");
    const auto old = dictionary_of({{"old", "1"}});
    context.params = old;

    ASSERT_TRUE(route.accept(context));

    EXPECT_NE(context.params, old);
    EXPECT_FALSE(context.params->has("old"));
    EXPECT_EQ(pairs_of(*old), (Pairs{{"old", "1"}}));
}

TEST(AcceptingRoute, TakesNothingWithoutPatterns)
{
    const Route route("r", "get", Access::Public);
    Context root = get_of("/");
    Context empty = get_of("");

    EXPECT_FALSE(route.accept(root));
    EXPECT_FALSE(route.accept(empty));
}

TEST(AcceptingRoute, TakesTheFirstOfTwoPatternsThatMatch)
{
    const Route route("r", "get", std::vector<RoutePattern>{"/b/:z", "/a/:x", "/a/:y"}, Access::Public);
    Context context = get_of("/a/7");

    ASSERT_TRUE(route.accept(context));

    EXPECT_EQ(context.params->get("x", "none"), "7");
    EXPECT_FALSE(context.params->has("y"));
    EXPECT_EQ(context.params->get("pattern_", ""), "/a/:x");
}

class AcceptingRouteOfOtherVerbs : public testing::TestWithParam<std::string> {};

TEST_P(AcceptingRouteOfOtherVerbs, TakesAnyVerbAndLeavesItsRefusalToTheServer)
{
    const Route route("r", "del", RoutePattern("/a/:id"), Access::Public);
    Context context = context_of(GetParam());

    EXPECT_TRUE(route.accept(context));

    EXPECT_EQ(context.params->get("id", ""), "7");
    EXPECT_EQ(context.params->get("q", ""), "1");
    EXPECT_EQ(context.params->get("h", ""), "2");
}

INSTANTIATE_TEST_SUITE_P(
    Verbs, AcceptingRouteOfOtherVerbs,
    testing::Values(
        R"(get { head { path: "/a/7" params { key: "q" value: "1" } headers { key: "h" value: "2" } } })",
        R"(put { head { path: "/a/7" params { key: "q" value: "1" } headers { key: "h" value: "2" } } })",
        R"(post { head { path: "/a/7" params { key: "q" value: "1" } headers { key: "h" value: "2" } } })",
        R"(del { head { path: "/a/7" params { key: "q" value: "1" } headers { key: "h" value: "2" } } })",
        R"(response { head { path: "/a/7" params { key: "q" value: "1" } headers { key: "h" value: "2" } } })",
        R"(head { path: "/a/7" params { key: "q" value: "1" } headers { key: "h" value: "2" } })"));

TEST(AcceptingRoute, RefusesAContextWithoutRequest)
{
    const LogCapture log;
    const Route everything("r", "get", RoutePattern(""), Access::Public);
    const Route closed("r", "get", RoutePattern(""), Access::Private);
    Context context;

    EXPECT_FALSE(everything.accept(context));
    EXPECT_FALSE(closed.accept(context));
    EXPECT_FALSE(context.params);
}

TEST(AcceptingRoute, TakesARequestWithoutHeadWithAnErrorInTheLog)
{
    const LogCapture log;
    const Route route("r", "get", RoutePattern(""), Access::Public);
    Context context = context_of("get {}");

    EXPECT_TRUE(route.accept(context));

    EXPECT_EQ(pairs_of(*context.params), (Pairs{{"path_", ""}, {"pattern_", ""}}));
    EXPECT_TRUE(log.has(slate::ErrorLevel, "tarn merge_hdrs_params unknown msg type: " +
                                               tarn::to_string(*context.request.message)));
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST(AcceptingRoute, TakesACallWithPathVariablesOnlyAndAnErrorInTheLog)
{
    const LogCapture log;
    const Route route("r", "get", RoutePattern(""), Access::Public);
    Context context = context_of("call { select { method_number: 5 } }");

    EXPECT_TRUE(route.accept(context));

    EXPECT_EQ(pairs_of(*context.params), (Pairs{{"path_", ""}, {"pattern_", ""}}));
    EXPECT_TRUE(
        log.has(slate::ErrorLevel, "tarn merge_hdrs_params unknown msg type: select { method_number: 5 }"));
    EXPECT_TRUE(log.has(slate::WarnLevel, "tarn envelope unknown msg type: select { method_number: 5 }"));
}

TEST(AcceptingRoute, LogsNothingForAnOrdinaryRequest)
{
    const LogCapture log;
    const Route route("r", "get", RoutePattern("/a/:id"), Access::Public);
    Context taken = get_of("/a/7");
    Context refused = get_of("/b");

    (void)route.accept(taken);
    (void)route.accept(refused);

    EXPECT_TRUE(log.lines().empty());
}

// ---- the dictionary of an accepted request --------------------------------------------------------------

/// The dictionary of a get of "/a/7" by a route "/a/:id", with these parameters and headers in its head.
std::shared_ptr<slate::Dictionary> merged(const std::string& head)
{
    const Route route("r", "get", RoutePattern("/a/:id"), Access::Public);
    Context context = context_of(R"(get { head { path: "/a/7" )" + head + " } }");
    EXPECT_TRUE(route.accept(context));
    return context.params;
}

TEST(RouteParameters, HoldQueryParametersDecoded)
{
    EXPECT_EQ(merged(R"(params { key: "x" value: "a+b%20c%2B" })")->get("x", ""), "a b c+");
}

TEST(RouteParameters, HoldHeadersAsTheyAre)
{
    EXPECT_EQ(merged(R"(headers { key: "X-H" value: "a+b%20c" })")->get("X-H", ""), "a+b%20c");
}

TEST(RouteParameters, HoldNoMetadata)
{
    EXPECT_FALSE(merged(R"(meta { key: "ttl" value: "4s" })")->has("ttl"));
}

TEST(RouteParameters, PreferAPathVariableToAQueryParameter)
{
    EXPECT_EQ(merged(R"(params { key: "id" value: "9" })")->get("id", ""), "7");
}

TEST(RouteParameters, PreferAHeaderToAPathVariable)
{
    EXPECT_EQ(merged(R"(params { key: "id" value: "9" } headers { key: "id" value: "5" })")->get("id", ""),
              "5");
}

TEST(RouteParameters, PreferAHeaderToAQueryParameter)
{
    EXPECT_EQ(merged(R"(params { key: "x" value: "1" } headers { key: "x" value: "2" })")->get("x", ""), "2");
}

TEST(RouteParameters, PreferTheFirstOfEqualQueryParameters)
{
    EXPECT_EQ(merged(R"(params { key: "x" value: "1" } params { key: "x" value: "2" })")->get("x", ""), "1");
}

TEST(RouteParameters, PreferTheLastOfEqualHeaders)
{
    EXPECT_EQ(merged(R"(headers { key: "x" value: "1" } headers { key: "x" value: "2" })")->get("x", ""),
              "2");
}

TEST(RouteParameters, KeepPatternAndPathFromQueryParameters)
{
    const auto variables =
        merged(R"(params { key: "pattern_" value: "x" } params { key: "path_" value: "y" })");

    EXPECT_EQ(variables->get("pattern_", ""), "/a/:id");
    EXPECT_EQ(variables->get("path_", ""), "/a/7");
}

TEST(RouteParameters, LetHeadersOverwritePatternAndPath)
{
    const auto variables =
        merged(R"(headers { key: "pattern_" value: "x" } headers { key: "path_" value: "y" })");

    EXPECT_EQ(variables->get("pattern_", ""), "x");
    EXPECT_EQ(variables->get("path_", ""), "y");
}

TEST(RouteParameters, CompareKeysExactly)
{
    const auto variables = merged(R"(params { key: "ID" value: "9" } headers { key: "Id" value: "5" })");

    EXPECT_EQ(variables->get("id", ""), "7");
    EXPECT_EQ(variables->get("ID", ""), "9");
    EXPECT_EQ(variables->get("Id", ""), "5");
}

TEST(RouteParameters, LetAQueryParameterFillAnOptionalVariableWithoutDefault)
{
    const Route route("r", "get", RoutePattern("/a/(:x)/(:y=1)"), Access::Public);
    Context context = context_of(R"(get { head { path: "/a"
        params { key: "x" value: "9" } params { key: "y" value: "9" } } })");

    ASSERT_TRUE(route.accept(context));

    EXPECT_EQ(context.params->get("x", ""), "9");
    EXPECT_EQ(context.params->get("y", ""), "1");
}

// ---- access ---------------------------------------------------------------------------------------------

/// Puts debug logging off, as private routes are open to everybody while it is on.
class PrivateRoute : public testing::Test {
protected:
    PrivateRoute() { slate::set_log_level(slate::InfoLevel); }

    static Context request_from(int pid)
    {
        Context context =
            context_of(R"(get { head { path: "/a" from { pid: )" + std::to_string(pid) + " } } }");
        context.pid = 100;
        return context;
    }

    const LogCapture log_; // puts the level back
    const Route route_{"r", "get", RoutePattern("/a"), Access::Private};
};

TEST_F(PrivateRoute, AnswersItsOwnProcess)
{
    Context context = request_from(100);

    EXPECT_TRUE(route_.is_access_allowed(context));
    EXPECT_TRUE(route_.accept(context));
}

TEST_F(PrivateRoute, DoesNotAnswerAnotherProcess)
{
    Context context = request_from(101);

    EXPECT_FALSE(route_.is_access_allowed(context));
    EXPECT_FALSE(route_.accept(context));
    EXPECT_FALSE(context.params);
    EXPECT_EQ(counter("route", "r", "accept"), 0U);
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(PrivateRoute, DoesNotAnswerARequestFromNobody)
{
    Context context = context_of(R"(get { head { path: "/a" } })");
    context.pid = 0; // as an identity that isn't there reads

    EXPECT_FALSE(route_.is_access_allowed(context));
    EXPECT_FALSE(route_.accept(context));
}

TEST_F(PrivateRoute, DoesNotAnswerARequestWithoutHead)
{
    const Route everything("e", "get", RoutePattern(""), Access::Private);
    Context context = context_of("get {}");

    EXPECT_FALSE(everything.is_access_allowed(context));
    EXPECT_FALSE(everything.accept(context));
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(PrivateRoute, AnswersTheHeadRequestOfItsOwnProcess)
{
    Context context = context_of(R"(head { path: "/a" from { pid: 100 } })");
    context.pid = 100;

    EXPECT_TRUE(route_.is_access_allowed(context));
}

TEST_F(PrivateRoute, WarnsOfACall)
{
    const Context context = context_of("call {}");

    EXPECT_FALSE(route_.is_access_allowed(context));

    EXPECT_TRUE(log_.has(slate::WarnLevel, "is_access_allowed: bad request"));
}

TEST_F(PrivateRoute, WarnsOfAMissingRequest)
{
    EXPECT_FALSE(route_.is_access_allowed(Context()));

    EXPECT_TRUE(log_.has(slate::WarnLevel, "is_access_allowed: bad request"));
}

TEST_F(PrivateRoute, AnswersEverybodyWhileDebugLoggingIsOn)
{
    slate::set_log_level(slate::DebugLevel);
    Context other = request_from(101);
    Context nobody = context_of(R"(get { head { path: "/a" } })");

    EXPECT_TRUE(route_.accept(other));
    EXPECT_TRUE(route_.accept(nobody));
    EXPECT_TRUE(route_.is_access_allowed(context_of("call {}")));
}

TEST_F(PrivateRoute, StaysClosedAtTheLevelAboveDebug)
{
    slate::set_log_level(slate::VerboseLevel);
    Context other = request_from(101);

    EXPECT_FALSE(route_.accept(other));
}

TEST(PublicRoute, AnswersEverybody)
{
    const LogCapture log;
    slate::set_log_level(slate::InfoLevel);
    const Route route("r", "get", RoutePattern("/a"), Access::Public);

    EXPECT_TRUE(route.is_access_allowed(get_of("/a")));
    EXPECT_TRUE(route.is_access_allowed(context_of("call {}")));
    EXPECT_TRUE(route.is_access_allowed(Context()));
    EXPECT_TRUE(log.lines().empty());
}

// ---- default handlers -----------------------------------------------------------------------------------

struct Handler {
    std::string name;
    void (*call)(Route&, Context&);
    std::string text;

    friend std::ostream& operator<<(std::ostream& stream, const Handler& row) { return stream << row.name; }
};

class DefaultHandler : public testing::TestWithParam<Handler> {
protected:
    Route route_{"r", "get,put,post,del", RoutePattern("/a"), Access::Public};
    Context context_ = get_of("/a");
};

TEST_P(DefaultHandler, IsRefusedWithItsText)
{
    EXPECT_EQ(logged_and_thrown<tarn::MessageException>([&] { GetParam().call(route_, context_); }),
              GetParam().text);
}

TEST_P(DefaultHandler, IsNotImplemented)
{
    const LogCapture log;
    try {
        GetParam().call(route_, context_);
        FAIL() << "not refused";
    }
    catch (const tarn::MessageException& error) {
        EXPECT_EQ(error.status, tarn::Status::NotImplemented);
        EXPECT_EQ(error.level, 5);
    }
}

TEST_P(DefaultHandler, IsRefusedInTheLogOfTheRoute)
{
    const LogCapture log;

    EXPECT_THROW(GetParam().call(route_, context_), tarn::MessageException);

    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].provider, "route[r]");
}

INSTANTIATE_TEST_SUITE_P(
    Verbs, DefaultHandler,
    testing::Values(Handler{"Head", [](Route& route, Context& context) { route.head(context); },
                            "get/head method not implemented"},
                    Handler{"Get", [](Route& route, Context& context) { route.get(context); },
                            "get/head method not implemented"},
                    Handler{"Put", [](Route& route, Context& context) { route.put(context); },
                            "put method not implemented"},
                    Handler{"Post", [](Route& route, Context& context) { route.post(context); },
                            "post method not implemented"},
                    Handler{"Del", [](Route& route, Context& context) { route.del(context); },
                            "del method not implemented"}),
    [](const auto& row) { return row.param.name; });

TEST(Route, DoesNotSupportChunkedTransferByDefault)
{
    EXPECT_FALSE(Route("r", "put", Access::Public).supports_chunked_transfer());
}

// ---- head -----------------------------------------------------------------------------------------------

/// Answers a get with the reply that it was given, and keeps the request that it saw.
class RouteOfAReply : public Route {
public:
    explicit RouteOfAReply(const std::string& reply)
        : Route("r", "get", RoutePattern("/a"), Access::Public),
          reply_(reply)
    {
    }

    void get(Context& context) const override
    {
        seen = context.request.message;
        if (context.reply.message)
            *context.reply.message = *message_of(reply_);
    }

    mutable std::shared_ptr<tarn::Message> seen;

private:
    std::string reply_;
};

TEST(HeadByDefault, IsAGetWithoutItsBodyButWithItsLength)
{
    const RouteOfAReply route(
        R"(response { head { format: Text } body { txt: "twelve bytes" } status: Ok })");
    Context context = context_of(R"(head { path: "/a" })");

    route.head(context);

    EXPECT_TRUE(equal(*context.reply.message, *message_of(R"(response {
        head { format: Text headers { key: "Content-Length" value: "12" } } status: Ok })")))
        << context.reply.message->ShortDebugString();
}

TEST(HeadByDefault, CountsTheBytesOfABinaryBody)
{
    const RouteOfAReply route(R"(response { body { bin: "\000\377\303\244" } })");
    Context context = context_of(R"(head { path: "/a" })");

    route.head(context);

    EXPECT_EQ(context.reply.header("Content-Length", ""), "4");
    EXPECT_FALSE(context.reply.message->response().has_body());
}

TEST(HeadByDefault, TellsALengthOfZeroForAnEmptyBody)
{
    const RouteOfAReply route(R"(response { body { txt: "" } })");
    Context context = context_of(R"(head { path: "/a" })");

    route.head(context);

    EXPECT_EQ(context.reply.header("Content-Length", ""), "0");
    EXPECT_FALSE(context.reply.message->response().has_body());
}

TEST(HeadByDefault, ShowsItsRequestToGetAsAGetOfTheSameHead)
{
    const RouteOfAReply route(R"(response { body { txt: "x" } })");
    const std::string head = R"(path: "/a" format: Csv from { pid: 7 } to { pid: 8 }
        params { key: "p" value: "1" } headers { key: "h" value: "2" } meta { key: "m" value: "3" })";
    Context context = context_of("head { " + head + " }");
    const auto original = context.request.message;

    route.head(context);

    ASSERT_TRUE(route.seen);
    EXPECT_TRUE(equal(*route.seen, *message_of("get { head { " + head + " } }")));
    EXPECT_EQ(context.request.message, route.seen);
    EXPECT_TRUE(equal(*original, *message_of("head { " + head + " }")));
}

TEST(HeadByDefault, MakesAResponseOfAnotherReply)
{
    const RouteOfAReply route(R"(put { head { path: "/a" } body { txt: "x" } })");
    Context context = context_of(R"(head { path: "/a" })");

    route.head(context);

    ASSERT_TRUE(context.reply.message->has_response());
    EXPECT_FALSE(context.reply.message->response().has_body());
}

TEST(HeadByDefault, FailsIfGetLeavesNoBody)
{
    const RouteOfAReply route("response { status: Ok }");
    Context context = context_of(R"(head { path: "/a" })");

    EXPECT_EQ(logged_and_thrown<tarn::Exception>([&] { route.head(context); }),
              "Envelope::data does not exist");
}

TEST(HeadByDefault, FailsWithoutAReply)
{
    const RouteOfAReply route("response {}");
    Context context = context_of(R"(head { path: "/a" })");
    context.reply.message = nullptr;

    EXPECT_EQ(logged_and_thrown<tarn::Exception>([&] { route.head(context); }),
              "Envelope::data does not exist");
}

TEST(HeadByDefault, NeedsNoRequest)
{
    const RouteOfAReply route(R"(response { body { txt: "x" } })");
    Context context;
    context.reply.message = message_of("response {}");

    route.head(context);

    EXPECT_FALSE(route.seen);
    EXPECT_FALSE(context.request.message);
    EXPECT_EQ(context.reply.header("Content-Length", ""), "1");
}

// ---- prime and complete_patterns ------------------------------------------------------------------------

TEST(PrimedRoute, KeepsItsSettings)
{
    Route route("r", "get", RoutePattern("/a"), Access::Public);
    const auto settings = dictionary_of({{"k", "b"}});

    route.prime(settings);

    EXPECT_EQ(route.settings, settings);
}

TEST(PrimedRoute, HasAllItsPatternsPrimed)
{
    Route route("r", "get", std::vector<RoutePattern>{"/<k>/:id", "a/", "/c/<k>"}, Access::Public);

    route.prime(dictionary_of({{"k", "b"}}));

    EXPECT_EQ(route.patterns[0].pattern, "/b/:id");
    EXPECT_EQ(route.patterns[1].pattern, "/a");
    EXPECT_EQ(route.patterns[2].pattern, "/c/b");
}

TEST(PrimedRoute, MayBePrimedAgainForAnotherServer)
{
    Route route("r", "get", RoutePattern("/<k>/:id"), Access::Public);
    const auto second = dictionary_of({{"k", "b"}});
    route.prime(dictionary_of({{"k", "b"}}));

    route.prime(second);

    EXPECT_EQ(route.patterns[0].pattern, "/b/:id");
    EXPECT_EQ(route.settings, second);
}

TEST(PrimedRoute, IsRefusedWithoutItsKey)
{
    Route route("r", "get", std::vector<RoutePattern>{"a/", "/<k>", "b/"}, Access::Public);
    const auto settings = dictionary_of({});

    EXPECT_EQ(logged_and_thrown<tarn::Exception>([&] { route.prime(settings); }),
              "failed to prime route; key does not exist: k");
    EXPECT_EQ(route.settings, settings);
    EXPECT_EQ(route.patterns[0].pattern, "/a");
    EXPECT_EQ(route.patterns[2].pattern, "b/");
}

TEST(CompletePatterns, ArePathsThatNeedNoVariablesInOrder)
{
    const Route route("r", "get", std::vector<RoutePattern>{"/s/", "/a/(:id=1)", "/b/(:id)", ""},
                      Access::Public);

    EXPECT_EQ(route.complete_patterns(), (std::vector<std::string>{"/s/", "/a/1", "/b", ""}));
}

TEST(CompletePatterns, AreNoneOfARouteWithoutPatterns)
{
    EXPECT_TRUE(Route("r", "get", Access::Public).complete_patterns().empty());
}

TEST(CompletePatterns, LeaveOutWhatNeedsVariablesAndSaySo)
{
    const LogCapture log;
    slate::set_log_level(slate::DebugLevel);
    const Route route("r", "get", std::vector<RoutePattern>{"/a/:id", "/b", "/c/*"}, Access::Public);

    EXPECT_EQ(route.complete_patterns(), std::vector<std::string>{"/b"});

    EXPECT_TRUE(log.has(slate::DebugLevel, "no completion for pattern: /a/:id"));
    EXPECT_TRUE(log.has(slate::DebugLevel, "no completion for pattern: /c/*"));
    EXPECT_EQ(log.count(slate::DebugLevel, "no completion"), 2U);
}

// ---- without a runtime ----------------------------------------------------------------------------------

TEST(AddRoute, IsRefusedBeforeThereIsARuntime)
{
    const auto route = std::make_shared<Route>("status", "get", Access::Public);

    EXPECT_EQ(logged_and_thrown<tarn::Exception>([&] { tarn::add_route(route); }),
              "cannot add route: status; tarn not initialized");
}

TEST(DelRoute, OnlyWarnsBeforeThereIsARuntime)
{
    const LogCapture log;

    EXPECT_NO_THROW(tarn::del_route("status"));

    EXPECT_TRUE(log.has(slate::WarnLevel, "cannot del route: status; tarn not / no longer initialized"));
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST(ClearRoutes, OnlyWarnsBeforeThereIsARuntime)
{
    const LogCapture log;

    EXPECT_NO_THROW(tarn::clear_routes());

    EXPECT_TRUE(log.has(slate::WarnLevel, "cannot clear_routes; tarn not / no longer initialized"));
    EXPECT_EQ(log.lines().size(), 1U);
}
} // namespace
