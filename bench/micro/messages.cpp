// SPDX-License-Identifier: Apache-2.0
// What happens to one message on its way, and to its body.

#include <string>
#include <vector>

#include <unistd.h>

#include <tarn/internal/utils/detect_format.h>
#include <tarn/internal/utils/parse_recipient.h>
#include <tarn/internal/utils/send.h>
#include <tarn/tarn.h>
#include <zmq.hpp>

#include "allocations.h"

namespace {
void parse_recipient(benchmark::State& state, const char* recipient)
{
    bench::measure(state, [&] {
        std::string to, path;
        const auto parameters = slate::make_dictionary();
        tarn_internal::parse_recipient(recipient, &to, &path, parameters);
        benchmark::DoNotOptimize(path);
    });
}
BENCHMARK_CAPTURE(parse_recipient, path, "/status/cpu");
BENCHMARK_CAPTURE(parse_recipient, all, "/status/cpu@1203?format=json&since=12");

std::shared_ptr<tarn::Message> make_get()
{
    static const auto factory = tarn::make_message_factory();
    return factory->make_get("/status/cpu");
}

/// With a body of 32 bytes.
std::shared_ptr<tarn::Message> make_reply(const std::shared_ptr<tarn::Message>& request)
{
    static const auto factory = tarn::make_message_factory();
    static const std::string body(32, 'x');
    auto message = factory->make_response(request, getpid());
    tarn::Reply(message).set_reply_data(tarn::Format::Bin, body);
    return message;
}

void build_get(benchmark::State& state)
{
    bench::measure(state, [] { benchmark::DoNotOptimize(make_get()); });
}
BENCHMARK(build_get);

void build_reply(benchmark::State& state)
{
    const auto request = make_get();
    bench::measure(state, [&] { benchmark::DoNotOptimize(make_reply(request)); });
}
BENCHMARK(build_reply);

void serialise(benchmark::State& state, const std::shared_ptr<tarn::Message>& message)
{
    bench::measure(state, [&] { benchmark::DoNotOptimize(tarn_internal::to_frame(*message)); });
}

void serialise_get(benchmark::State& state)
{
    serialise(state, make_get());
}
BENCHMARK(serialise_get);

void serialise_reply(benchmark::State& state)
{
    serialise(state, make_reply(make_get()));
}
BENCHMARK(serialise_reply);

void parse(benchmark::State& state, const std::shared_ptr<tarn::Message>& message)
{
    const auto factory = tarn::make_message_factory();
    const std::string frame = message->SerializeAsString();
    bench::measure(state,
                   [&] { benchmark::DoNotOptimize(factory->make_message(frame.data(), frame.size())); });
}

void parse_get(benchmark::State& state)
{
    parse(state, make_get());
}
BENCHMARK(parse_get);

void parse_reply(benchmark::State& state)
{
    parse(state, make_reply(make_get()));
}
BENCHMARK(parse_reply);

void parse_accept(benchmark::State& state, const char* header)
{
    std::vector<tarn::Format> formats;
    bench::measure(state, [&] {
        formats.clear();
        tarn::parse_accept(header, formats);
    });
}
BENCHMARK_CAPTURE(parse_accept, one, "application/json");
BENCHMARK_CAPTURE(parse_accept, four,
                  "text/html, application/xml; q=0.9, application/json; q=0.8, */*; q=0.1");

void detect_format(benchmark::State& state)
{
    const std::string json =
        "{\"text\": \"" + std::string(static_cast<std::size_t>(state.range(0)) - 12, 'x') + "\"}";
    bench::measure(state, [&] { benchmark::DoNotOptimize(tarn_internal::detect_format(json)); });
}
BENCHMARK(detect_format)->Arg(100)->Arg(1 << 20);

void count(benchmark::State& state)
{
    const auto provider = slate::add_provider("bench", "", false);
    const auto counter = provider->add_counter("rx", {}, "", slate::CounterPolicy::Cumulative);
    bench::measure(state, [&] { counter->increment(); });
    slate::remove_provider(provider->name());
}
BENCHMARK(count);

void log_call_that_is_off(benchmark::State& state)
{
    const auto provider = slate::add_provider("bench", "", false);
    bench::measure(state, [&] { slate::log_debug(provider, SLATE_HERE, "rx: ", "GET ", "/status/cpu"); });
    slate::remove_provider(provider->name());
}
BENCHMARK(log_call_that_is_off);
} // namespace

BENCHMARK_MAIN();
