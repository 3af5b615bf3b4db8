// SPDX-License-Identifier: Apache-2.0
// Changes as an application publishes and receives them:
//
//   bench_tarn_changes relay stats=E in=E out=E [marks=N]
//   bench_tarn_changes publisher stats=E in=E size=BYTES [marks=N]
//   bench_tarn_changes subscriber out=E [marks=N]
//
// `marks` is the setting "high_water_mark".

#include <string>

#include <tarn/tarn.h>

#include "../support/bench.h"

namespace {
class ChangesRoute : public tarn::Route {
public:
    explicit ChangesRoute(bench::Arrivals& arrivals)
        : Route("changes", "put", "/machine/load", tarn::Access::Public),
          arrivals_(arrivals)
    {
    }

    void put(tarn::Context& context) override { arrivals_.take(context.request.data()); }

private:
    bench::Arrivals& arrivals_;
};

std::shared_ptr<slate::Dictionary> settings_of(const bench::Arguments& arguments)
{
    const auto settings = slate::make_dictionary();
    if (arguments.has("marks"))
        settings->set("high_water_mark", arguments.text("marks"));
    return settings;
}

tarn::Endpoint endpoint_of(const bench::Arguments& arguments, const std::string& key)
{
    return slate::make_uri(arguments.text(key));
}

void relay(const bench::Arguments& arguments)
{
    tarn::ZmqSubsystem subsystem(settings_of(arguments));
    const auto relay = tarn::make_relay(endpoint_of(arguments, "in"), endpoint_of(arguments, "out"));
    const auto server =
        subsystem.add_server({endpoint_of(arguments, "stats")}, endpoint_of(arguments, "out"));
    server->add(tarn::make_relay_stats_route());
    bench::serve();
}

void publisher(const bench::Arguments& arguments)
{
    tarn::ZmqSubsystem subsystem(settings_of(arguments));
    const auto publisher = tarn::make_publisher(endpoint_of(arguments, "in"), tarn::default_timeout(), 0,
                                                endpoint_of(arguments, "stats"));
    bench::publish(static_cast<std::size_t>(arguments.number("size")), [&](const std::string& change) {
        (void)publisher->put("/machine/load?format=bin", change);
    });
}

void subscriber(const bench::Arguments& arguments)
{
    bench::Arrivals arrivals;
    tarn::ZmqSubsystem subsystem(settings_of(arguments));
    const auto server = subsystem.add_subscriber(endpoint_of(arguments, "out"));
    server->add(std::make_shared<ChangesRoute>(arrivals));
    arrivals.report();
}
} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, {{"relay", relay}, {"publisher", publisher}, {"subscriber", subscriber}});
}
