// SPDX-License-Identifier: Apache-2.0
#include "tarn/routes/basic_route.h"

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "slate/log.h"
#include "slate/provider.h"
#include "support/counters.h"
#include "support/log_capture.h"
#include "tarn/exception.h"
#include "unit/tarn/messages.h"
#include "unit/tarn/thrown.h"

namespace {
using tarn::Access;
using tarn::Context;
using tarn::Format;
using tarn::Route;
using tarn::RoutePattern;
using tarn_test::LogCapture;
using tarn_test::logged_and_thrown;
using tarn_test::message_of;

Context context_of(const std::string& request)
{
    Context context;
    context.request.message = message_of(request);
    context.reply.message = message_of("response { status: NotFound }");
    return context;
}

Context put_of(const std::string& body)
{
    Context context = context_of(R"(put { head { path: "/v" } })");
    context.request.message->mutable_put()->mutable_body()->set_txt(body);
    return context;
}

Context post_of(const std::string& body)
{
    Context context = context_of(R"(post { head { path: "/v" } })");
    context.request.message->mutable_post()->mutable_body()->set_bin(body);
    return context;
}

// ---- the eight types ------------------------------------------------------------------------------------

template <class T>
using Factory = std::shared_ptr<Route> (*)(const std::string&, const std::string&, const RoutePattern&,
                                           const tarn::ValueGetter<T>&, const tarn::ValueSetter<T>&,
                                           const tarn::ValueDeleter&, Access);

/// The text that a get of a value replies with.
template <class T>
std::string text_of(Factory<T> make_route, T value)
{
    const auto route = make_route(
        "v", "get", "/v", [value](Context&) { return value; }, {}, {}, Access::Public);
    Context context = context_of(R"(get { head { path: "/v" } })");
    route->get(context);
    return context.reply.data();
}

/// Whether a put or post of a text reaches the setter with this value; the text of the refusal if not.
template <class T>
std::string written(Factory<T> make_route, void (Route::*method)(Context&), Context context, T expected)
{
    const LogCapture log;
    int calls = 0;
    T value{};
    const auto route = make_route(
        "v", "put,post", "/v", {},
        [&](Context&, T written_value) {
            ++calls;
            value = written_value;
        },
        {}, Access::Public);
    try {
        ((*route).*method)(context);
    }
    catch (const tarn::MessageException& error) {
        return calls == 0 && error.status == tarn::Status::BadRequest ? error.what() : "refused otherwise";
    }
    if (calls != 1)
        return "not set once";
    return value == expected ? "set" : "set to another value";
}

struct Reading {
    std::string name;
    std::function<std::string()> read;
    std::string text;

    friend std::ostream& operator<<(std::ostream& stream, const Reading& row) { return stream << row.name; }
};

class ReadValue : public testing::TestWithParam<Reading> {};

TEST_P(ReadValue, IsRepliedAsText)
{
    EXPECT_EQ(GetParam().read(), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Values, ReadValue,
    testing::Values(
        Reading{"True", [] { return text_of<bool>(tarn::make_bool_route, true); }, "true"},
        Reading{"False", [] { return text_of<bool>(tarn::make_bool_route, false); }, "false"},
        Reading{"Int32", [] { return text_of<int>(tarn::make_int32_route, -7); }, "-7"},
        Reading{"Int32Million", [] { return text_of<int>(tarn::make_int32_route, 1000000); }, "1000000"},
        Reading{"Int32Least", [] { return text_of<int>(tarn::make_int32_route, INT32_MIN); }, "-2147483648"},
        Reading{"Int64Least", [] { return text_of<std::int64_t>(tarn::make_int64_route, INT64_MIN); },
                "-9223372036854775808"},
        Reading{"Int64Most", [] { return text_of<std::int64_t>(tarn::make_int64_route, INT64_MAX); },
                "9223372036854775807"},
        Reading{"Uint32Most", [] { return text_of<unsigned int>(tarn::make_uint32_route, UINT32_MAX); },
                "4294967295"},
        Reading{"Uint64Most", [] { return text_of<std::uint64_t>(tarn::make_uint64_route, UINT64_MAX); },
                "18446744073709551615"},
        Reading{"FloatPi", [] { return text_of<float>(tarn::make_float_route, 3.14159265F); }, "3.14159"},
        Reading{"FloatMillion", [] { return text_of<float>(tarn::make_float_route, 1e6F); }, "1e+06"},
        Reading{"FloatTenth", [] { return text_of<float>(tarn::make_float_route, 0.1F); }, "0.1"},
        Reading{"DoublePi", [] { return text_of<double>(tarn::make_double_route, 3.14159265); }, "3.14159"},
        Reading{"DoubleTenth", [] { return text_of<double>(tarn::make_double_route, 0.1); }, "0.1"},
        Reading{"DoubleLarge", [] { return text_of<double>(tarn::make_double_route, 1234567.0); },
                "1.23457e+06"},
        Reading{"DoubleBelowAMillion", [] { return text_of<double>(tarn::make_double_route, 123456.0); },
                "123456"},
        Reading{"DoubleSmall", [] { return text_of<double>(tarn::make_double_route, 0.00001); }, "1e-05"},
        Reading{"DoubleZero", [] { return text_of<double>(tarn::make_double_route, 0.0); }, "0"},
        Reading{"DoubleNegative", [] { return text_of<double>(tarn::make_double_route, -2.50); }, "-2.5"},
        Reading{"Text", [] { return text_of<std::string>(tarn::make_string_route, " a text\n"); },
                " a text\n"},
        Reading{"EmptyText", [] { return text_of<std::string>(tarn::make_string_route, ""); }, ""},
        Reading{"TextWithAZero",
                [] { return text_of<std::string>(tarn::make_string_route, std::string("a\0b", 3)); },
                std::string("a\0b", 3)}),
    [](const auto& row) { return row.param.name; });

struct Writing {
    std::string name;
    std::string body;
    std::function<std::string(void (Route::*)(Context&), Context)> write;

    friend std::ostream& operator<<(std::ostream& stream, const Writing& row) { return stream << row.name; }
};

class WrittenValue : public testing::TestWithParam<Writing> {};

TEST_P(WrittenValue, IsSetByAPut)
{
    EXPECT_EQ(GetParam().write(&Route::put, put_of(GetParam().body)), "set");
}

TEST_P(WrittenValue, IsSetByAPost)
{
    EXPECT_EQ(GetParam().write(&Route::post, post_of(GetParam().body)), "set");
}

template <class T>
Writing writing(const std::string& name, const std::string& body, Factory<T> make_route, T expected)
{
    return {name, body, [=](void (Route::*method)(Context&), Context context) {
                return written<T>(make_route, method, std::move(context), expected);
            }};
}

INSTANTIATE_TEST_SUITE_P(
    Values, WrittenValue,
    testing::Values(
        writing<bool>("True", "true", tarn::make_bool_route, true),
        writing<bool>("False", "false", tarn::make_bool_route, false),
        writing<int>("Int32", "-7", tarn::make_int32_route, -7),
        writing<int>("Int32Least", "-2147483648", tarn::make_int32_route, INT32_MIN),
        writing<std::int64_t>("Int64Least", "-9223372036854775808", tarn::make_int64_route, INT64_MIN),
        writing<std::int64_t>("Int64Most", "9223372036854775807", tarn::make_int64_route, INT64_MAX),
        writing<unsigned int>("Uint32Most", "4294967295", tarn::make_uint32_route, UINT32_MAX),
        writing<std::uint64_t>("Uint64Most", "18446744073709551615", tarn::make_uint64_route, UINT64_MAX),
        writing<float>("Float", "0.25", tarn::make_float_route, 0.25F),
        writing<double>("Double", "0.1", tarn::make_double_route, 0.1),
        writing<double>("DoubleWithExponent", "-1.5e3", tarn::make_double_route, -1500.0),
        writing<std::string>("Text", " a text\n", tarn::make_string_route, " a text\n"),
        writing<std::string>("EmptyText", "", tarn::make_string_route, "")),
    [](const auto& row) { return row.param.name; });

class UnreadableValue : public testing::TestWithParam<Writing> {};

TEST_P(UnreadableValue, IsABadRequestAndNotSetByAPut)
{
    EXPECT_EQ(GetParam().write(&Route::put, put_of(GetParam().body)), "failed to write; cannot parse value");
}

TEST_P(UnreadableValue, IsABadRequestAndNotSetByAPost)
{
    EXPECT_EQ(GetParam().write(&Route::post, post_of(GetParam().body)),
              "failed to write; cannot parse value");
}

INSTANTIATE_TEST_SUITE_P(
    Values, UnreadableValue,
    testing::Values(writing<bool>("NoFlag", "maybe", tarn::make_bool_route, true),
                    writing<int>("NoNumber", "abc", tarn::make_int32_route, 0),
                    writing<int>("Empty", "", tarn::make_int32_route, 0),
                    writing<int>("MoreThanANumber", "7 apples", tarn::make_int32_route, 7),
                    // The body is taken as it is, with no trimming.
                    writing<int>("LineFeedBehind", "7\n", tarn::make_int32_route, 7),
                    writing<int>("BlankBefore", " 7", tarn::make_int32_route, 7),
                    writing<int>("Fraction", "7.5", tarn::make_int32_route, 7),
                    writing<int>("Int32TooLarge", "2147483648", tarn::make_int32_route, 0),
                    writing<std::int64_t>("Int64TooLarge", "9223372036854775808", tarn::make_int64_route, 0),
                    writing<unsigned int>("Uint32Negative", "-1", tarn::make_uint32_route, 0),
                    writing<unsigned int>("Uint32TooLarge", "4294967296", tarn::make_uint32_route, 0),
                    writing<std::uint64_t>("Uint64Negative", "-1", tarn::make_uint64_route, 0),
                    writing<std::uint64_t>("Uint64TooLarge", "18446744073709551616", tarn::make_uint64_route,
                                           0),
                    writing<float>("FloatTooLarge", "1e39", tarn::make_float_route, 0),
                    writing<double>("NoDouble", "1,5", tarn::make_double_route, 0)),
    [](const auto& row) { return row.param.name; });

// ---- one type for all -----------------------------------------------------------------------------------

TEST(ValueRoute, IsMadeFromItsArguments)
{
    const auto route = tarn::make_int32_route("v", "put,del", "/v/:id", {}, {}, {}, Access::Private);

    EXPECT_EQ(route->name, "v");
    EXPECT_TRUE(route->accepts_put);
    EXPECT_TRUE(route->accepts_del);
    EXPECT_FALSE(route->accepts_get);
    ASSERT_EQ(route->patterns.size(), 1U);
    EXPECT_EQ(route->patterns[0].pattern, "/v/:id");
    EXPECT_EQ(route->access, Access::Private);
    EXPECT_EQ(route->provider->name(), "route[v]");
}

TEST(ValueRoute, IsABasicRouteOfItsType)
{
    EXPECT_TRUE(std::dynamic_pointer_cast<tarn::BasicRoute<bool>>(tarn::make_bool_route("v", "", "/v", {})));
    EXPECT_TRUE(std::dynamic_pointer_cast<tarn::BasicRoute<int>>(tarn::make_int32_route("v", "", "/v", {})));
    EXPECT_TRUE(
        std::dynamic_pointer_cast<tarn::BasicRoute<std::int64_t>>(tarn::make_int64_route("v", "", "/v", {})));
    EXPECT_TRUE(std::dynamic_pointer_cast<tarn::BasicRoute<unsigned int>>(
        tarn::make_uint32_route("v", "", "/v", {})));
    EXPECT_TRUE(std::dynamic_pointer_cast<tarn::BasicRoute<std::uint64_t>>(
        tarn::make_uint64_route("v", "", "/v", {})));
    EXPECT_TRUE(
        std::dynamic_pointer_cast<tarn::BasicRoute<float>>(tarn::make_float_route("v", "", "/v", {})));
    EXPECT_TRUE(
        std::dynamic_pointer_cast<tarn::BasicRoute<double>>(tarn::make_double_route("v", "", "/v", {})));
    EXPECT_TRUE(
        std::dynamic_pointer_cast<tarn::BasicRoute<std::string>>(tarn::make_string_route("v", "", "/v", {})));
}

TEST(ValueRoute, NeedsOnlyAGetterAndIsPublicByDefault)
{
    const auto route = tarn::make_int32_route("v", "get", "/v", [](Context&) { return 1; });

    EXPECT_EQ(route->access, Access::Public);
}

TEST(ValueRoute, LeavesNoProviderBehindIfItIsRefused)
{
    const std::string refusal =
        logged_and_thrown<tarn::Exception>([] { (void)tarn::make_int32_route("v", "get,fly", "/v", {}); });

    EXPECT_EQ(refusal, "route[v] unknown method: fly");
    EXPECT_EQ(tarn_test::providers("route"), 0U);
}

TEST(ValueRoute, RepliesWithTextAndStatusOk)
{
    const auto route = tarn::make_int32_route("v", "get", "/v", [](Context&) { return -7; });
    Context context = context_of(R"(get { head { path: "/v" } })");

    route->get(context);

    EXPECT_TRUE(
        tarn_test::equal(*context.reply.message,
                         *message_of(R"(response { head { format: Text } status: Ok body { txt: "-7" } })")));
}

TEST(ValueRoute, AnswersHeadWithTheLengthOfItsText)
{
    int calls = 0;
    const auto route = tarn::make_int32_route("v", "get", "/v", [&](Context&) {
        ++calls;
        return -12345;
    });
    Context context = context_of(R"(head { path: "/v" })");

    route->head(context);

    EXPECT_EQ(calls, 1);
    EXPECT_EQ(context.reply.header("Content-Length", ""), "6");
    EXPECT_FALSE(context.reply.message->response().has_body());
}

TEST(ValueRoute, ShowsTheContextToItsFunctions)
{
    Context* seen = nullptr;
    const auto route = tarn::make_int32_route(
        "v", "get,put,del", "/v",
        [&](Context& context) {
            seen = &context;
            return 1;
        },
        [&](Context& context, int) { seen = &context; }, [&](Context& context) { seen = &context; });
    Context get = context_of("get {}");
    Context put = put_of("1");
    Context del = context_of("del {}");

    route->get(get);
    EXPECT_EQ(seen, &get);
    route->put(put);
    EXPECT_EQ(seen, &put);
    route->del(del);
    EXPECT_EQ(seen, &del);
}

TEST(ValueRoute, LeavesTheReplyOfAPutAlone)
{
    const auto route = tarn::make_int32_route("v", "put", "/v", {}, [](Context&, int) {});
    Context context = put_of("1");

    route->put(context);

    EXPECT_TRUE(tarn_test::equal(*context.reply.message, *message_of("response { status: NotFound }")));
}

TEST(ValueRoute, CallsItsDeleter)
{
    int calls = 0;
    const auto route = tarn::make_int32_route("v", "del", "/v", {}, {}, [&](Context&) { ++calls; });
    Context context = context_of("del {}");

    route->del(context);

    EXPECT_EQ(calls, 1);
}

TEST(ValueRoute, LogsAnUnreadableValueAsItsOwn)
{
    const LogCapture log;
    const auto route = tarn::make_int32_route("v", "put", "/v", {}, [](Context&, int) {});
    Context context = put_of("abc");

    EXPECT_THROW(route->put(context), tarn::MessageException);

    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].level, slate::ErrorLevel);
    EXPECT_EQ(log.lines()[0].provider, "route[v]");
    EXPECT_EQ(log.lines()[0].text, "failed to write; cannot parse value");
}

TEST(ValueRoute, MissesABodyBeforeItParses)
{
    int calls = 0;
    const auto route =
        tarn::make_string_route("v", "put", "/v", {}, [&](Context&, const std::string&) { ++calls; });
    Context put = context_of(R"(put { head { path: "/v" } })");
    Context post = context_of(R"(post { head { path: "/v" } })");

    EXPECT_EQ(logged_and_thrown<tarn::Exception>([&] { route->put(put); }), "Envelope::body does not exist");
    EXPECT_EQ(logged_and_thrown<tarn::Exception>([&] { route->post(post); }),
              "Envelope::body does not exist");
    EXPECT_EQ(calls, 0);
}

TEST(ValueRoute, ThrowsForAFunctionThatItNeedsAndLacks)
{
    const auto route = tarn::make_int32_route("v", "get,put,post,del", "/v", {}, {}, {});
    Context get = context_of("get {}");
    Context head = context_of("head {}");
    Context put = put_of("1");
    Context post = post_of("1");
    Context del = context_of("del {}");

    EXPECT_THROW(route->get(get), std::bad_function_call);
    EXPECT_THROW(route->head(head), std::bad_function_call);
    EXPECT_THROW(route->put(put), std::bad_function_call);
    EXPECT_THROW(route->post(post), std::bad_function_call);
    EXPECT_THROW(route->del(del), std::bad_function_call);
}

TEST(ValueRoute, ParsesBeforeItMissesItsSetter)
{
    const auto route = tarn::make_int32_route("v", "put", "/v", {}, {}, {});
    Context context = put_of("abc");

    EXPECT_EQ(logged_and_thrown<tarn::MessageException>([&] { route->put(context); }),
              "failed to write; cannot parse value");
}

TEST(ValueRoute, LetsWhatItsFunctionsThrowPass)
{
    const auto route = tarn::make_int32_route(
        "v", "get,put,del", "/v", [](Context&) -> int { throw std::runtime_error("getter"); },
        [](Context&, int) { throw tarn::MessageException(tarn::Status::Gone, "setter"); },
        [](Context&) { throw std::logic_error("deleter"); });
    Context get = context_of("get {}");
    Context put = put_of("1");
    Context del = context_of("del {}");

    EXPECT_EQ(tarn_test::silently_thrown<std::runtime_error>([&] { route->get(get); }), "getter");
    EXPECT_EQ(tarn_test::silently_thrown<tarn::MessageException>([&] { route->put(put); }), "setter");
    EXPECT_EQ(tarn_test::silently_thrown<std::logic_error>([&] { route->del(del); }), "deleter");
}

TEST(ValueRoute, CopiesItsFunctions)
{
    int calls = 0;
    tarn::ValueGetter<int> getter = [&](Context&) { return ++calls; };
    tarn::ValueSetter<int> setter = [&](Context&, int) { ++calls; };
    tarn::ValueDeleter deleter = [&](Context&) { ++calls; };
    const auto route = tarn::make_int32_route("v", "get,put,del", "/v", getter, setter, deleter);
    getter = nullptr;
    setter = nullptr;
    deleter = nullptr;
    Context get = context_of("get {}");
    Context put = put_of("1");
    Context del = context_of("del {}");

    route->get(get);
    route->put(put);
    route->del(del);

    EXPECT_EQ(calls, 3);
}

TEST(ValueRoute, LeavesTheRestToRoute)
{
    const auto settings = slate::make_dictionary();
    settings->set("where", "here");
    const auto route = tarn::make_int32_route("v", "get,put", "/<where>/(:id=7)", {});

    route->prime(settings);

    EXPECT_EQ(route->settings, settings);
    EXPECT_EQ(route->complete_patterns(), std::vector<std::string>{"/here/7"});
    EXPECT_FALSE(route->supports_chunked_transfer());
}

TEST(ValueRoute, IsNotFoundByAnotherProcessIfItIsPrivate)
{
    const LogCapture log; // puts the level back
    slate::set_log_level(slate::InfoLevel);
    const auto route = tarn::make_int32_route(
        "v", "get", "/v", [](Context&) { return 1; }, {}, {}, Access::Private);
    Context own = context_of(R"(get { head { path: "/v" from { pid: 100 } } })");
    Context other = context_of(R"(get { head { path: "/v" from { pid: 101 } } })");
    own.pid = other.pid = 100;

    EXPECT_TRUE(route->accept(own));
    EXPECT_FALSE(route->accept(other));
}
} // namespace
