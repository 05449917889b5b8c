// The collector statistics reader over a segment whose bytes come from the
// input, as `ipfix-stats` would meet a table written by a broken or hostile
// process: mount, forEach, entry, validate, changesSince and the tool's own
// snapshot and reports (text, JSON, OpenMetrics) must answer with errors,
// never crash or read outside the segment.
//
// Input: one octet of flags, then the segment's bytes. Random bytes rarely
// carry valid checksums, so the flags let the harness recompute them over
// the mutated bytes, reaching the checks behind them:
//   bit 0  the header's identity checksum
//   bit 1  each slot's key hash (for a valid key) and checksum
//   bit 2  each slot's sequence made even, so no slot looks half-written
//
// Seeds come from the real writer: run the target with
// IPFIX_FUZZ_WRITE_SEEDS=<dir> to write them (tests/fuzz/corpus/stats_reader).
// The regression-* inputs are three-entries with one damage each (a key of
// no address family, every slot held open, names that are not UTF-8), made
// anew from it whenever the table's layout version changes.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <string>
#include <vector>

#include "Ipfix/CollectorStats.h"
#include "Ipfix/CollectorStatsUpdate.h"
#include "Kel/Exception.h"
#include "Kel/System.h"
#include "OpenMetricsReport.h"
#include "StatsReport.h"
#include "StatsSnapshot.h"
#include "Utf8.h"
#include "Vorpa/Error.h"

namespace {

using Vorpa::Ipfix::CollectorStatisticsEntry;
using Vorpa::Ipfix::CollectorStatisticsKey;
using Vorpa::Ipfix::CollectorStatisticsReader;
using Key = CollectorStatisticsKey;
using Value = CollectorStatisticsEntry;
using Layout = Vorpa::StoredLayout<Key, Value>;

enum Flags : Kel::U8 { resealIdentity = 1, resealSlots = 2, evenSequences = 4 };

[[noreturn]] void finding(const std::string& what) {
   std::fprintf(stderr, "stats_reader: %s\n", what.c_str());
   std::abort();
}

void check(bool ok, const std::string& what) {
   if (!ok) {
      finding(what);
   }
}

void reseal(std::vector<std::byte>& segment, Kel::U8 flags) {
   if (segment.size() < Vorpa::slotsOffset) {
      return;
   }
   Vorpa::Identity id;
   std::memcpy(&id, segment.data(), sizeof id);
   if (flags & resealIdentity) {
      id.checksum = id.computeChecksum();
      std::memcpy(segment.data(), &id, sizeof id);
   }
   if (!(flags & (resealSlots | evenSequences))) {
      return;
   }
   // The slots where the real layout puts them for the header's capacities,
   // as far as the segment holds them.
   const auto& g = id.geometry;
   if (g.capacity < 1 || g.capacity > Vorpa::maxCapacity || g.ringCapacity < 2 ||
       !std::has_single_bit(g.ringCapacity)) {
      return;
   }
   const Vorpa::Geometry real =
       Vorpa::Geometry::compute(g.capacity, g.ringCapacity, Vorpa::tableShape<Key, Value>());
   for (Kel::U32 i = 0; i < real.slotCount; ++i) {
      const std::size_t at = Vorpa::slotsOffset + real.slotStride * i;
      if (at + real.slotStride > segment.size()) {
         break;
      }
      std::byte* slot = segment.data() + at;
      // Plain integers at the SlotHeader's offsets: the harness writes them
      // as the writer would, without atomics over a private buffer.
      Kel::U32 seq = 0;
      Kel::U32 state = 0;
      Kel::U64 hash = 0;
      std::memcpy(&seq, slot + offsetof(Vorpa::SlotHeader, seq), sizeof seq);
      std::memcpy(&state, slot + offsetof(Vorpa::SlotHeader, state), sizeof state);
      std::memcpy(&hash, slot + offsetof(Vorpa::SlotHeader, keyHash), sizeof hash);
      if (flags & evenSequences) {
         seq &= ~1u;
         std::memcpy(slot + offsetof(Vorpa::SlotHeader, seq), &seq, sizeof seq);
      }
      if (flags & resealSlots) {
         Layout::Stored stored;
         std::memcpy(&stored, slot + real.storedOffset, sizeof stored);
         if (Vorpa::sharedValid(Layout::keyOf(stored))) {
            hash = Vorpa::keyHash(Layout::keyOf(stored));
            std::memcpy(slot + offsetof(Vorpa::SlotHeader, keyHash), &hash, sizeof hash);
         }
         const Kel::U64 sum =
             Vorpa::slotChecksum(state, hash, slot + real.storedOffset, sizeof(Layout::Stored));
         std::memcpy(slot + offsetof(Vorpa::SlotHeader, checksum), &sum, sizeof sum);
      }
   }
}

// A named segment holding `bytes`, for as long as it takes to mount it.
class ScratchSegment {
 public:
   explicit ScratchSegment(const std::vector<std::byte>& bytes)
       : name_("ipfix-fuzz-stats-" + std::to_string(::getpid())) {
      const int fd = ::shm_open(("/" + name_).c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
      check(fd >= 0, "shm_open");
      check(::ftruncate(fd, static_cast<off_t>(bytes.size())) == 0, "ftruncate");
      if (!bytes.empty()) {
         void* p = ::mmap(nullptr, bytes.size(), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
         check(p != MAP_FAILED, "mmap");
         std::memcpy(p, bytes.data(), bytes.size());
         ::munmap(p, bytes.size());
      }
      ::close(fd);
   }
   ~ScratchSegment() { ::shm_unlink(("/" + name_).c_str()); }
   ScratchSegment(const ScratchSegment&) = delete;
   ScratchSegment& operator=(const ScratchSegment&) = delete;
   const Kel::Name& name() const { return name_; }

 private:
   Kel::Name name_;
};

void exercise(const CollectorStatisticsReader& reader) {
   const Vorpa::ScanResult all = reader.validate();
   const Kel::U32 capacity = reader.capacity();
   check(all.entries + all.corrupt + all.busy <= std::bit_ceil(capacity + capacity / 4 + 1),
         "validate() counted more slots than the table has");

   std::vector<Key> keys;
   const Vorpa::ScanResult live = reader.forEach([&](const Key& key, const Value& value) {
      check(key.vorpaValid() && value.vorpaValid(), "forEach handed out an invalid entry");
      keys.push_back(key);
      static_cast<void>(key.vorpaString());
      static_cast<void>(value.vorpaString());
   });
   check(live.entries == keys.size(), "forEach's count differs from its calls");

   Kel::U64 cursor = 0;
   std::vector<Vorpa::Change<Key>> changes;
   static_cast<void>(reader.changesSince(cursor, changes));
   check(changes.size() <= reader.changeSeq(), "more changes than the sequence says");
   for (const auto& c : changes) {
      keys.push_back(c.key);
   }
   for (const Key& key : keys) {
      Value value;
      if (reader.entry(key, value) == Vorpa::ReadStatus::ok) {
         check(value.key() == key, "entry() returned another key's value");
      }
   }
   static_cast<void>(reader.headerIntact());
   static_cast<void>(reader.size());
   static_cast<void>(reader.insertRefusedCount());
   static_cast<void>(reader.corruptionCount());

   // What ipfix-stats prints from it.
   try {
      const IpfixStats::Snapshot snapshot = IpfixStats::takeSnapshot(reader);
      const Kel::Seconds now = Kel::System::currentTime();
      static_cast<void>(IpfixStats::textReport(snapshot.summary, snapshot.trackers, now));
      static_cast<void>(IpfixStats::jsonText(
          IpfixStats::jsonReport(snapshot.summary, snapshot.trackers, now), 2));
      // Names are the input's octets; the exposition must stay UTF-8 (a
      // second pass finds nothing to replace) and end where the format ends.
      const std::string metrics =
          IpfixStats::openMetricsReport(snapshot.summary, snapshot.trackers, now);
      check(IpfixStats::validUtf8(metrics) == metrics, "the OpenMetrics report is not UTF-8");
      check(metrics.find("# EOF\n") == metrics.size() - 6, "the OpenMetrics report's end");
   } catch (const IpfixStats::CorruptTable&) {
      // The tool's answer to a damaged table.
   }
}

// Writes seeds from the real writer: tables of 4 entries (8 slots) and a
// ring of 8 changes, so that a seed stays a few pages long.
void writeSeeds(const std::string& dir) {
   using Vorpa::Ipfix::CollectorInfo;
   using Vorpa::Ipfix::SetCount;
   using Vorpa::Ipfix::SetId;
   Kel::ScopedManualClock clock;
   const auto save = [&](const std::string& name, const Vorpa::Ipfix::CollectorStatistics& stats,
                         Kel::U8 flags) {
      const auto& segment = stats.statsControl().segment();
      const auto* bytes = reinterpret_cast<const char*>(&segment.header());
      std::ofstream out(dir + "/" + name, std::ios::binary);
      out.put(static_cast<char>(flags));
      out.write(bytes, static_cast<std::streamsize>(segment.geometry().segmentSize));
   };
   const auto table = [] {
      return Kel::makeActive<Vorpa::Ipfix::CollectorStatistics>(
          "seed", Vorpa::Ipfix::CollectorStatisticsTable::createAnonymous("seed", 4, 8));
   };
   const auto c4 = *CollectorInfo::parse("192.0.2.1:4739");
   const auto c6 = *CollectorInfo::parse("[2001:db8::1]:4740");
   const SetCount templates[] = {{SetId(2), 3}, {SetId(3), 4}};
   const SetCount data[] = {{SetId(256), 5}, {SetId(65280), 2}, {SetId(65281), 1}};

   const auto empty = table();
   save("empty", *empty, 0);

   const auto three = table();
   Vorpa::Ipfix::statsUpdateAfterTemplates(*three, "ft-edge", "exp-local", c4, 400, templates);
   clock.advance(1.5);
   Vorpa::Ipfix::statsUpdateAfterOptionsData(*three, "ft-edge", "exp-local", c6, 900, data);
   Vorpa::Ipfix::statsUpdateAfterOptionsData(*three, "ft-core", "exp lab", c4, 120, data);
   save("three-entries", *three, 0);
   save("three-entries-resealed", *three, resealIdentity | resealSlots | evenSequences);

   // Removals, a clear-time entry and a refused insert; the ring wraps.
   clock.advance(60);
   Vorpa::Ipfix::statsClear(*three, "ft-edge", "exp-local");
   for (const char* name : {"a", "b", "c", "d"}) {
      Vorpa::Ipfix::statsUpdateAfterOptionsData(*three, "ft-x", name, c4, 10, data);
   }
   save("cleared-and-full", *three, resealSlots);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
   if (const char* dir = std::getenv("IPFIX_FUZZ_WRITE_SEEDS")) {
      writeSeeds(dir);
      std::exit(0);
   }
   return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
   static Kel::ScopedManualClock clock;
   if (size == 0) {
      return 0;
   }
   const auto* from = reinterpret_cast<const std::byte*>(data);
   std::vector<std::byte> bytes(from + 1, from + size);
   reseal(bytes, data[0]);
   try {
      std::optional<CollectorStatisticsReader> reader;
      {
         const ScratchSegment segment(bytes);
         try {
            reader.emplace(CollectorStatisticsReader::mount(segment.name()));
         } catch (const Vorpa::MountError&) {
            return 0;  // refused at mount: the expected answer to most inputs
         }
      }
      exercise(*reader);
   } catch (const Kel::AssertionError& e) {
      finding(std::string("assertion: ") + e.what());
   } catch (const std::exception& e) {
      finding(std::string("exception: ") + e.what());
   }
   return 0;
}
