// SPDX-License-Identifier: Apache-2.0
// Prints published changes as they arrive:
//
//   tarn_watch RELAY_OUT [PATH]
//
// RELAY_OUT is the endpoint where the relay serves its subscribers. With PATH, the program prints only the
// changes below that path. Runs until SIGINT or SIGTERM.

#include <algorithm>
#include <exception>
#include <iostream>

#include <tarn/tarn.h>

#include "termination_signal.h"

namespace {
/// Whether a terminal can show the body. A body need not declare whether it is text.
bool is_printable(const std::string& body)
{
    return slate::is_utf8(body) &&
           std::none_of(body.begin(), body.end(), [](char c) { return c >= 0 && c < ' ' && c != '\t'; });
}

class WatchRoute : public tarn::Route {
public:
    explicit WatchRoute(const tarn::RoutePattern& paths) : Route("watch", "", paths, tarn::Access::Public) {}

    void put(tarn::Context& change) override
    {
        const tarn::Put& put = change.request.message->put();
        const std::string& body = put.body().has_bin() ? put.body().bin() : put.body().txt();
        std::cout << "put " << change.request.path() << " ";
        if (is_printable(body))
            std::cout << body;
        else
            std::cout << "(" << body.size() << " bytes)";
        std::cout << std::endl;
    }
    void del(tarn::Context& change) override { std::cout << "delete " << change.request.path() << std::endl; }
};
} // namespace

int main(int argc, char** argv)
{
    const auto relay_out = slate::make_uri(argc >= 2 ? argv[1] : "");
    if (!relay_out || argc > 3) {
        std::cerr << "usage: tarn_watch RELAY_OUT [PATH]\n";
        return 2;
    }
    const TerminationSignal termination;
    try {
        tarn::ZmqSubsystem subsystem;
        // The empty pattern matches every path. The pattern "/*" is not allowed: the first segment must be a
        // literal.
        const std::string paths = argc == 3 ? std::string(argv[2]) + "/*" : "";
        subsystem.add_subscriber(relay_out)->add(std::make_shared<WatchRoute>(paths));
        std::cout << "watching " << relay_out->to_string() << std::endl;
        termination.wait();
    }
    catch (const std::exception& error) {
        std::cerr << "tarn_watch: " << error.what() << "\n";
        return 1;
    }
}
