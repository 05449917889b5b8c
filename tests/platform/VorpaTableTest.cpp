#include <gtest/gtest.h>

#include <map>
#include <random>

#include "Kel/Exception.h"
#include "Kel/Trace.h"
#include "Vorpa/TableReader.h"
#include "platform/VorpaTestTypes.h"

namespace {

using VorpaTest::Key;
using VorpaTest::Value;
using Table = Vorpa::Table<Key, Value>;
using Reader = Vorpa::TableReader<Key, Value>;

std::map<Kel::U32, Value> readerContents(const Reader& reader) {
   std::map<Kel::U32, Value> seen;
   const Vorpa::ScanResult scan = reader.forEach([&](const Key& k, const Value& v) {
      EXPECT_TRUE(seen.emplace(k.id, v).second) << "key " << k.id << " listed twice";
   });
   EXPECT_EQ(scan.corrupt, 0u);
   EXPECT_EQ(scan.busy, 0u);
   return seen;
}

// Random inserts, replacements, in-place writes and removals of keys that
// share three home slots, on a small table, checked after every step against
// a std::map through the writer's lookups, a reader's lookups and both
// iterations. Collisions, removal markers and their reuse all happen many
// times.
TEST(VorpaTable, AgreesWithAMapThroughCollisionsRemovalsAndReuse) {
   constexpr Kel::U32 capacity = 8;
   constexpr Kel::U32 keyCount = 20;
   Table table = Table::createAnonymous("model", capacity);
   const Reader reader = Reader::attach(table);
   std::map<Kel::U32, Value> model;
   std::mt19937 random(4711);
   const auto keyOf = [](Kel::U32 id) { return Key{id, id % 3}; };

   for (int step = 0; step < 5000; ++step) {
      const Kel::U32 id = random() % keyCount;
      const Value value = Value::of(random());
      const bool fits = model.contains(id) || model.size() < capacity;
      switch (random() % 8) {
         case 0:
         case 1:
         case 2:
            ASSERT_EQ(table.entryIs(keyOf(id), value), fits);
            if (fits) {
               model[id] = value;
            }
            break;
         case 3: {
            Value* inPlace = table.entryForWrite(keyOf(id), Value::of(7));
            ASSERT_EQ(inPlace != nullptr, fits);
            if (fits) {
               const Kel::U64 version = model.contains(id) ? model[id].version + 1 : 7;
               *inPlace = Value::of(version);
               table.entryCommit(inPlace);
               model[id] = Value::of(version);
            }
            break;
         }
         case 4:
         case 5:
         case 6: {
            const auto removed = table.entryDel(keyOf(id));
            ASSERT_EQ(removed.has_value(), model.contains(id));
            if (removed) {
               EXPECT_EQ(*removed, model[id]);
               model.erase(id);
            }
            break;
         }
         default:
            if (step % 50 == 0) {
               table.entryDelAll();
               model.clear();
            }
            break;
      }
      ASSERT_EQ(table.size(), model.size()) << "step " << step;
      ASSERT_EQ(reader.size(), model.size()) << "step " << step;
      for (Kel::U32 k = 0; k < keyCount; ++k) {
         const auto expected = model.find(k);
         const auto written = table.entry(keyOf(k));
         Value read;
         const Vorpa::ReadStatus status = reader.entry(keyOf(k), read);
         if (expected == model.end()) {
            ASSERT_FALSE(written) << "step " << step << " key " << k;
            ASSERT_EQ(status, Vorpa::ReadStatus::notFound) << "step " << step << " key " << k;
         } else {
            ASSERT_EQ(written, expected->second) << "step " << step << " key " << k;
            ASSERT_EQ(status, Vorpa::ReadStatus::ok) << "step " << step << " key " << k;
            ASSERT_EQ(read, expected->second);
         }
      }
      if (step % 100 == 0) {
         std::map<Kel::U32, Value> written;
         table.forEach([&](const Key& k, const Value& v) { written.emplace(k.id, v); });
         ASSERT_EQ(written, model);
         ASSERT_EQ(readerContents(reader), model);
         ASSERT_EQ(reader.validate().corrupt, 0u);
      }
   }
   EXPECT_GT(table.insertRefusedCount(), 0u) << "the sequence never filled the table";
}

TEST(VorpaTable, FullTableRefusesNewKeysOnlyAndTracesIt) {
   Kel::TraceCapture capture("Vorpa", 1);
   Table table = Table::createAnonymous("full", 3);
   const Reader reader = Reader::attach(table);
   for (Kel::U32 id = 0; id < 3; ++id) {
      ASSERT_TRUE(table.entryIs(Key{id, id}, Value::of(id)));
   }
   EXPECT_FALSE(table.entryIs(Key{9, 9}, Value::of(9)));
   EXPECT_EQ(table.entryForWrite(Key{10, 0}, Value::of(10)), nullptr);
   EXPECT_TRUE(table.entryIs(Key{1, 1}, Value::of(11))) << "replacing needs no room";

   EXPECT_EQ(table.insertRefusedCount(), 2u);
   EXPECT_EQ(reader.insertRefusedCount(), 2u);
   EXPECT_EQ(capture.lines(1).size(), 2u);
   EXPECT_TRUE(capture.lines(1).at(0).find("full") != std::string::npos) << capture.lines(1).at(0);
   Value v;
   EXPECT_EQ(reader.entry(Key{9, 9}, v), Vorpa::ReadStatus::notFound);
   EXPECT_EQ(reader.entry(Key{1, 1}, v), Vorpa::ReadStatus::ok);
   EXPECT_EQ(v, Value::of(11));
   EXPECT_EQ(readerContents(reader).size(), 3u);
}

TEST(VorpaTable, InPlaceWriteIsHiddenUntilCommitAndBadCommitsAreRefused) {
   Table table = Table::createAnonymous("inplace", 4);
   const Reader reader = Reader::attach(table);
   ASSERT_TRUE(table.entryIs(Key{1, 1}, Value::of(1)));
   Value* open = table.entryForWrite(Key{1, 1}, Value::of(99));
   ASSERT_NE(open, nullptr);
   EXPECT_EQ(*open, Value::of(1)) << "an existing entry is opened as it is";
   open->version = 2;  // half-written: readers must not see it
   Value v;
   EXPECT_EQ(reader.entry(Key{1, 1}, v), Vorpa::ReadStatus::busy);
   *open = Value::of(2);
   table.entryCommit(open);
   EXPECT_EQ(reader.entry(Key{1, 1}, v), Vorpa::ReadStatus::ok);
   EXPECT_EQ(v, Value::of(2));

   const Value outside = Value::of(3);
   const auto* inside =
       reinterpret_cast<const Value*>(reinterpret_cast<const std::byte*>(open) + 8);
   for (const Value* bad : {&outside, inside, static_cast<const Value*>(open)}) {
      try {
         table.entryCommit(bad);
         ADD_FAILURE() << "no assertion";
      } catch (const Kel::AssertionError& e) {
         EXPECT_STREQ(e.what(), "VorpaMap::safeWrite() in no man's land");
      }
   }
   EXPECT_EQ(table.corruptionCount(), 3u);
   EXPECT_EQ(reader.entry(Key{1, 1}, v), Vorpa::ReadStatus::ok)
       << "a refused commit changes nothing";
   EXPECT_EQ(v, Value::of(2));
}

TEST(VorpaTable, ReadersFollowEveryChangeInOrder) {
   Table table = Table::createAnonymous("changes", 8, 4);
   const Reader reader = Reader::attach(table);
   Kel::U64 cursor = reader.changeSeq();
   std::vector<Vorpa::Change<Key>> changes;
   EXPECT_EQ(reader.changesSince(cursor, changes), Vorpa::FollowStatus::ok);
   EXPECT_TRUE(changes.empty());
   EXPECT_FALSE(reader.waitForChange(cursor, 0.0)) << "nothing changed: the wait times out";

   table.entryIs(Key{1, 1}, Value::of(1));
   Value* open = table.entryForWrite(Key{2, 2}, Value::of(2));
   table.entryCommit(open);
   table.entryDel(Key{1, 1});
   table.entryDel(Key{5, 5});  // absent: no change
   EXPECT_TRUE(reader.waitForChange(cursor, 0.0));
   EXPECT_EQ(reader.changesSince(cursor, changes), Vorpa::FollowStatus::ok);
   const std::vector<std::pair<Vorpa::ChangeKind, Kel::U32>> expected = {
       {Vorpa::ChangeKind::upserted, 1},
       {Vorpa::ChangeKind::upserted, 2},
       {Vorpa::ChangeKind::removed, 1}};
   ASSERT_EQ(changes.size(), expected.size());
   for (std::size_t i = 0; i < expected.size(); ++i) {
      EXPECT_EQ(changes[i].kind, expected[i].first);
      EXPECT_EQ(changes[i].key.id, expected[i].second);
   }
   EXPECT_EQ(cursor, table.changeSeq());

   // More changes than the ring holds: the reader is told to resynchronise.
   changes.clear();
   for (Kel::U64 i = 0; i < 5; ++i) {
      table.entryIs(Key{3, 3}, Value::of(i));
   }
   EXPECT_EQ(reader.changesSince(cursor, changes), Vorpa::FollowStatus::overrun);
   EXPECT_EQ(cursor, table.changeSeq());
   table.entryDelAll();
   EXPECT_EQ(reader.changesSince(cursor, changes), Vorpa::FollowStatus::ok);
   ASSERT_EQ(changes.size(), 1u);
   EXPECT_EQ(changes[0].kind, Vorpa::ChangeKind::allRemoved);
}

}  // namespace
