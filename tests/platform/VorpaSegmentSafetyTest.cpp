#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

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
      bool systemAccepts = false;  // what the system would make of it
   } cases[] = {
       {u, true},
       {u + std::string(maxLength - u.size(), 'x'), true},
       {u + std::string(maxLength + 1 - u.size(), 'x'), false},
       {".", false},
       {"..", false},
       {u + " x", false, true},
       {u + "\n", false, true},
       {u + std::string(1, '\0') + "x", false},
       {u + "*", false, true},
   };
   const auto invalid = std::optional(Vorpa::MountProblem::invalidName);
   for (const auto& c : cases) {
      SCOPED_TRACE(testing::PrintToString(c.name));
      if (c.valid) {
         {
            const Table table = Table::create(c.name, 4);
            EXPECT_EQ(mountProblem(c.name), std::nullopt);
         }
         Vorpa::Segment::remove(c.name);
         continue;
      }
      EXPECT_EQ(problemOf([&] { Table::create(c.name, 4); }), invalid);
      // An object of that name, made behind the library's back (which fails
      // if the writer made one), is not even looked at.
      const std::string object = "/" + c.name;
      const int fd =
          c.systemAccepts ? shm_open(object.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600) : -1;
      EXPECT_EQ(fd >= 0, c.systemAccepts) << "the writer created it";
      EXPECT_EQ(mountProblem(c.name), invalid);
      if (fd >= 0) {
         close(fd);
         shm_unlink(object.c_str());
      }
   }
}

// The segment is readable by all and writable by its owner whatever the
// umask; a writer refuses another user's segment, which stays as it was (its
// own user's earlier segment it replaces: see LiveTells... below).
TEST(VorpaSegmentSafety, SegmentIsMode0644AndAnotherUsersIsNotTakenOver) {
   for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{077}, mode_t{0777}}) {
      SCOPED_TRACE(mask);
      const TestSupport::ScopedTableName name("mode");
      const mode_t before = umask(mask);
      std::optional<Table> table;
      EXPECT_NO_THROW(table.emplace(Table::create(name, 4)));
      umask(before);
      EXPECT_EQ(objectMode(name), mode_t{0644});
   }

   const TestSupport::ScopedTableName name("owner");
   const Table earlier = Table::create(name, 4);
   const uid_t otherUser = geteuid() == 65534 ? 65533 : 65534;
   const int fd = shm_open(("/" + name.str()).c_str(), O_RDONLY, 0);
   ASSERT_GE(fd, 0);
   const bool given = fchown(fd, otherUser, static_cast<gid_t>(-1)) == 0;
   close(fd);
   if (!given) {
      GTEST_SKIP() << "giving a segment to another user needs privileges";
   }
   const Reader othersReader = Reader::mount(name);
   EXPECT_EQ(problemOf([&] { Table::create(name, 4); }), Vorpa::MountProblem::system);
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
