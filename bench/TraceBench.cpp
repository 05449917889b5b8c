// A trace call at a disabled level must cost a branch and format nothing.
#include <benchmark/benchmark.h>

#include <map>
#include <string>

#include "Kel/Trace.h"

namespace {

Kel::TraceHandle traceBench("Bench");

void disabledTrace(benchmark::State& state) {
   Kel::Trace::configure("Bench/1");
   std::map<std::string, std::string> expensive;
   for (int i = 0; i < 100; ++i) {
      expensive[std::to_string(i)] = std::string(100, 'x');
   }
   for (auto _ : state) {
      KEL_TRACE(traceBench, 4, "ExporterInfoSm::handleCollector for {} with {} entries, first {}",
                std::string(200, 'y'), expensive.size(), expensive.begin()->second);
      benchmark::ClobberMemory();
   }
}
BENCHMARK(disabledTrace);

}  // namespace
