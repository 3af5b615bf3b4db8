// SPDX-License-Identifier: Apache-2.0
// Uses one thing of each library and one of what is installed for those who build on the parts.
#include <iostream>

#include <slate/slate.h>
#include <tarn/internal/internal.h>
#include <tarn/tarn.h>

int main(int, char** argv)
{
    slate::set_log_sinks({});
    tarn::ZmqSubsystem subsystem;
    const auto uri = slate::make_uri("ipc://" + std::string(argv[1]));
    const auto server = subsystem.add_server(uri);
    server->add(tarn::make_string_route("state", "get", "/state",
                                        [](tarn::Context&) { return std::string("installed and at work"); }));

    const auto reply = tarn::make_client(uri)->get("/state");
    tarn::Stats stats;
    if (reply->bad() || tarn_internal::to_topic("/a/b") != "/a" ||
        tarn::to_binary(stats, slate::ErrorLevel) != "")
        return 1;
    std::cout << reply->data() << "\n";
}
