// Cost of the collector statistics table: the agent's write of one entry, a
// reader's consistent copy of one entry, and a reader's pass over all entries.
#include <benchmark/benchmark.h>

#include <string>

#include "Ipfix/CollectorStats.h"

namespace {

using Vorpa::Ipfix::CollectorInfo;
using Vorpa::Ipfix::CollectorSetStatisticsEntry;
using Vorpa::Ipfix::CollectorStatistics;
using Vorpa::Ipfix::CollectorStatisticsEntry;
using Vorpa::Ipfix::CollectorStatisticsKey;
using Vorpa::Ipfix::CollectorStatisticsReader;
using Vorpa::Ipfix::CollectorStatisticsTable;
using Vorpa::Ipfix::SetId;

// An entry as the agent writes them: names of ordinary length, three sets.
CollectorStatisticsEntry entryFor(Kel::U32 i) {
   CollectorStatisticsEntry e(CollectorStatisticsKey(
       "tracker-" + std::to_string(i % 16), "exporter-" + std::to_string(i / 16),
       CollectorInfo(Nivel::IpAddr(0xc0000200 + i), 4739)));
   e.exportedMessageTotalCountIs(i);
   e.exportedOctetTotalCountIs(1400ull * i);
   e.lastSentTimeIs(1000.0 + i);
   e.setEntryIs(CollectorSetStatisticsEntry(SetId(2), 0, 3));
   e.setEntryIs(CollectorSetStatisticsEntry(SetId(3), 0, 4));
   e.setEntryIs(CollectorSetStatisticsEntry(SetId(256), i, 0));
   return e;
}

// A table of `capacity` entries, `filled` of them written.
Kel::Ptr<CollectorStatistics> statsTable(Kel::U32 capacity, Kel::U32 filled) {
   auto stats = Kel::makeActive<CollectorStatistics>(
       "bench", CollectorStatisticsTable::createAnonymous("bench", capacity));
   for (Kel::U32 i = 0; i < filled; ++i) {
      stats->statsIs(entryFor(i));
   }
   return stats;
}

void statsIsOneEntry(benchmark::State& state) {
   const auto stats = statsTable(1024, 512);
   CollectorStatisticsEntry e = entryFor(7);
   Kel::U64 messages = 0;
   for (auto _ : state) {
      e.exportedMessageTotalCountIs(++messages);
      stats->statsIs(e);
   }
}
BENCHMARK(statsIsOneEntry);

void readerCopyOfOneEntry(benchmark::State& state) {
   const auto stats = statsTable(1024, 512);
   const CollectorStatisticsReader reader =
       CollectorStatisticsReader::attach(stats->statsControl());
   const CollectorStatisticsKey key = entryFor(7).key();
   CollectorStatisticsEntry out;
   for (auto _ : state) {
      const Vorpa::ReadStatus status = reader.entry(key, out);
      benchmark::DoNotOptimize(status);
      benchmark::DoNotOptimize(out);
   }
}
BENCHMARK(readerCopyOfOneEntry);

void readerIterateEntries(benchmark::State& state) {
   const auto count = static_cast<Kel::U32>(state.range(0));
   const auto stats = statsTable(count, count);
   const CollectorStatisticsReader reader =
       CollectorStatisticsReader::attach(stats->statsControl());
   Kel::U64 messages = 0;
   for (auto _ : state) {
      const Vorpa::ScanResult scan =
          reader.forEach([&](const auto&, const CollectorStatisticsEntry& e) {
             messages += e.exportedMessageTotalCount();
          });
      if (scan.entries != count) {
         state.SkipWithError("iteration missed entries");
      }
   }
   benchmark::DoNotOptimize(messages);
   state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(readerIterateEntries)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace
