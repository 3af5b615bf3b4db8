// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <benchmark/benchmark.h>

namespace bench {
/// How often this thread has asked the C library for memory, whoever asked: C++, libzmq or protobuf.
long allocations();

/// Times `operation`, and shows its allocations beside.
template <class Operation>
void measure(benchmark::State& state, const Operation& operation)
{
    operation(); // what is made at first use
    const long before = allocations();
    for (auto _ : state)
        operation();
    state.counters["allocations"] =
        benchmark::Counter(static_cast<double>(allocations() - before), benchmark::Counter::kAvgIterations);
}
} // namespace bench
