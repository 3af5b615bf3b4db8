// SPDX-License-Identifier: Apache-2.0
// Many requests in flight from one asynchronous client, to the server of bench_tarn_request. One operation is
// a reply, and the next request.
//
//   bench_tarn_window client endpoint=E size=BYTES window=N

#include <deque>
#include <string>

#include <tarn/async/async_client.h>
#include <tarn/tarn.h>

#include "../support/bench.h"

namespace {
void client(const bench::Arguments& arguments)
{
    const auto size = static_cast<std::size_t>(arguments.number("size"));
    tarn::ZmqSubsystem subsystem;
    const auto client = tarn::make_async_client(arguments.text("endpoint"));
    std::deque<tarn::Pending> in_flight;
    for (long i = 0; i < arguments.number("window"); ++i)
        in_flight.push_back(client->get("/data/0"));
    bench::measure([&] {
        const auto reply = in_flight.front().get();
        bench::require(reply->good() && reply->data().size() == size, "GET failed");
        in_flight.pop_front();
        in_flight.push_back(client->get("/data/0"));
    });
}
} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, {{"client", client}});
}
