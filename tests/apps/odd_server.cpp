// SPDX-License-Identifier: Apache-2.0
// A server with what no example has, for the tests: odd_server SOCKET. It answers the remote call 200, and
// refuses every request to "/refusal" with a body and with a text that is out to deceive. Runs until it is
// killed.

#include <iostream>

#include <unistd.h>

#include <google/protobuf/wrappers.pb.h>
#include <tarn/tarn.h>

namespace {
class RefusalRoute : public tarn::Route {
public:
    RefusalRoute() : Route("refusal", "get,put", "/refusal", tarn::Access::Public) {}

    void get(tarn::Context& context) const override { refuse(context); }
    void put(tarn::Context& context) override { refuse(context); }

private:
    static void refuse(tarn::Context& context)
    {
        context.reply.set_reply_json("{\"field\": \"name\"}");
        context.reply.set_status(tarn::Status::Conflict, "no\x1b[31m\nfaked line");
    }
};
} // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
        return 2;
    tarn::ZmqSubsystem subsystem;
    const auto server = subsystem.add_server(slate::make_uri("ipc://" + std::string(argv[1])));
    server->suppress_add_remote_call_warning();
    server->add(std::make_shared<RefusalRoute>());
    server->add(200, [](tarn::Message& message) {
        google::protobuf::StringValue value;
        value.set_value("answer");
        auto* result = message.mutable_call()->mutable_result();
        result->set_status(tarn::Status::Ok);
        result->add_value()->PackFrom(value);
        auto* other = result->add_value();
        other->set_type_url("type.googleapis.com/unknown.Kind");
        other->set_value("abc");
    });
    std::cout << "serving" << std::endl;
    for (;;)
        pause();
}
