// Cost of scheduling and dispatching a ready task, and of a timer task through
// the heap (with other timers pending, as in an agent with many exporters).
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "BenchCounters.h"
#include "Bexa/TaskScheduler.h"
#include "Kel/System.h"

namespace {

void readyTask(benchmark::State& state) {
   auto sched = Kel::makePtr<Bexa::TaskSchedulerRoot>();
   Kel::U64 runs = 0;
   Bexa::Task task(sched, "bench", Bexa::TaskPriority(2), [&] { ++runs; });
   for (auto _ : state) {
      task.scheduleTask();
      sched->runOnce();
   }
   benchmark::DoNotOptimize(runs);
   reportTimePerItem(state, "ns_per_task", double(state.iterations()));
}
BENCHMARK(readyTask);

void timerTask(benchmark::State& state) {
   Kel::ScopedManualClock clock;
   auto sched = Kel::makePtr<Bexa::TaskSchedulerRoot>();
   std::vector<std::unique_ptr<Bexa::Task>> background;
   for (int i = 0; i < state.range(0); ++i) {
      background.push_back(std::make_unique<Bexa::Task>(sched, "bg", Bexa::TaskPriority(2), [] {}));
      background.back()->scheduleTaskLowestDelay(1e9 + i);
   }
   Kel::U64 runs = 0;
   Bexa::Task task(sched, "bench", Bexa::TaskPriority(2), [&] { ++runs; });
   for (auto _ : state) {
      task.scheduleTaskLowestDelay(0.001);
      clock.advance(0.001);
      sched->runOnce();
   }
   benchmark::DoNotOptimize(runs);
   reportTimePerItem(state, "ns_per_task", double(state.iterations()));
}
BENCHMARK(timerTask)->Arg(0)->Arg(1000);

}  // namespace
