#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <optional>

#include "Vorpa/TableReader.h"
#include "platform/VorpaTestTypes.h"
#include "support/ScopedTableName.h"

// What other processes' readers rely on: they cannot write the table, names
// are checked before the system sees them, the segment is readable by all and
// writable by its owner only, and a writer never takes another user's over.
namespace {

using VorpaTest::Key;
using VorpaTest::Value;
using Table = Vorpa::Table<Key, Value>;
using Reader = Vorpa::TableReader<Key, Value>;

// The mode of the named object, or nullopt when there is none.
std::optional<mode_t> objectMode(const std::string& name) {
   const int fd = shm_open(("/" + name).c_str(), O_RDONLY, 0);
   if (fd < 0) {
      return std::nullopt;
   }
   struct stat st {};
   const int statted = fstat(fd, &st);
   close(fd);
   return statted == 0 ? std::optional<mode_t>(st.st_mode & 07777) : std::nullopt;
}

// In a child process: the reader `mountReader` returns must refuse to make
// its mapping writable, and a write through it must kill the process with
// SIGSEGV. The child's exit code says which check failed.
TEST(VorpaSegmentSafety, ReaderMappingsCannotBeWritten) {
   const TestSupport::ScopedTableName name("readonly");
   const Table named = Table::create(name, 4);
   const Table anonymous = Table::createAnonymous("readonly", 4);
   const struct {
      const char* what;
      std::function<Reader()> mountReader;
   } cases[] = {
       {"mounted by name", [&] { return Reader::mount(name); }},
       {"attached to a named table", [&] { return Reader::attach(named); }},
       {"attached to an anonymous table", [&] { return Reader::attach(anonymous); }},
   };
   enum : int { mountFailed = 2, madeWritable = 3, writeSurvived = 4 };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.what);
      const pid_t pid = fork();
      if (pid == 0) {
         try {
            const Reader reader = c.mountReader();
            std::byte* page = reader.segment().slot(0);
            // A mapping of a descriptor opened read-only can never gain write
            // access; one opened read-write could.
            if (mprotect(page, Vorpa::pageSize, PROT_READ | PROT_WRITE) == 0 || errno != EACCES) {
               _exit(madeWritable);
            }
            signal(SIGSEGV, SIG_DFL);
            *reinterpret_cast<volatile unsigned char*>(page) = 0xff;
            _exit(writeSurvived);
         } catch (...) {
            _exit(mountFailed);
         }
      }
      int status = 0;
      ASSERT_EQ(waitpid(pid, &status, 0), pid);
      EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV)
          << (WIFEXITED(status) ? "exit code " + std::to_string(WEXITSTATUS(status))
                                : "signal " + std::to_string(WTERMSIG(status)));
   }
   EXPECT_EQ(Reader::mount(name).validate().corrupt, 0u);
}

// A bad name is refused with invalidName by writer and reader alike, before
// any system call: names that the system itself would accept ("a b", "a\n")
// create nothing and do not mount an object of that name that exists.
TEST(VorpaSegmentSafety, NamesAreCheckedBeforeAnySystemCall) {
   const TestSupport::ScopedTableName unique("name");
   const std::string u = unique.str();
   const std::size_t maxLength = Vorpa::Segment::maxNameLength;
   const struct {
      std::string name;
      bool valid;
   } cases[] = {
       {u, true},
       {u + ".A_b-9", true},
       {u + std::string(maxLength - u.size(), 'x'), true},
       {u + std::string(maxLength + 1 - u.size(), 'x'), false},
       {"", false},
       {".", false},
       {"..", false},
       {"/" + u, false},
       {u + "/x", false},
       {u + " x", false},
       {u + "\n", false},
       {u + "\xc3\xa9", false},
       {u + std::string(1, '\0') + "x", false},
       {u + "*", false},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(testing::PrintToString(c.name));
      if (c.valid) {
         {
            const Table table = Table::create(c.name, 4);
            EXPECT_NO_THROW(Reader::mount(c.name));
         }
         Vorpa::Segment::remove(c.name);
         continue;
      }
      // What the system would make of the name, had it been passed on.
      const std::string object = "/" + c.name;
      const bool systemAccepts = c.name.size() < 255 && c.name.find('/') == std::string::npos &&
                                 c.name.find('\0') == std::string::npos && !c.name.empty() &&
                                 c.name != "." && c.name != "..";
      const auto expectInvalidName = [&](const std::function<void()>& f, const char* who) {
         try {
            f();
            ADD_FAILURE() << who << " accepted it";
         } catch (const Vorpa::MountError& e) {
            EXPECT_EQ(e.problem(), Vorpa::MountProblem::invalidName) << who << ": " << e.what();
            EXPECT_EQ(std::string(e.what()).find('\n'), std::string::npos) << "one line";
         }
      };
      expectInvalidName([&] { Table::create(c.name, 4); }, "writer");
      if (systemAccepts) {
         EXPECT_FALSE(objectMode(c.name)) << "the writer created it";
         // An object of that name, made behind the library's back, is not
         // even looked at (it would be "not created yet").
         const int fd = shm_open(object.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600);
         ASSERT_GE(fd, 0);
         close(fd);
      }
      expectInvalidName([&] { Reader::mount(c.name); }, "reader");
      if (systemAccepts) {
         shm_unlink(object.c_str());
      }
   }
}

TEST(VorpaSegmentSafety, SegmentIsCreatedWithMode0644WhateverTheUmask) {
   for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{077}, mode_t{0777}}) {
      SCOPED_TRACE(mask);
      const TestSupport::ScopedTableName name("mode");
      const mode_t before = umask(mask);
      std::optional<Table> table;
      EXPECT_NO_THROW(table.emplace(Table::create(name, 4)));
      umask(before);
      EXPECT_EQ(objectMode(name), mode_t{0644});
   }
}

// The writer replaces what an earlier writer of its own user left, and
// refuses another user's segment, which stays as it was.
TEST(VorpaSegmentSafety, WriterRefusesAnotherUsersSegment) {
   const TestSupport::ScopedTableName name("owner");
   const Table earlier = Table::create(name, 4);
   const Reader earlierReader = Reader::mount(name);
   EXPECT_NO_THROW(Table::create(name, 4));
   EXPECT_FALSE(earlierReader.live()) << "replaced";

   const uid_t otherUser = geteuid() == 65534 ? 65533 : 65534;
   const int fd = shm_open(("/" + name.str()).c_str(), O_RDONLY, 0);
   ASSERT_GE(fd, 0);
   const bool given = fchown(fd, otherUser, static_cast<gid_t>(-1)) == 0;
   close(fd);
   if (!given) {
      GTEST_SKIP() << "giving a segment to another user needs privileges";
   }
   const Reader othersReader = Reader::mount(name);
   try {
      Table::create(name, 4);
      ADD_FAILURE() << "took another user's segment over";
   } catch (const Vorpa::MountError& e) {
      EXPECT_EQ(e.problem(), Vorpa::MountProblem::system);
      EXPECT_NE(std::string(e.what()).find("belongs to user " + std::to_string(otherUser)),
                std::string::npos)
          << e.what();
   }
   EXPECT_TRUE(othersReader.live()) << "the other user's segment was replaced";
}

// live() tells a reader whether its segment is still the one of its name.
TEST(VorpaSegmentSafety, LiveTellsWhetherTheNameStillRefersToTheSegment) {
   const struct {
      const char* what;
      std::function<bool(const std::string& name)> liveAfter;
      bool live;
   } cases[] = {
       {"writer running",
        [](const std::string& name) {
           const Table table = Table::create(name, 4);
           return Reader::mount(name).live();
        },
        true},
       {"writer gone, segment left",
        [](const std::string& name) {
           { Table::create(name, 4); }
           return Reader::mount(name).live();
        },
        true},
       {"writer restarted",
        [](const std::string& name) {
           Table table = Table::create(name, 4);
           const Reader reader = Reader::mount(name);
           table = Table::create(name, 4);
           return reader.live();
        },
        false},
       {"attached to a writer that restarted",
        [](const std::string& name) {
           Table table = Table::create(name, 4);
           const Reader reader = Reader::attach(table);
           Table again = Table::create(name, 4);
           return reader.live();
        },
        false},
       {"segment removed",
        [](const std::string& name) {
           const Table table = Table::create(name, 4);
           const Reader reader = Reader::mount(name);
           Vorpa::Segment::remove(name);
           return reader.live();
        },
        false},
       {"anonymous",
        [](const std::string&) {
           const Table table = Table::createAnonymous("live", 4);
           return Reader::attach(table).live();
        },
        true},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.what);
      const TestSupport::ScopedTableName name("live");
      EXPECT_EQ(c.liveAfter(name), c.live);
   }
}

}  // namespace
