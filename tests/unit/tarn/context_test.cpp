// SPDX-License-Identifier: Apache-2.0
#include "tarn/context.h"

#include <chrono>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "tarn/exception.h"
#include "tarn/route.h"
#include "unit/tarn/messages.h"

namespace {
using tarn::Access;
using tarn::Context;
using tarn::MessageException;
using tarn::Route;
using tarn::RoutePattern;
using tarn::Status;
using tarn_test::message_of;

/// What a route of that pattern makes of a request in text form.
Context accepted(const RoutePattern& pattern, const std::string& request)
{
    Context context;
    context.request.message = message_of(request);
    if (!Route("name", "get,put,post,del", pattern, Access::Public).accept(context))
        throw std::runtime_error("the route does not accept " + request);
    return context;
}

Context get_at(const RoutePattern& pattern, const std::string& path)
{
    return accepted(pattern, R"(get { head { path: ")" + path + R"(" } })");
}

/// The text of the refusal that asking for a value ends in, which must be of status 400 and log nothing.
template <class Ask>
std::string refusal(Ask ask)
{
    const tarn_test::LogCapture log;
    try {
        ask();
    }
    catch (const MessageException& error) {
        if (error.status != Status::BadRequest)
            return "another status";
        return log.lines().empty() ? error.what() : "something was logged";
    }
    return "no refusal";
}

// ---- texts ----------------------------------------------------------------------------------------------

TEST(PathVariable, IsWhatTheRouteCaughtInThePath)
{
    const Context context = get_at("/user/:id/:part", "/user/42/name");

    EXPECT_EQ(context.variable("id"), "42");
    EXPECT_EQ(context.variable("part"), "name");
}

TEST(PathVariable, StaysUndecoded)
{
    EXPECT_EQ(get_at("/user/:id", "/user/a%20b+c").variable("id"), "a%20b+c");
}

TEST(PathVariable, IsFoundForEveryVerb)
{
    for (const std::string verb : {"get", "put", "post", "del"}) {
        const Context context = accepted("/user/:id", verb + R"( { head { path: "/user/42" } })");
        EXPECT_EQ(context.variable("id"), "42") << verb;
    }
    EXPECT_EQ(accepted("/user/:id", R"(head { path: "/user/42" })").variable("id"), "42");
}

TEST(PathVariable, IsNotHiddenByAHeaderOfItsName)
{
    const Context context = accepted("/user/:id", R"(get { head {
        path: "/user/42" headers { key: "id" value: "7" } } })");

    EXPECT_EQ(context.variable("id"), "42");
    EXPECT_EQ(context.variable<int>("id"), 42);
    EXPECT_EQ(context.params->get("id", ""), "7"); // there the header is stronger
}

TEST(PathVariable, IsNotHiddenByAParameterOfItsName)
{
    const Context context = accepted("/user/:id", R"(get { head {
        path: "/user/42" params { key: "id" value: "7" } } })");

    EXPECT_EQ(context.variable("id"), "42");
}

TEST(PathVariable, IsNotMadeUpByAHeaderOrAParameter)
{
    const Context context = accepted("/user/(:id)", R"(get { head {
        path: "/user" headers { key: "id" value: "7" } params { key: "id" value: "8" }
        headers { key: "other" value: "9" } } })");

    EXPECT_EQ(context.variable("id"), "");
    EXPECT_EQ(context.variable("id", "none"), "none");
    EXPECT_EQ(context.variable<int>("id", -1), -1);
    EXPECT_EQ(context.variable("other", "none"), "none");
    EXPECT_EQ(refusal([&] { (void)context.variable<int>("id"); }), R"(path variable "id" is missing)");
}

TEST(PathVariable, HasTheDefaultOfItsOptionalSegment)
{
    EXPECT_EQ(get_at("/user/(:id=42)", "/user").variable("id", "none"), "42");
    EXPECT_EQ(get_at("/user/(:id=42)", "/user/7").variable("id", "none"), "7");
    EXPECT_EQ(get_at("/user/(:id=42)", "/user").variable<int>("id"), 42);
    EXPECT_EQ(get_at("/user/(:id=42)", "/user").variable<int>("id", 7), 42);
}

TEST(PathVariable, IsAbsentWithItsOptionalSegment)
{
    const Context context = get_at("/user/(:id)", "/user");

    EXPECT_EQ(context.variable("id"), "");
    EXPECT_EQ(context.variable("id", "none"), "none");
}

TEST(PathVariable, IsComparedWithCase)
{
    EXPECT_EQ(get_at("/user/:id", "/user/42").variable("ID", "none"), "none");
}

TEST(PathVariable, OfANameThatStandsTwiceIsTheLastOneAsInTheParams)
{
    const Context context = get_at("/a/:x/:x", "/a/1/2");

    EXPECT_EQ(context.variable("x"), "2");
    EXPECT_EQ(context.variable<int>("x"), 2);
    EXPECT_EQ(context.params->get("x", ""), "2");
}

TEST(PathVariable, IsTheRestOfThePathForAGlob)
{
    EXPECT_EQ(get_at(RoutePattern("/files/*", {"file"}), "/files/a/b.txt").variable("file"), "a/b.txt");
    EXPECT_EQ(get_at("/files/*", "/files/a/b.txt").variable("*"), "a/b.txt");
}

TEST(PathVariable, IsNotInAStaticPattern)
{
    const Context context = get_at("/status/cpu", "/status/cpu");

    EXPECT_TRUE(context.variables.empty());
    EXPECT_EQ(context.variable("status", "none"), "none");
    EXPECT_EQ(context.variable("path_", "none"), "none"); // a key of the params, and no variable
    EXPECT_EQ(context.params->get("path_", ""), "/status/cpu");
}

TEST(PathVariable, IsThatOfThePatternWhichMatchesFirst)
{
    Context context;
    context.request.message = message_of(R"(get { head { path: "/b/2" } })");
    const Route route("name", "get", std::vector<RoutePattern>{"/a/:first", "/b/:second"}, Access::Public);

    ASSERT_TRUE(route.accept(context));

    EXPECT_EQ(context.variable("second"), "2");
    EXPECT_EQ(context.variable("first", "none"), "none");
}

TEST(PathVariable, OfAnEarlierRequestIsForgottenWhenAnotherIsAccepted)
{
    Context context = get_at("/user/(:id)", "/user/42");
    context.request.message = message_of(R"(get { head { path: "/user" } })");

    ASSERT_TRUE(Route("name", "get", "/user/(:id)", Access::Public).accept(context));

    EXPECT_EQ(context.variable("id", "none"), "none");
}

TEST(PathVariable, IsInNoContextThatNoRouteHasAccepted)
{
    EXPECT_EQ(Context().variable("id", "none"), "none");
    EXPECT_EQ(refusal([] { (void)Context().variable<int>("id"); }), R"(path variable "id" is missing)");
}

// ---- values ---------------------------------------------------------------------------------------------

TEST(TypedPathVariable, IsReadAsItsType)
{
    const Context context = get_at("/a/:i/:b/:d/:s", "/a/-42/true/2.5/text");

    EXPECT_EQ(context.variable<int>("i"), -42);
    EXPECT_TRUE(context.variable<bool>("b"));
    EXPECT_EQ(context.variable<double>("d"), 2.5);
    EXPECT_EQ(context.variable<std::string>("s"), "text");
    EXPECT_EQ(context.variable<std::string>("i"), "-42");
}

TEST(TypedPathVariable, IsPreferredToTheDefault)
{
    const Context context = get_at("/a/:i/:b/:d", "/a/42/0/2.5");

    EXPECT_EQ(context.variable<int>("i", 7), 42);
    EXPECT_FALSE(context.variable<bool>("b", true));
    EXPECT_EQ(context.variable<double>("d", 7.0), 2.5);
}

TEST(TypedPathVariable, IsTheDefaultIfItIsMissing)
{
    const Context context = get_at("/a/(:i)", "/a");

    EXPECT_EQ(context.variable<int>("i", 7), 7);
    EXPECT_TRUE(context.variable<bool>("i", true));
    EXPECT_EQ(context.variable<double>("i", 2.5), 2.5);
}

TEST(TypedPathVariable, IsRefusedIfItIsMissing)
{
    const Context context = get_at("/a/(:i)", "/a");
    const std::string text = R"(path variable "i" is missing)";

    EXPECT_EQ(refusal([&] { (void)context.variable<int>("i"); }), text);
    EXPECT_EQ(refusal([&] { (void)context.variable<bool>("i"); }), text);
    EXPECT_EQ(refusal([&] { (void)context.variable<std::string>("i"); }), text);
}

struct BadValue {
    std::string text;

    friend std::ostream& operator<<(std::ostream& stream, const BadValue& row) { return stream << row.text; }
};

class BadPathVariable : public testing::TestWithParam<BadValue> {
protected:
    const Context context_ = get_at("/a/:i", "/a/" + GetParam().text);
    const std::string refusal_ = R"(path variable "i" has a bad value: )" + GetParam().text;
};

TEST_P(BadPathVariable, IsRefusedWithItsNameAndValue)
{
    EXPECT_EQ(refusal([&] { (void)context_.variable<int>("i"); }), refusal_);
}

TEST_P(BadPathVariable, IsNotReplacedByTheDefault)
{
    EXPECT_EQ(refusal([&] { (void)context_.variable<int>("i", 7); }), refusal_);
}

INSTANTIATE_TEST_SUITE_P(Ints, BadPathVariable,
                         testing::Values(BadValue{"x"}, BadValue{"42x"}, BadValue{"4.2"}, BadValue{"%2042"},
                                         BadValue{"99999999999"}, BadValue{"-"}));

TEST(TypedPathVariable, IsRefusedForEachTypeThatCannotReadIt)
{
    const Context context = get_at("/a/:x", "/a/maybe");
    const std::string text = R"(path variable "x" has a bad value: maybe)";

    EXPECT_EQ(refusal([&] { (void)context.variable<bool>("x"); }), text);
    EXPECT_EQ(refusal([&] { (void)context.variable<double>("x"); }), text);
    EXPECT_EQ(refusal([&] { (void)context.variable<unsigned char>("x"); }), text);
    EXPECT_EQ(context.variable<std::string>("x"), "maybe");
}

TEST(TypedPathVariable, IsShownUpTo100BytesInItsRefusal)
{
    const std::string beginning = R"(path variable "x" has a bad value: )";
    const auto shown = [](const std::string& text) {
        const Context context = get_at("/a/:x", "/a/" + text);
        return refusal([&] { (void)context.variable<int>("x"); });
    };

    EXPECT_EQ(shown(std::string(100, 'v')), beginning + std::string(100, 'v'));
    EXPECT_EQ(shown(std::string(101, 'v')), beginning + std::string(100, 'v'));
    EXPECT_EQ(shown(std::string(100000, 'v')), beginning + std::string(100, 'v'));
}

/// The time that a request of that ttl leaves its handler, from its arrival on.
std::optional<std::chrono::steady_clock::duration> time_of(const std::string& ttl)
{
    Context context;
    context.request.message = message_of(R"(get { head { meta { key: "ttl" value: ")" + ttl + R"(" } } })");
    context.arrival = std::chrono::steady_clock::now();
    const auto deadline = context.deadline();
    return deadline ? std::optional(*deadline - *context.arrival) : std::nullopt;
}

TEST(TheDeadlineOfAContext, IsTheTtlAfterTheArrival)
{
    using namespace std::chrono_literals;
    EXPECT_EQ(time_of("4s"), 4s);
    EXPECT_EQ(time_of("250ms"), 250ms);
    EXPECT_EQ(time_of("0s"), 0s);
    EXPECT_EQ(time_of("-1s"), 0s);
}

TEST(TheDeadlineOfAContext, IsNoneForACallerThatWaitsForEverOrDoesNotTell)
{
    EXPECT_EQ(time_of("inf"), std::nullopt);
    EXPECT_EQ(time_of("uninitialized"), std::nullopt);
    EXPECT_EQ(time_of("9000000000s"), std::nullopt); // 285 years
    EXPECT_EQ(time_of(""), std::nullopt);
    EXPECT_EQ(time_of("soon"), std::nullopt);
}

TEST(TheDeadlineOfAContext, IsNoneWithoutARequestOrAnArrival)
{
    Context context;
    EXPECT_EQ(context.deadline(), std::nullopt);
    context.arrival = std::chrono::steady_clock::now();
    EXPECT_EQ(context.deadline(), std::nullopt);
    context.request.message = message_of("call { }");
    EXPECT_EQ(context.deadline(), std::nullopt);
    context.arrival.reset();
    context.request.message = message_of(R"(get { head { meta { key: "ttl" value: "4s" } } })");
    EXPECT_EQ(context.deadline(), std::nullopt);
}
} // namespace
