// SPDX-License-Identifier: Apache-2.0
#include "tarn/routes/index_route.h"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "unit/tarn/messages.h"

namespace {
using tarn::Access;
using tarn::Context;
using tarn::Format;
using tarn::IndexRoute;
using tarn::IndexRouteBase;
using tarn::Route;
using tarn::RoutePattern;
using tarn::RoutingDetails;
using tarn_test::equal;
using tarn_test::message_of;

std::shared_ptr<const Route> route_of(const std::string& name, const std::string& methods,
                                      const std::vector<RoutePattern>& patterns,
                                      Access access = Access::Public)
{
    return std::make_shared<Route>(name, methods, patterns, access);
}

/// An index with routes that live as long as it.
class IndexTest : public testing::Test {
protected:
    void list(std::vector<std::shared_ptr<const Route>> routes)
    {
        routes_ = std::move(routes);
        index_->init(routes_);
    }

    /// The reply to a get of "/index" with more in its head, as a server would bring it about.
    tarn::Reply reply_to(const std::string& head = "") const
    {
        Context context;
        context.request.message = message_of(R"(get { head { path: "/index" )" + head + " } }");
        context.reply.message = message_of("response { status: NotFound }");
        EXPECT_TRUE(index_->accept(context));
        index_->get(context);
        return context.reply;
    }

    RoutingDetails details(const std::string& head = "") const
    {
        return reply_to("format: Proto " + head).into<RoutingDetails>();
    }

    std::string text(const std::string& head = "") const { return reply_to(head).data(); }

    std::shared_ptr<IndexRoute> index_ = std::make_shared<IndexRoute>();
    std::vector<std::shared_ptr<const Route>> routes_;
};

class Index : public IndexTest {};

TEST_F(Index, IsAPublicRouteForGetAndHead)
{
    EXPECT_EQ(index_->name, "index");
    ASSERT_EQ(index_->patterns.size(), 1U);
    EXPECT_EQ(index_->patterns[0].pattern, "/index");
    EXPECT_EQ(index_->access, Access::Public);
    EXPECT_TRUE(index_->accepts_get);
    EXPECT_TRUE(index_->accepts_head);
    EXPECT_FALSE(index_->accepts_put);
    EXPECT_FALSE(index_->accepts_post);
    EXPECT_FALSE(index_->accepts_del);
}

TEST_F(Index, IsEmptyAtFirstAndDoesNotEvenListItself)
{
    const tarn::Reply reply = reply_to();

    EXPECT_EQ(reply.data(), "");
    EXPECT_EQ(reply.format(), Format::Text);
    EXPECT_EQ(reply.status(), tarn::Status::Ok);
}

TEST_F(Index, ListsItselfAndARoute)
{
    list({index_, route_of("status", "get", {"/status"})});

    EXPECT_EQ(text(), "public  HEAD,GET   \"/index\"\n"
                      "public  HEAD,GET   \"/status\"");
}

TEST_F(Index, ListsRoutesOfAllKinds)
{
    list({index_, route_of("status", "get,put", {"/status"}),
          route_of("cache", "del", {"/cache/:id"}, Access::Private)});

    EXPECT_EQ(text(), "private DEL            \"/cache/:id\"\n"
                      "public  HEAD,GET       \"/index\"\n"
                      "public  HEAD,GET,PUT   \"/status\"");
}

TEST_F(Index, NamesTheVerbsInAFixedOrder)
{
    list({route_of("all", "del,post,put,get,head", {"/all"})});

    EXPECT_EQ(text(), "public  HEAD,GET,PUT,POST,DEL   \"/all\"");
    EXPECT_TRUE(equal(details(), *message_of<RoutingDetails>(
                                     R"(details { methods: Head methods: Get methods: Put methods: Post
                                        methods: Del patterns: "/all" access: Public })")));
}

TEST_F(Index, ListsARouteThatTakesNoVerb)
{
    list({route_of("none", "", {"/none"}), route_of("put", "put", {"/put"})});

    EXPECT_EQ(text(), "public        \"/none\"\n"
                      "public  PUT   \"/put\"");
}

TEST_F(Index, SortsRowsByPatternAndNotByRoute)
{
    list({route_of("1", "get", {"/b"}), route_of("2", "get", {"/a"}), route_of("3", "get", {"/B", "/a/b"})});

    EXPECT_EQ(text(), "public  HEAD,GET   \"/B\"\n"
                      "public  HEAD,GET   \"/a\"\n"
                      "public  HEAD,GET   \"/a/b\"\n"
                      "public  HEAD,GET   \"/b\"");
}

TEST_F(Index, SortsRowsByBytesAndNotByLocale)
{
    list({route_of("1", "put", {"/\xC3\xA4", "/z", "/_", "/Z"})});

    EXPECT_EQ(text(), "public  PUT   \"/Z\"\n"
                      "public  PUT   \"/_\"\n"
                      "public  PUT   \"/z\"\n"
                      "public  PUT   \"/\xC3\xA4\"");
}

TEST_F(Index, KeepsEveryRowOfAnEqualPattern)
{
    list({route_of("1", "put", {"/a"}), route_of("2", "put", {"/a"})});

    EXPECT_EQ(text(), "public  PUT   \"/a\"\n"
                      "public  PUT   \"/a\"");
}

TEST_F(Index, IsAsWideAsTheLongestVerbsEvenIfTheySortLast)
{
    list({route_of("1", "put", {"/a"}), route_of("2", "get,post", {"/z"})});

    EXPECT_EQ(text(), "public  PUT             \"/a\"\n"
                      "public  HEAD,GET,POST   \"/z\"");
}

TEST_F(Index, TakesNoWidthFromARouteWithoutRow)
{
    list({route_of("1", "put", {"/a"}), route_of("2", "get,post,put,del", {})});

    EXPECT_EQ(text(), "public  PUT   \"/a\"");
}

TEST_F(Index, GivesTwoRowsOrOneDetailToARouteOfTwoPatterns)
{
    list({route_of("two", "put", {"/b", "/a/:id"}, Access::Private)});

    EXPECT_EQ(text(), "private PUT   \"/a/:id\"\n"
                      "private PUT   \"/b\"");
    EXPECT_TRUE(equal(details(), *message_of<RoutingDetails>(
                                     R"(details { methods: Put patterns: "/b" patterns: "/a/:id"
                                        access: Private })")));
}

TEST_F(Index, GivesNoRowButADetailToARouteWithoutPatterns)
{
    list({route_of("none", "put", {})});

    EXPECT_EQ(text(), "");
    EXPECT_TRUE(equal(details(), *message_of<RoutingDetails>("details { methods: Put access: Public }")));
}

TEST_F(Index, ListsDetailsInTheOrderOfRoutes)
{
    list({route_of("1", "put", {"/b"}), route_of("2", "del", {"/a"})});

    EXPECT_TRUE(
        equal(details(), *message_of<RoutingDetails>(R"(details { methods: Put patterns: "/b" access: Public }
                                                     details { methods: Del patterns: "/a" access: Public })")));
}

TEST_F(Index, ListsPatternsAsTheyAreOnceTheyArePrimed)
{
    const auto route = std::make_shared<Route>("r", "put", RoutePattern("/a/<k>/(:id=1)"), Access::Public);
    list({route});
    EXPECT_EQ(text(), "public  PUT   \"/a/<k>/(:id=1)\"");

    route->prime(tarn_test::dictionary_of({{"k", "b"}}));

    EXPECT_EQ(text(), "public  PUT   \"/a/b/:id\"");
}

TEST_F(Index, SkipsARouteThatIsGone)
{
    list({route_of("1", "put", {"/a"}), route_of("2", "put", {"/b"})});

    routes_.erase(routes_.begin());

    EXPECT_EQ(text(), "public  PUT   \"/b\"");
    EXPECT_EQ(details().details_size(), 1);
}

TEST_F(Index, KeepsNoRouteAlive)
{
    list({route_of("1", "put", {"/a"})});
    const std::weak_ptr<const Route> route = routes_[0];

    routes_.clear();

    EXPECT_TRUE(route.expired());
}

TEST_F(Index, ForgetsOldRoutesWhenItGetsNewOnes)
{
    list({route_of("1", "put", {"/a"})});
    const auto kept = routes_;

    list({route_of("2", "put", {"/b"})});

    EXPECT_EQ(text(), "public  PUT   \"/b\"");
    EXPECT_EQ(index_->routes.size(), 1U);
}

TEST_F(Index, AnswersHeadWithItsLength)
{
    list({route_of("1", "put", {"/a"})});
    Context context;
    context.request.message = message_of(R"(head { path: "/index" })");
    context.reply.message = message_of("response {}");
    ASSERT_TRUE(index_->accept(context));

    index_->head(context);

    EXPECT_EQ(context.reply.header("Content-Length", ""), std::to_string(text().size()));
    EXPECT_FALSE(context.reply.message->response().has_body());
}

// ---- complete -------------------------------------------------------------------------------------------

class CompleteIndex : public IndexTest {
protected:
    CompleteIndex()
    {
        list({route_of("1", "put", {"/a/:id", "/b/(:id=1)", "/c"}), route_of("2", "del", {"/d/:id"})});
    }

    static constexpr const char* complete = "public  PUT   \"/b/1\"\n"
                                            "public  PUT   \"/c\"";
    static constexpr const char* as_written = "public  PUT   \"/a/:id\"\n"
                                              "public  PUT   \"/b/(:id=1)\"\n"
                                              "public  PUT   \"/c\"\n"
                                              "public  DEL   \"/d/:id\"";
};

TEST_F(CompleteIndex, ListsPathsThatNeedNoVariables)
{
    EXPECT_EQ(text(R"(params { key: "complete" value: "true" })"), complete);
}

TEST_F(CompleteIndex, KeepsTheDetailOfARouteWithoutSuchPaths)
{
    EXPECT_TRUE(equal(details(R"(params { key: "complete" value: "true" })"),
                      *message_of<RoutingDetails>(
                          R"(details { methods: Put patterns: "/b/1" patterns: "/c" access: Public }
                             details { methods: Del access: Public })")));
}

TEST_F(CompleteIndex, IsNotWhatIsGivenWithoutBeingAskedFor)
{
    EXPECT_EQ(text(), as_written);
}

TEST_F(CompleteIndex, IsNotGivenForFalseOrForWhatIsNotAFlag)
{
    EXPECT_EQ(text(R"(params { key: "complete" value: "false" })"), as_written);
    EXPECT_EQ(text(R"(params { key: "complete" value: "0" })"), as_written);
    EXPECT_EQ(text(R"(params { key: "complete" value: "maybe" })"), as_written);
    EXPECT_EQ(text(R"(params { key: "complete" })"), as_written);
}

class CompleteHeader : public CompleteIndex, public testing::WithParamInterface<std::string> {};

TEST_P(CompleteHeader, CountsWhateverItsCase)
{
    EXPECT_EQ(text("headers { key: \"" + GetParam() + R"(" value: "true" })"), complete);
}

TEST_P(CompleteHeader, IsStrongerThanTheParameter)
{
    EXPECT_EQ(text(R"(params { key: "complete" value: "true" } headers { key: ")" + GetParam() +
                   R"(" value: "false" })"),
              as_written);
}

INSTANTIATE_TEST_SUITE_P(Keys, CompleteHeader, testing::Values("complete", "Complete", "COMPLETE"),
                         [](const auto& row) { return row.param; });

TEST_F(CompleteIndex, GoesByTheLastOfSeveralHeaders)
{
    EXPECT_EQ(text(R"(headers { key: "Complete" value: "false" } headers { key: "COMPLETE" value: "true" })"),
              complete);
    EXPECT_EQ(text(R"(headers { key: "Complete" value: "true" } headers { key: "COMPLETE" value: "false" })"),
              as_written);
}

TEST_F(CompleteIndex, DoesNotTakeOtherHeadersForIt)
{
    EXPECT_EQ(text(R"(headers { key: "X-Complete" value: "true" } headers { key: "complet" value: "true" })"),
              as_written);
}

// A route's own idea of its complete paths counts.
class RouteWithPathsOfItsOwn : public Route {
public:
    RouteWithPathsOfItsOwn() : Route("own", "put", RoutePattern("/own/:id"), Access::Public) {}
    std::vector<std::string> complete_patterns() const override { return {"/own/2", "/own/1"}; }
};

TEST_F(CompleteIndex, AsksRoutesForTheirOwnPathsAndKeepsTheirOrder)
{
    list({std::make_shared<RouteWithPathsOfItsOwn>()});

    EXPECT_TRUE(
        equal(details(R"(params { key: "complete" value: "true" })"),
              *message_of<RoutingDetails>(
                  R"(details { methods: Put patterns: "/own/2" patterns: "/own/1" access: Public })")));
}

// ---- render ---------------------------------------------------------------------------------------------

struct Rendering {
    std::string head;
    Format format;

    friend std::ostream& operator<<(std::ostream& stream, const Rendering& row) { return stream << row.head; }
};

class RenderedIndex : public testing::TestWithParam<Rendering> {};

TEST_P(RenderedIndex, IsOfTheFirstFormatThatItKnows)
{
    Context context;
    context.request.message = message_of("get { head { " + GetParam().head + " } }");
    context.reply.message = message_of("response { status: NotFound }");

    IndexRouteBase::render(
        context, *message_of<RoutingDetails>(R"(details { methods: Put patterns: "/a" access: Private })"));

    EXPECT_EQ(context.reply.status(), tarn::Status::Ok);
    EXPECT_EQ(context.reply.format(), GetParam().format);
    const tarn::Body& body = context.reply.body();
    switch (GetParam().format) {
    case Format::Json:
        EXPECT_EQ(body.txt(), "{\n"
                              " \"details\": [\n"
                              "  {\n"
                              "   \"methods\": [\n"
                              "    \"Put\"\n"
                              "   ],\n"
                              "   \"patterns\": [\n"
                              "    \"/a\"\n"
                              "   ],\n"
                              "   \"access\": \"Private\"\n"
                              "  }\n"
                              " ]\n"
                              "}\n");
        break;
    case Format::Proto:
        EXPECT_EQ(body.bin(), "\x0A\x09\x0A\x01\x01\x12\x02/a\x18\x01");
        break;
    default:
        EXPECT_EQ(body.txt(), "private PUT   \"/a\"");
    }
}

INSTANTIATE_TEST_SUITE_P(
    Requests, RenderedIndex,
    testing::Values(
        Rendering{"", Format::Text}, Rendering{"format: Json", Format::Json},
        Rendering{"format: Proto", Format::Proto}, Rendering{"format: Bin", Format::Proto},
        Rendering{"format: Text", Format::Text}, Rendering{"format: Html", Format::Text},
        Rendering{"format: Any", Format::Text},
        Rendering{R"(headers { key: "accept" value: "application/octet-stream" })", Format::Proto},
        Rendering{R"(headers { key: "accept" value: "text/html" })", Format::Text},
        Rendering{R"(headers { key: "accept" value: "application/xml,application/json" })", Format::Json},
        Rendering{R"(headers { key: "accept" value: "text/plain,application/json" })", Format::Text},
        Rendering{R"(headers { key: "accept" value: "json;q=0.5,proto;q=0.9" })", Format::Proto},
        Rendering{R"(headers { key: "accept" value: "text/html,image/png,proto,json" })", Format::Proto},
        // The format of the head comes first.
        Rendering{R"(format: Text headers { key: "accept" value: "json" })", Format::Text},
        Rendering{R"(format: Html headers { key: "accept" value: "json" })", Format::Json}));

TEST(RenderedIndex, IsEmptyWithoutDetails)
{
    Context context;
    context.request.message = message_of("get {}");
    context.reply.message = message_of("response {}");

    IndexRouteBase::render(context, RoutingDetails());

    EXPECT_TRUE(context.reply.body().has_txt());
    EXPECT_EQ(context.reply.data(), "");
}

TEST(RenderedIndex, NamesVerbsThatNoRouteHas)
{
    Context context;
    context.request.message = message_of("get {}");
    context.reply.message = message_of("response {}");

    IndexRouteBase::render(context, *message_of<RoutingDetails>(
                                        R"(details { methods: Patch methods: Options patterns: "/a" })"));

    EXPECT_EQ(context.reply.data(), "public  PATCH,OPTIONS   \"/a\"");
}
} // namespace
