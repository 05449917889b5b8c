#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "platform/VorpaTestTypes.h"
#include "support/ScopedTableName.h"

// What other processes' readers rely on: they cannot write the table, names
// are checked before the system sees them, the segment is readable by all and
// writable by its owner only, and a writer never takes another user's over.
namespace {

using VorpaTest::mountProblem;
using VorpaTest::problemOf;
using VorpaTest::Reader;
using VorpaTest::Table;

// The permission bits of the named object.
mode_t objectMode(const std::string& name) {
   return static_cast<mode_t>(std::filesystem::status("/dev/shm/" + name).permissions());
}

// A shared mapping of a descriptor opened read-only can never gain write
// access (one of a read-write descriptor, or a private copy, could), so a
// write through any reader's mapping faults.
TEST(VorpaSegmentSafety, ReaderMappingsCannotBeWritten) {
   const TestSupport::ScopedTableName name("readonly");
   const Table named = Table::create(name, 4);
   const Table anonymous = Table::createAnonymous("readonly", 4);
   const Reader readers[] = {Reader::mount(name), Reader::attach(named), Reader::attach(anonymous)};
   for (const Reader& reader : readers) {
      std::byte* page = reader.segment().slot(0);
      errno = 0;
      EXPECT_NE(mprotect(page, Vorpa::pageSize, PROT_READ | PROT_WRITE), 0);
      EXPECT_EQ(errno, EACCES);
   }
}

// A bad name is refused with invalidName by writer and reader alike, even
// names the system itself would accept ("a b", "a\n"). A valid one makes a
// segment readable by all and writable by its owner whatever the umask.
TEST(VorpaSegmentSafety, NamesAreCheckedAndSegmentsAreMode0644) {
   const TestSupport::ScopedTableName unique("name");
   const std::string u = unique.str();
   const std::size_t maxLength = Vorpa::Segment::maxNameLength;
   const struct {
      std::string name;
      bool valid;
      mode_t umask = 0;
   } cases[] = {
       {u, true, 0},
       {u + std::string(maxLength - u.size(), 'x'), true, 0777},
       {u + std::string(maxLength + 1 - u.size(), 'x'), false},
       {".", false},
       {"..", false},
       {u + " x", false},
       {u + "\n", false},
       {u + std::string(1, '\0') + "x", false},
       {u + "*", false},
   };
   const auto invalid = std::optional(Vorpa::MountProblem::invalidName);
   for (const auto& c : cases) {
      SCOPED_TRACE(testing::PrintToString(c.name));
      const auto problem = c.valid ? std::nullopt : invalid;
      const mode_t before = umask(c.umask);
      EXPECT_EQ(problemOf([&] { Table::create(c.name, 4); }), problem);
      umask(before);
      EXPECT_EQ(mountProblem(c.name), problem);
      if (c.valid) {
         EXPECT_EQ(objectMode(c.name), mode_t{0644});
         Vorpa::Segment::remove(c.name);
      }
   }
}

// live() tells a reader whether its segment is still the one of its name: a
// writer replaces its own user's earlier segment, never another user's.
TEST(VorpaSegmentSafety, LiveTellsWhetherTheNameStillRefersToTheSegment) {
   const TestSupport::ScopedTableName name("live");
   const Table table = Table::create(name, 4);
   const Reader mounted = Reader::mount(name);
   const Reader attached = Reader::attach(table);
   EXPECT_TRUE(mounted.live()) << "writer running";
   {
      const Table restarted = Table::create(name, 4);
      EXPECT_FALSE(mounted.live()) << "writer restarted";
      EXPECT_FALSE(attached.live()) << "attached to a writer that restarted";
   }
   const Reader remounted = Reader::mount(name);
   EXPECT_TRUE(remounted.live()) << "writer gone, segment left";
   Vorpa::Segment::remove(name);
   EXPECT_FALSE(remounted.live()) << "segment removed";
   const Table anonymous = Table::createAnonymous("live", 4);
   EXPECT_TRUE(Reader::attach(anonymous).live()) << "anonymous";

   // A writer refuses another user's segment, which stays as it was.
   const Table earlier = Table::create(name, 4);
   const uid_t otherUser = geteuid() == 65534 ? 65533 : 65534;
   if (chown(("/dev/shm/" + name.str()).c_str(), otherUser, static_cast<gid_t>(-1)) != 0) {
      GTEST_SKIP() << "giving a segment to another user needs privileges";
   }
   const Reader othersReader = Reader::mount(name);
   EXPECT_EQ(problemOf([&] { Table::create(name, 4); }), Vorpa::MountProblem::system);
   EXPECT_TRUE(othersReader.live()) << "the other user's segment was replaced";
}

}  // namespace
