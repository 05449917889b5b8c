#include <gtest/gtest.h>

#include <functional>

#include "Kel/Exception.h"
#include "Vorpa/Error.h"
#include "Vorpa/TableReader.h"
#include "platform/VorpaTestTypes.h"
#include "support/ScopedTableName.h"
#include "support/SegmentBytes.h"

namespace {

using TestSupport::SegmentBytes;
using VorpaTest::Key;
using VorpaTest::Value;
using Table = Vorpa::Table<Key, Value>;
using Reader = Vorpa::TableReader<Key, Value>;

// Offsets into the header: the magic, the layout version right after it, and
// a byte of the geometry further on.
constexpr std::size_t magicOffset = 0;
constexpr std::size_t versionOffset = 8;
constexpr std::size_t geometryOffset = 40;

TEST(VorpaMount, RefusesWhatItCannotReadWithTheRightProblem) {
   using Damage = std::function<void(SegmentBytes&)>;
   const struct {
      const char* what;
      Damage damage;
      Vorpa::MountProblem problem;
   } cases[] = {
       {"bad magic", [](SegmentBytes& s) { s.bytes()[magicOffset + 3] ^= 0x40; },
        Vorpa::MountProblem::corrupt},
       {"magic not yet written", [](SegmentBytes& s) { std::memset(s.bytes().data(), 0, 8); },
        Vorpa::MountProblem::missing},
       {"other layout version", [](SegmentBytes& s) { s.bytes()[versionOffset] += 1; },
        Vorpa::MountProblem::otherLayout},
       {"truncated", [](SegmentBytes& s) { s.truncate(s.bytes().size() - 4096); },
        Vorpa::MountProblem::corrupt},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.what);
      const TestSupport::ScopedTableName name("mount");
      Table table = Table::create(name, 4);
      {
         SegmentBytes bytes(name);
         c.damage(bytes);
      }
      try {
         Reader::mount(name);
         ADD_FAILURE() << "mounted";
      } catch (const Vorpa::MountError& e) {
         EXPECT_EQ(e.problem(), c.problem) << e.what();
      }
   }
}

TEST(VorpaMount, SegmentOutlivesItsWriterUntilRemoved) {
   const TestSupport::ScopedTableName name("removed");
   { Table::create(name, 4); }
   EXPECT_NO_THROW(Reader::mount(name)) << "the segment outlives its writer";
   Vorpa::Segment::remove(name);
   EXPECT_THROW(Reader::mount(name), Vorpa::MountError);
}

// A damaged slot and a damaged header byte, made after the reader mounted:
// the reader reports both and goes on serving the intact entries; the writer
// raises its assertion when it meets the damaged slot.
TEST(VorpaCorruption, ReaderReportsDamagedSlotAndHeaderAndKeepsRunning) {
   const TestSupport::ScopedTableName name("corrupt");
   Table table = Table::create(name, 8);
   const Value damaged = Value::of(0x5eed5eed);
   ASSERT_TRUE(table.entryIs(Key{1, 1}, Value::of(1)));
   ASSERT_TRUE(table.entryIs(Key{2, 2}, damaged));
   ASSERT_TRUE(table.entryIs(Key{3, 3}, Value::of(3)));
   const Reader reader = Reader::mount(name);
   SegmentBytes bytes(name);

   bytes.bytes()[bytes.find(&damaged, sizeof damaged) + 100] ^= 0x04;
   Value v;
   EXPECT_EQ(reader.entry(Key{2, 2}, v), Vorpa::ReadStatus::corrupt);
   EXPECT_EQ(reader.entry(Key{1, 1}, v), Vorpa::ReadStatus::ok);
   EXPECT_EQ(v, Value::of(1));
   Kel::U32 listed = 0;
   const Vorpa::ScanResult scan = reader.forEach([&](const Key& k, const Value& value) {
      ++listed;
      EXPECT_EQ(value, Value::of(k.id));
   });
   EXPECT_EQ(scan.entries, 2u);
   EXPECT_EQ(listed, 2u);
   EXPECT_EQ(scan.corrupt, 1u);
   EXPECT_EQ(reader.validate().corrupt, 1u);
   EXPECT_TRUE(reader.headerIntact());

   bytes.bytes()[geometryOffset] ^= 0x10;
   EXPECT_FALSE(reader.headerIntact());
   EXPECT_EQ(reader.entry(Key{3, 3}, v), Vorpa::ReadStatus::ok) << "offsets come from the mount";
   EXPECT_EQ(v, Value::of(3));
   try {
      Reader::mount(name);
      ADD_FAILURE() << "mounted a damaged header";
   } catch (const Vorpa::MountError& e) {
      EXPECT_EQ(e.problem(), Vorpa::MountProblem::corrupt);
   }

   try {
      table.entry(Key{2, 2});
      ADD_FAILURE() << "the writer read a damaged slot";
   } catch (const Kel::AssertionError& e) {
      EXPECT_STREQ(e.what(), "VorpaMap::safeRead() bad checksum");
   }
   EXPECT_EQ(reader.corruptionCount(), 1u) << "the writer records what it met";
}

TEST(VorpaCorruption, DamagedChangeRecordIsReportedNotFollowed) {
   const TestSupport::ScopedTableName name("ring");
   Table table = Table::create(name, 8);
   const Reader reader = Reader::mount(name);
   Kel::U64 cursor = reader.changeSeq();
   const Key key{0xc0ffee, 7};
   ASSERT_TRUE(table.entryIs(key, Value::of(1)));
   // A change record: sequence number, kind (1: upserted), reserved, key.
   struct {
      Kel::U64 seq;
      Kel::U32 kind;
      Kel::U32 reserved;
      Key key;
   } record{table.changeSeq(), 1, 0, key};
   SegmentBytes bytes(name);
   bytes.bytes()[bytes.find(&record, sizeof record) + 8] = 0x7f;
   std::vector<Vorpa::Change<Key>> changes;
   EXPECT_EQ(reader.changesSince(cursor, changes), Vorpa::FollowStatus::corrupt);
   EXPECT_TRUE(changes.empty());
   EXPECT_EQ(cursor, table.changeSeq()) << "the reader moves past it and resynchronises";
   Value v;
   EXPECT_EQ(reader.entry(key, v), Vorpa::ReadStatus::ok);
}

}  // namespace
