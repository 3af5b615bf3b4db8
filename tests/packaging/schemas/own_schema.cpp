// SPDX-License-Identifier: Apache-2.0
// Messages of the application and of tarn in one process: own_schema SOCKET.
#include <iostream>

#include <myapp/status.pb.h>
#include <tarn/tarn.h>

int main(int, char** argv)
{
    // Inline code of generated headers and the library mean the same default instances.
    const tarn::Message unset;
    const auto* const prototype =
        google::protobuf::MessageFactory::generated_factory()->GetPrototype(tarn::Head::descriptor());
    if (!unset.get().head().path().empty() || &unset.get().head() != prototype ||
        &unset.response().head() != prototype)
        return 1;

    slate::set_log_sinks({});
    tarn::ZmqSubsystem subsystem;
    const auto uri = slate::make_uri("ipc://" + std::string(argv[1]));
    const auto server = subsystem.add_server(uri);

    class StatusRoute : public tarn::Route {
    public:
        StatusRoute() : Route("status", "get", tarn::RoutePattern("/status"), tarn::Access::Public) {}
        void get(tarn::Context& context) const override
        {
            myapp::Status status;
            status.set_level(7);
            status.set_text("theirs");
            context.reply.set_reply_proto(status);
        }
    };
    server->add(std::make_shared<StatusRoute>());

    const auto reply = tarn::make_client(uri)->get("/status");
    const auto status = reply->into<myapp::Status>();
    if (reply->status() != tarn::Ok || status.text() != "theirs" ||
        status.ShortDebugString() != "level: 7 text: \"theirs\"" ||
        tarn::Status_Name(reply->status()) != "Ok" || reply->message->ShortDebugString().empty() ||
        tarn::Message::descriptor()->file()->name() != "message.proto")
        return 2;
    std::cout << "ours and theirs\n";
}
