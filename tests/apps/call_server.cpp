// SPDX-License-Identifier: Apache-2.0
// A server with one remote call, number 200, for the tests: call_server SOCKET. Runs until it is killed.

#include <iostream>
#include <unistd.h>

#include <google/protobuf/wrappers.pb.h>
#include <tarn/tarn.h>

int main(int argc, char** argv)
{
    if (argc != 2)
        return 2;
    tarn::ZmqSubsystem subsystem;
    const auto server = subsystem.add_server(slate::make_uri("ipc://" + std::string(argv[1])));
    server->suppress_add_remote_call_warning();
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
