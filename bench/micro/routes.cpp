// SPDX-License-Identifier: Apache-2.0
// How a request finds its route.

#include <memory>
#include <string>

#include <tarn/internal/route_list.h>
#include <tarn/tarn.h>

#include "allocations.h"

namespace {
void match(benchmark::State& state, const char* pattern_text, const char* path, bool is_hit)
{
    const tarn::RoutePattern pattern(pattern_text);
    bench::measure(state, [&] {
        if (pattern.match(path) != is_hit)
            state.SkipWithError("the pattern does what it shouldn't");
    });
}
BENCHMARK_CAPTURE(match, static_hit, "/status/cpu", "/status/cpu", true);
BENCHMARK_CAPTURE(match, static_miss, "/status/cpu", "/status/gpu", false);
BENCHMARK_CAPTURE(match, variable_hit, "/user/:id/name", "/user/1203/name", true);
BENCHMARK_CAPTURE(match, variable_miss, "/user/:id/name", "/user/1203/mail", false);
BENCHMARK_CAPTURE(match, first_segment_miss, "/user/:id/name", "/status/cpu/load", false);
BENCHMARK_CAPTURE(match, glob_hit, "/files/*", "/files/etc/hostname", true);

class EmptyRoute : public tarn::Route {
public:
    EmptyRoute(const std::string& route_name, const std::string& pattern)
        : Route(route_name, "get", tarn::RoutePattern(pattern), tarn::Access::Public)
    {
    }
};

tarn::Context context_of(const std::shared_ptr<tarn::Message>& message)
{
    tarn::Context context;
    context.request = tarn::Request(message);
    return context;
}

void accept(benchmark::State& state, const char* pattern, const char* path)
{
    const EmptyRoute route("route", pattern);
    const auto message = tarn::make_message_factory()->make_get(path);
    bench::measure(state, [&] {
        auto context = context_of(message);
        if (!route.accept(context))
            state.SkipWithError("the route doesn't accept");
    });
}
BENCHMARK_CAPTURE(accept, static, "/status/cpu", "/status/cpu");
BENCHMARK_CAPTURE(accept, variable, "/user/:id/name", "/user/1203/name?format=json");

/// All but the last of so many routes refuse the path.
void find(benchmark::State& state, const std::string& path, bool is_hit)
{
    const auto provider = slate::add_provider("bench", "", false);
    const auto nothing = [] {};
    {
        tarn_internal::RouteList routes({}, slate::make_dictionary(), provider, nothing, nothing);
        for (long i = 1; i < state.range(0); ++i)
            routes.add(std::make_shared<EmptyRoute>("route" + std::to_string(i),
                                                    "/service" + std::to_string(i) + "/:id/value"));
        routes.add(std::make_shared<EmptyRoute>("wanted", "/wanted/:id/value"));
        const auto message = tarn::make_message_factory()->make_get(path);
        bench::measure(state, [&] {
            auto context = context_of(message);
            bool is_found = false;
            routes.invoke(context, [&](const std::shared_ptr<tarn::Route>&) { is_found = true; });
            if (is_found != is_hit)
                state.SkipWithError("the list does what it shouldn't");
        });
    }
    slate::remove_provider(provider->name());
}

void find_hit(benchmark::State& state)
{
    find(state, "/wanted/7/value", true);
}
BENCHMARK(find_hit)->RangeMultiplier(10)->Range(1, 1000);

void find_miss(benchmark::State& state)
{
    find(state, "/nobody/7/value", false);
}
BENCHMARK(find_miss)->RangeMultiplier(10)->Range(1, 1000);

void find_miss_64_KiB(benchmark::State& state)
{
    find(state, "/" + std::string(65536, 's') + "/7/value", false);
}
BENCHMARK(find_miss_64_KiB)->RangeMultiplier(10)->Range(1, 1000);
} // namespace
