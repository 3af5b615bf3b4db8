// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/server/remote_calls.h"

#include <future>

#include "support/server_kinds.h"

namespace {
using namespace std::chrono_literals;
using namespace tarn;
using namespace tarn_test;

class ARemoteCall : public ServerTest {
protected:
    Message call(std::optional<unsigned int> number)
    {
        Message message;
        message.mutable_call()->mutable_params()->add_param()->set_value("argument");
        if (number)
            message.mutable_call()->mutable_select()->set_method_number(*number);
        return exchange(message);
    }

    Call::Result result(std::optional<unsigned int> number) { return call(number).call().result(); }

    /// A function that leaves a mark in the result.
    static std::function<void(Message&)> marking(const std::string& mark)
    {
        return [mark](Message& message) {
            message.mutable_call()->mutable_result()->add_value()->set_value(mark);
        };
    }

    std::shared_ptr<Server> server = make({uri});
};
INSTANTIATE_SERVER_KINDS(ARemoteCall);

TEST_P(ARemoteCall, IsAnsweredByTheCallItselfWithItsResult)
{
    server->add(7u, [](Message& message) {
        *message.mutable_call()->mutable_result()->add_value() = message.call().params().param(0);
    });

    const Message answer = call(7);

    EXPECT_EQ(answer.call().select().method_number(), 7u);
    EXPECT_EQ(answer.call().params().param(0).value(), "argument");
    ASSERT_EQ(answer.call().result().value_size(), 1);
    EXPECT_EQ(answer.call().result().value(0).value(), "argument");
    EXPECT_EQ(answer.call().result().status(), Status::Ok);
    EXPECT_EQ(answer.call().result().status_message(), "");
    EXPECT_TRUE(will_have_counted("rx", 1));
    EXPECT_TRUE(will_have_counted("tx", 1));
    EXPECT_EQ(counted("err"), 0u);
}

TEST_P(ARemoteCall, SucceedsWhateverStatusTheFunctionWrote)
{
    server->add(1u, [](Message& message) {
        message.mutable_call()->mutable_result()->set_status(Status::InternalServerError);
        message.mutable_call()->mutable_result()->set_status_message("overwritten");
    });
    EXPECT_EQ(result(1).status(), Status::Ok);
    EXPECT_EQ(result(1).status_message(), "");
}

TEST_P(ARemoteCall, SucceedsAlsoIfTheFunctionMakesNoResult)
{
    server->add(1u, [](Message&) {});
    const Message answer = call(1);
    EXPECT_TRUE(answer.call().has_result());
    EXPECT_EQ(answer.call().result().status(), Status::Ok);
}

TEST_P(ARemoteCall, NeedsASelection)
{
    const auto missing = result(std::nullopt);
    EXPECT_EQ(missing.status(), Status::BadRequest);
    EXPECT_EQ(missing.status_message(), "missing method selection");
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "missing method selection"));

    // An empty selection is number 0, a number like any other.
    server->add(0u, marking("zero"));
    Message message;
    message.mutable_call()->mutable_select();
    EXPECT_EQ(exchange(message).call().result().value(0).value(), "zero");
}

TEST_P(ARemoteCall, OfAnUnknownNumberIsNotFound)
{
    for (const unsigned int number : {0u, 99u, 100u, 4000000000u}) {
        EXPECT_EQ(result(number).status(), Status::NotFound);
        EXPECT_EQ(result(number).status_message(), "method not found");
    }
    EXPECT_EQ(logs.count(slate::ErrorLevel, "method not found"), 8u);
    EXPECT_EQ(counted("err"), 0u);
}

TEST_P(ARemoteCall, FailsAsItsFunctionSays)
{
    server->add(1u, [](Message&) { throw MessageException(Status::Forbidden, "not you"); });
    server->add(2u, [](Message&) { throw std::runtime_error("broken"); });
    server->add(3u, [](Message&) { throw 42; });
    logs.clear();

    EXPECT_EQ(result(1).status(), Status::Forbidden);
    EXPECT_EQ(result(1).status_message(), "not you");
    EXPECT_TRUE(logs.lines().empty());
    EXPECT_EQ(result(2).status(), Status::InternalServerError);
    EXPECT_EQ(result(2).status_message(), "broken");
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "InternalServerError; broken"));
    EXPECT_EQ(result(3).status(), Status::InternalServerError);
    EXPECT_EQ(result(3).status_message(), "unknown exception");
    EXPECT_EQ(counted("err"), 0u);
}

TEST_P(ARemoteCall, KeepsTheFirstFunctionOfANumberBelowAHundred)
{
    server->add(5u, marking("first"));
    try {
        server->add(5u, marking("second"));
        FAIL() << "a taken number was given away";
    }
    catch (const Exception& error) {
        EXPECT_STREQ(error.what(), "duplicate lookup table index: 5");
    }
    EXPECT_EQ(result(5).value(0).value(), "first");
    EXPECT_EQ(logs.count(slate::WarnLevel, "using remote calls; consider using routes instead"), 1u);
    server->del(5u);
    server->add(5u, marking("third"));
    EXPECT_EQ(result(5).value(0).value(), "third");
}

TEST_P(ARemoteCall, QueuesFurtherFunctionsOfANumberFromAHundredUp)
{
    server->add(100u, marking("first"));
    server->add(100u, marking("second"));
    EXPECT_EQ(result(100).value(0).value(), "first");
    server->del(100u);
    EXPECT_EQ(result(100).value(0).value(), "second");
    server->del(100u);
    server->del(100u);
    EXPECT_EQ(result(100).status(), Status::NotFound);
}

TEST_P(ARemoteCall, IsDiscouragedByAWarningEachTimeUnlessItIsSuppressed)
{
    server->add(1u, marking(""));
    server->add(2u, marking(""));
    EXPECT_EQ(logs.count(slate::WarnLevel, "using remote calls; consider using routes instead"), 2u);
    server->suppress_add_remote_call_warning();
    server->add(3u, marking(""));
    EXPECT_EQ(logs.count(slate::WarnLevel, "using remote calls; consider using routes instead"), 2u);
}

TEST_P(ARemoteCall, IsLoggedAsItComesAndGoes)
{
    slate::set_log_level(slate::DebugLevel);
    server->add(42u, marking(""));
    server->del(42u);
    server->del(43u);
    EXPECT_TRUE(logs.has(slate::DebugLevel, "add remote call: 42"));
    EXPECT_TRUE(logs.has(slate::DebugLevel, "del remote call: 42"));
    EXPECT_TRUE(logs.has(slate::DebugLevel, "del remote call: 43"));
}

TEST_P(ARemoteCall, IsGoneWhenTheServerIsCleared)
{
    server->add(1u, marking(""));
    server->add(1000u, marking(""));
    server->clear();
    EXPECT_EQ(result(1).status(), Status::NotFound);
    EXPECT_EQ(result(1000).status(), Status::NotFound);
}

TEST_P(ARemoteCall, CanBeDeletedFromAnotherThreadWhileItRuns)
{
    std::promise<void> entered;
    std::promise<void> go;
    server->add(1u, [&](Message& message) {
        entered.set_value();
        go.get_future().wait();
        marking("done")(message);
    });
    auto answer = std::async(std::launch::async, [&] { return result(1); });
    entered.get_future().wait();

    auto deletion = std::async(std::launch::async, [&] { server->del(1u); });
    // The one kind waits for the function, the other has released its lock.
    if (GetParam().workers == 1)
        EXPECT_EQ(deletion.wait_for(100ms), std::future_status::timeout);
    else
        deletion.wait();
    go.set_value();

    EXPECT_EQ(answer.get().value(0).value(), "done");
    deletion.wait();
    EXPECT_EQ(result(1).status(), Status::NotFound);
}

/// Uses the server when it goes, as the captures of a function may.
class LastWords {
public:
    explicit LastWords(Server& server) : server_(server) {}
    ~LastWords() { server_.del(77u); }

private:
    Server& server_;
};

TEST_P(ARemoteCall, MayUseTheServerAlsoWhenItsFunctionIsDestroyed)
{
    for (const unsigned int number : {1u, 1000u}) {
        server->add(number, [words = std::make_shared<LastWords>(*server)](Message&) {});
        server->del(number);
    }
    server->add(1u, [words = std::make_shared<LastWords>(*server)](Message&) {});
    server->clear();
    EXPECT_EQ(result(1).status(), Status::NotFound);
}
} // namespace
