// SPDX-License-Identifier: Apache-2.0
// Prints published changes as they come:
//
//   tarn_watch PUB [PATH]
//
// PUB is where a relay puts them out; without PATH all of them, otherwise those below it. Runs until SIGINT
// or SIGTERM.

#include <algorithm>
#include <exception>
#include <iostream>

#include <tarn/tarn.h>

#include "wait_for_signal.h"

namespace {
/// Whether a terminal can show it; a body doesn't have to say whether it is text.
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
    const auto pub = slate::make_uri(argc >= 2 ? argv[1] : "");
    if (!pub || argc > 3) {
        std::cerr << "usage: tarn_watch PUB [PATH]\n";
        return 2;
    }
    const TerminationSignal termination;
    try {
        tarn::ZmqSubsystem subsystem;
        // The empty pattern matches every path. "/*" would be refused, as a pattern begins with a literal.
        const std::string paths = argc == 3 ? std::string(argv[2]) + "/*" : "";
        subsystem.add_subscriber(pub)->add(std::make_shared<WatchRoute>(paths));
        std::cout << "watching " << pub->to_string() << std::endl;
        termination.wait();
    }
    catch (const std::exception& error) {
        std::cerr << "tarn_watch: " << error.what() << "\n";
        return 1;
    }
}
