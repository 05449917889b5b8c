#pragma once

#include <benchmark/benchmark.h>

#include <string>

// Reports the average time of one item (a reactor call, a task) as a counter
// named `name`, in the benchmark's time unit.
inline void reportTimePerItem(benchmark::State& state, const std::string& name, double items) {
   state.counters[name] =
       benchmark::Counter(items, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
