// SPDX-License-Identifier: Apache-2.0
// Takes bodies of any size and answers with their checksum:
//
//   upload_service /tmp/upload.sock
//
// The server has four workers, so that a handler at work doesn't hold up other routes. The library puts the
// chunks of an upload together, and the route gets one call with the whole body.

#include <iostream>

#include <tarn/tarn.h>

#include "../../apps/shared/termination_signal.h"

namespace {
class DropRoute : public tarn::Route {
public:
    DropRoute() : Route("drop", "put,post", "/drop/:name", tarn::Access::Public) {}

    void put(tarn::Context& upload) override
    {
        const std::string& body = upload.request.data();
        upload.reply.set_reply_text(std::to_string(body.size()) + " bytes, MD5 " +
                                    slate::md5_hash_string(body));
    }
    void post(tarn::Context& upload) override { put(upload); }
};
} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: upload_service SOCKET\n";
        return 2;
    }
    const TerminationSignal termination;

    tarn::ZmqSubsystem subsystem;
    subsystem.serve(slate::make_uri("ipc://" + std::string(argv[1])), {std::make_shared<DropRoute>()}, 4);
    std::cout << "serving at " << argv[1] << std::endl;
    termination.wait();
}
