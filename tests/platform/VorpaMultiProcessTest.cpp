#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <optional>

#include "platform/VorpaTestTypes.h"
#include "support/FutexSleeper.h"
#include "support/ScopedTableName.h"

namespace {

using VorpaTest::Key;
using VorpaTest::Reader;
using VorpaTest::Table;
using VorpaTest::Value;

// A child process running `body` with the write end of a pipe; the parent
// reads what it writes, waiting at most a minute for each value, so that a
// child that dies or hangs fails the test instead of hanging it. The child
// leaves with code 1 if `body` throws, and is killed and reaped however the
// test ends.
class Child {
 public:
   explicit Child(const std::function<void(int fd)>& body) {
      EXPECT_EQ(pipe(fds_), 0);
      pid_ = fork();
      EXPECT_GE(pid_, 0);
      if (pid_ == 0) {
         close(fds_[0]);
         try {
            body(fds_[1]);
         } catch (...) {
            _exit(1);
         }
         _exit(0);
      }
      close(fds_[1]);
   }
   ~Child() {
      if (pid_ > 0) {
         kill(pid_, SIGKILL);
         waitpid(pid_, nullptr, 0);
      }
      close(fds_[0]);
   }
   Child(const Child&) = delete;
   Child& operator=(const Child&) = delete;

   pid_t pid() const { return pid_; }
   // The next value the child wrote, or nullopt when none came in time.
   template <class T>
   std::optional<T> next() {
      T value{};
      pollfd p{fds_[0], POLLIN, 0};
      return poll(&p, 1, 60'000) == 1 && read(fds_[0], &value, sizeof value) == sizeof value
                 ? std::optional<T>(value)
                 : std::nullopt;
   }

 private:
   int fds_[2] = {-1, -1};
   pid_t pid_ = -1;
};

template <class T>
void put(int fd, const T& value) {
   if (write(fd, &value, sizeof value) != sizeof value) {
      _exit(1);
   }
}

constexpr Kel::U32 keyCount = 4;
constexpr Kel::U64 writeCount = 1'000'000;
const Key doneKey{1000, 1000};

Key keyOf(Kel::U32 i) {
   return Key{i, i};
}

// The last version the writer stores under key k: the largest n <= writeCount
// with n % keyCount == k.
Kel::U64 finalVersion(Kel::U32 k) {
   return writeCount - ((writeCount - k) % keyCount);
}

struct ReaderReport {
   Kel::U64 readsBeforeDone;
   Kel::U64 torn;
   Kel::U64 regressions;
   Kel::U64 missedFinal;
   Kel::U64 wrongFinal;
};

// The reader follows the change ring as an observer would: for each change it
// copies the entry, and after an overrun it rereads every key; in between it
// copies every key directly, racing the writer. Each copy must
// be intact (all fields from one write) and no older than the last copy of
// that key. Once it sees `doneKey`, what it followed must be the final value
// of every key, and so must a fresh read.
ReaderReport followWrites(const Kel::Name& name, int fd) {
   const Reader reader = Reader::mount(name);
   ReaderReport report{};
   std::array<Kel::U64, keyCount> latest{};
   bool done = false;
   const auto readKey = [&](Kel::U32 k) {
      Value v;
      Vorpa::ReadStatus status;
      do {
         status = reader.entry(keyOf(k), v);
      } while (status == Vorpa::ReadStatus::busy);
      report.readsBeforeDone += !done;
      if (status != Vorpa::ReadStatus::ok || !v.intact()) {
         ++report.torn;
      } else if (v.version < latest[k]) {
         ++report.regressions;
      } else {
         latest[k] = v.version;
      }
   };
   Kel::U64 cursor = reader.changeSeq();
   std::vector<Vorpa::Change<Key>> changes;
   put(fd, 'r');  // ready
   while (!done) {
      changes.clear();
      if (reader.changesSince(cursor, changes) != Vorpa::FollowStatus::ok) {
         // `doneKey` first: when it is there, the keys read next are final.
         Value v;
         done = reader.entry(doneKey, v) == Vorpa::ReadStatus::ok;
         for (Kel::U32 k = 0; k < keyCount; ++k) {
            readKey(k);
         }
      }
      for (const auto& c : changes) {
         if (c.key == doneKey) {
            done = true;
         } else {
            readKey(c.key.id);
         }
      }
      // Direct reads race the writer, which is busy with one of these keys.
      for (Kel::U32 k = 0; k < keyCount; ++k) {
         readKey(k);
      }
      // No sleeping between passes: this reader races the writer, which paces
      // its wake-ups, so a sleep would skip much of the run (sleeping readers
      // are tested below).
   }
   for (Kel::U32 k = 0; k < keyCount; ++k) {
      report.missedFinal += latest[k] != finalVersion(k);
      Value v;
      report.wrongFinal +=
          reader.entry(keyOf(k), v) != Vorpa::ReadStatus::ok || !(v == Value::of(finalVersion(k)));
   }
   return report;
}

TEST(VorpaMultiProcess, ReaderNeverSeesATornEntryNorMissesAFinalValue) {
   const TestSupport::ScopedTableName name("torn");
   Table table = Table::create(name, 64, 256);
   for (Kel::U32 k = 0; k < keyCount; ++k) {
      ASSERT_TRUE(table.entryIs(keyOf(k), Value::of(0)));
   }
   Child child([&](int fd) { put(fd, followWrites(name, fd)); });
   ASSERT_TRUE(child.next<char>()) << "the reader did not start";
   for (Kel::U64 n = 1; n <= writeCount; ++n) {
      table.entryIs(keyOf(static_cast<Kel::U32>(n % keyCount)), Value::of(n));
   }
   table.entryIs(doneKey, Value::of(writeCount));
   const auto reported = child.next<ReaderReport>();
   ASSERT_TRUE(reported) << "the reader reported nothing";
   const ReaderReport& report = *reported;
   EXPECT_GT(report.readsBeforeDone, 1000u) << "the reader did not overlap the writes";
   EXPECT_EQ(report.torn, 0u);
   EXPECT_EQ(report.regressions, 0u);
   EXPECT_EQ(report.missedFinal, 0u);
   EXPECT_EQ(report.wrongFinal, 0u);
}

// A reader asleep in waitForChange (no timeout) is woken by a write in
// another process. The writer wakes readers at most once per spacing, so a
// change soon after a wake-up wakes nobody: a reader that went back to sleep
// just before such a change must still find it, with no later write.
TEST(VorpaMultiProcess, SleepingReaderIsWokenAndFindsAChangeThatWokeNobody) {
   const TestSupport::ScopedTableName name("paced");
   Table table = Table::create(name, 8);
   const Key key{5, 5};
   // The child reports the version it sees after every wait, until killed.
   Child child([&](int fd) {
      const Reader reader = Reader::mount(name);
      Kel::U64 cursor = reader.changeSeq();
      while (true) {
         reader.waitForChange(cursor);
         cursor = reader.changeSeq();
         Value v;
         put(fd, reader.entry(key, v) == Vorpa::ReadStatus::ok ? v.version : Kel::U64{0});
      }
   });
   // The first report of `version` or later; 0 when the reader stopped
   // reporting.
   const auto seen = [&](Kel::U64 version) {
      std::optional<Kel::U64> v;
      while ((v = child.next<Kel::U64>()) && *v < version) {
      }
      return v.value_or(0);
   };
   // Each round: a write that wakes the reader, then, once it sleeps again, a
   // second write. Usually the second one falls within the spacing and wakes
   // nobody, which is the case under test; under heavy load it may not, and
   // the round is repeated.
   bool wokeNobody = false;
   Kel::U64 version = 0;
   for (int round = 0; round < 100 && !wokeNobody; ++round) {
      ASSERT_TRUE(TestSupport::waitUntilAsleepInFutex(child.pid()));
      const auto& generation = table.segment().header().wakeGeneration;
      table.entryIs(key, Value::of(++version));
      ASSERT_EQ(seen(version), version) << "the reader missed a change that woke it";
      ASSERT_TRUE(TestSupport::waitUntilAsleepInFutex(child.pid()));
      const Kel::U32 before = generation.load();
      table.entryIs(key, Value::of(++version));
      wokeNobody = generation.load() == before;
      ASSERT_EQ(seen(version), version) << "the reader slept through a change";
   }
   // Under heavy load every second write may come after the spacing; the
   // reader then was woken each time, and the case was not reached.
   if (!wokeNobody) {
      GTEST_SKIP() << "no change fell within the wake-up spacing in 100 rounds";
   }
}

}  // namespace
