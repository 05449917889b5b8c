// Cost of announcing one attribute change to its reactors.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "BenchCounters.h"
#include "Kel/Entity.h"

namespace {

class Counter : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<Counter> {
    public:
      virtual void onValue() {}
   };
   void valueIs(Kel::U64 v) { attributeIs(value_, v, &Notifiee::onValue); }
   Kel::U64 value() const { return value_; }

 private:
   Kel::U64 value_ = 0;
};

class Reactor : public Counter::Notifiee {
 public:
   explicit Reactor(const Kel::Ptr<Counter>& c) { notifierIs(c); }
   void onValue() override { sum_ += notifier()->value(); }
   Kel::U64 sum_ = 0;
};

// Items processed are reactor calls, so the reported time is per reactor call.
void notifyReactors(benchmark::State& state) {
   auto counter = Kel::makePtr<Counter>();
   counter->hasNotificationActiveIs(true);
   std::vector<std::unique_ptr<Reactor>> reactors;
   for (int i = 0; i < state.range(0); ++i) {
      reactors.push_back(std::make_unique<Reactor>(counter));
   }
   Kel::U64 v = 0;
   for (auto _ : state) {
      counter->valueIs(++v);
   }
   benchmark::DoNotOptimize(reactors.front()->sum_);
   state.SetItemsProcessed(state.iterations() * state.range(0));
   reportTimePerItem(state, "ns_per_reactor_call", double(state.iterations() * state.range(0)));
}
BENCHMARK(notifyReactors)->Arg(1)->Arg(10);

}  // namespace
