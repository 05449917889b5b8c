#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <random>

#include "platform/VorpaTestTypes.h"

namespace {

using VorpaTest::Key;
using VorpaTest::Reader;
using VorpaTest::Table;
using VorpaTest::Value;

// Random inserts, replacements and removals of keys that share three home
// slots, on a small table, checked after every step against a std::map through
// the writer's and a reader's lookups, and the change the reader follows
// against the step's. Collisions, removal markers, their reuse and a full
// table all happen many times. (Listing the entries after such churn: the
// churn soak for the writer, IpfixStatsTest's watch for a reader.)
TEST(VorpaTable, AgreesWithAMapThroughCollisionsRemovalsAndReuse) {
   constexpr Kel::U32 capacity = 8;
   constexpr Kel::U32 keyCount = 20;
   Table table = Table::createAnonymous("model", capacity, 4);
   const Reader reader = Reader::attach(table);
   std::map<Kel::U32, Value> model;
   std::mt19937 random(4711);
   const auto keyOf = [](Kel::U32 id) { return Key{id, id % 3}; };
   Kel::U64 cursor = reader.changeSeq();
   Kel::U64 refused = 0;

   for (int step = 0; step < 5000; ++step) {
      SCOPED_TRACE(step);
      const Kel::U32 id = random() % keyCount;
      const Value value = Value::of(random());
      const bool fits = model.contains(id) || model.size() < capacity;
      std::optional<Vorpa::ChangeKind> change;
      // Half the steps insert or replace, three in eight remove, and one in
      // eight of every fiftieth step empties the table.
      const Kel::U32 op = random() % 8;
      refused += op < 4 && !fits;
      if (op < 4) {
         ASSERT_EQ(table.entryIs(keyOf(id), value), fits);
         if (fits) {
            model[id] = value;
            change = Vorpa::ChangeKind::upserted;
         }
      } else if (op < 7) {
         const auto removed = table.entryDel(keyOf(id));
         ASSERT_EQ(removed.has_value(), model.contains(id));
         if (removed) {
            EXPECT_EQ(*removed, model[id]);
            model.erase(id);
            change = Vorpa::ChangeKind::removed;
         }
      } else if (step % 50 == 0) {
         table.entryDelAll();
         model.clear();
         change = Vorpa::ChangeKind::allRemoved;
      }
      ASSERT_EQ(table.size(), model.size());
      ASSERT_EQ(reader.size(), model.size());
      ASSERT_EQ(reader.insertRefusedCount(), refused);
      ASSERT_EQ(reader.waitForChange(cursor, 0.0), change.has_value());
      std::vector<Vorpa::Change<Key>> changes;
      ASSERT_EQ(reader.changesSince(cursor, changes), Vorpa::FollowStatus::ok);
      ASSERT_EQ(changes.size(), change ? 1u : 0u);
      if (change) {
         EXPECT_EQ(changes[0].kind, *change);
         if (change != Vorpa::ChangeKind::allRemoved) {
            EXPECT_EQ(changes[0].key.id, id);
         }
      }
      for (Kel::U32 k = 0; k < keyCount; ++k) {
         SCOPED_TRACE(k);
         const auto found = model.find(k);
         const auto expected = found == model.end() ? std::nullopt : std::optional(found->second);
         ASSERT_EQ(table.entry(keyOf(k)), expected);
         Value read;
         ASSERT_EQ(reader.entry(keyOf(k), read),
                   expected ? Vorpa::ReadStatus::ok : Vorpa::ReadStatus::notFound);
         ASSERT_TRUE(!expected || read == *expected);
      }
   }
   EXPECT_GT(refused, 0u) << "the sequence never filled the table";

   // More changes than the ring holds: the reader is told to resynchronise.
   for (Kel::U64 i = 0; i < 5; ++i) {
      table.entryIs(keyOf(0), Value::of(i));
   }
   std::vector<Vorpa::Change<Key>> changes;
   EXPECT_EQ(reader.changesSince(cursor, changes), Vorpa::FollowStatus::overrun);
   EXPECT_EQ(cursor, table.changeSeq());

   // An entry written in place is hidden from readers until committed.
   Value* open = table.entryForWrite(keyOf(0), Value::of(99));
   ASSERT_NE(open, nullptr);
   EXPECT_EQ(*open, Value::of(4)) << "opened as it is";
   open->version = 5;
   Value read;
   EXPECT_EQ(reader.entry(keyOf(0), read), Vorpa::ReadStatus::busy);
   *open = Value::of(5);
   table.entryCommit(open);
   EXPECT_EQ(reader.entry(keyOf(0), read), Vorpa::ReadStatus::ok);
   EXPECT_EQ(read, Value::of(5));
}

}  // namespace
