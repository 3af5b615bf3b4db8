// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/transport/explain_silence.h"

#include <sys/stat.h>
#include <unistd.h>

#include "support/peers.h"
#include "support/runtime_test.h"

namespace {
using namespace tarn;
using namespace tarn_test;
using tarn_internal::explain_silence;
using tarn_internal::to_readable_text;

class ASilence : public RuntimeTest {
protected:
    std::shared_ptr<const slate::Uri> uri = scratch_endpoint();
    const std::string text = "no answer from " + uri->to_string() + " within 1.5 s: ";
    const slate::Duration waited = slate::Milliseconds(1500);
};

TEST_F(ASilence, OfASocketThatIsNotThere)
{
    const auto silence = explain_silence(uri, waited);
    EXPECT_EQ(silence.cause, LocalCause::NoSuchEndpoint);
    EXPECT_EQ(silence.text, text + "no such file");
}

TEST_F(ASilence, OfAHostThatHasOnlyANameIsNotLookedInto)
{
    const auto named = slate::make_uri("tcp://no-such-host.invalid:5555");
    const auto silence = explain_silence(named, waited);
    EXPECT_EQ(silence.cause, LocalCause::NoAnswerInTime);
    EXPECT_EQ(silence.text, "no answer from tcp://no-such-host.invalid:5555 within 1.5 s");
}

/// A socket of the system's, bound to a path.
int bind_to(const std::string& path)
{
    const int bound = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(bound, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return bound;
}

TEST_F(ASilence, OfASocketThatNobodyListensAt)
{
    close(bind_to(uri->address()));
    const auto silence = explain_silence(uri, waited);
    EXPECT_EQ(silence.cause, LocalCause::NoSuchEndpoint);
    EXPECT_EQ(silence.text, text + "nobody listens");
}

TEST_F(ASilence, OfAServerThatIsBusy)
{
    const SilentPeer peer(uri);
    const auto silence = explain_silence(uri, waited);
    EXPECT_EQ(silence.cause, LocalCause::NoAnswerInTime);
    EXPECT_EQ(silence.text, text + "somebody serves there, but doesn't answer");
}

TEST_F(ASilence, OfASocketThatMayNotBeUsed)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root may become another user";
    const int served = bind_to(uri->address());
    ASSERT_EQ(listen(served, 1), 0);
    ASSERT_EQ(chmod(uri->address().c_str(), 0600), 0);
    ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
    ASSERT_EQ(seteuid(65534), 0);
    const auto silence = explain_silence(uri, waited);
    ASSERT_EQ(seteuid(0), 0);
    close(served);
    EXPECT_EQ(silence.cause, LocalCause::NotAllowed);
    EXPECT_EQ(silence.text, text + "permission denied (mode 0600, group root)");
}

TEST_F(ASilence, OfATcpPort)
{
    zmq::context_t context;
    zmq::socket_t holder(context, zmq::socket_type::rep);
    holder.bind("tcp://127.0.0.1:*");
    const auto port = slate::make_uri(holder.get(zmq::sockopt::last_endpoint));
    EXPECT_EQ(explain_silence(port, waited).cause, LocalCause::NoAnswerInTime);
    holder.close();
    context.close();
    EXPECT_TRUE(
        wait_until([&] { return explain_silence(port, waited).cause == LocalCause::NoSuchEndpoint; }));
    EXPECT_EQ(explain_silence(port, waited).text,
              "no answer from " + port->to_string() + " within 1.5 s: nobody listens");
}

TEST_F(ASilence, OfWhatCannotBeLookedAt)
{
    const auto silence = explain_silence(slate::make_uri("inproc://x"), waited);
    EXPECT_EQ(silence.cause, LocalCause::NoAnswerInTime);
    EXPECT_EQ(silence.text, "no answer from inproc://x within 1.5 s");
}

TEST_F(ASilence, IsWhatAClientSaysAfterItsLastWait)
{
    const auto reply = make_client(uri, 2)->get("/x", nullptr, slate::Milliseconds(50));
    EXPECT_EQ(reply->status(), Status::RequestTimeout);
    EXPECT_EQ(reply->local_cause(), LocalCause::NoSuchEndpoint);
    const std::string why = "no answer from " + uri->to_string() + " within 150 ms: no such file";
    EXPECT_EQ(reply->status_message(), why);
    EXPECT_EQ(reply->why(), "no body: 408, " + why);
    const auto lines = logs.texts(slate::ErrorLevel);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_FALSE(lines[0].ends_with(why));
    EXPECT_FALSE(lines[1].ends_with(why));
    EXPECT_TRUE(lines[2].starts_with("request timeout; no reply to get {")) << lines[2];
    EXPECT_TRUE(lines[2].ends_with("; " + why)) << lines[2];
}

TEST_F(ASilence, IsWhatTheLogSaysBehindTheExceptionOfAMissingBody)
{
    const auto reply = make_client(uri, 0)->get("/x", nullptr, slate::Milliseconds(50));
    logs.clear();
    EXPECT_THROW((void)reply->data(), Exception);
    const auto lines = logs.texts(slate::ErrorLevel);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "Envelope::data does not exist");
    EXPECT_EQ(lines[1], "no body: 408, no answer from " + uri->to_string() + " within 50 ms: no such file");
}

TEST(AReadableTime, HasTheUnitThatSuitsIt)
{
    EXPECT_EQ(to_readable_text(slate::Milliseconds(0)), "0 ms");
    EXPECT_EQ(to_readable_text(slate::Milliseconds(999)), "999 ms");
    EXPECT_EQ(to_readable_text(slate::Seconds(12)), "12 s");
    EXPECT_EQ(to_readable_text(slate::Milliseconds(1500)), "1.5 s");
    EXPECT_EQ(to_readable_text(slate::Milliseconds(2025)), "2.025 s");
    EXPECT_EQ(to_readable_text(slate::Duration::positive_infinity()), "any time");
}
} // namespace
