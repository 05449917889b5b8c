#include <gtest/gtest.h>

#include <memory>

#include "Bexa/TaskScheduler.h"
#include "Kel/Exception.h"
#include "Kel/System.h"

namespace {

using Bexa::Task;

class TaskSchedulerTest : public ::testing::Test {
 protected:
   // Records "name@time" (time relative to the start) whenever a task runs.
   std::unique_ptr<Task> task(const Kel::Name& name, int priority = 2,
                              std::function<void()> extra = {}) {
      return std::make_unique<Task>(
          sched_, name, Bexa::TaskPriority(priority), [this, name, extra] {
             ran_.push_back(fmt::format("{}@{}", name, Kel::System::currentTime() - start_));
             if (extra) {
                extra();
             }
          });
   }

   Kel::ScopedManualClock clock_;
   Kel::Seconds start_ = Kel::System::currentTime();
   Kel::Ptr<Bexa::TaskSchedulerRoot> sched_ = Kel::makePtr<Bexa::TaskSchedulerRoot>();
   std::vector<Kel::String> ran_;
};

TEST_F(TaskSchedulerTest, ReadyTasksRunByPriorityThenFifo) {
   auto a = task("a", 3), b = task("b", 2), c = task("c", 3), d = task("d", 0), e = task("e", 2);
   for (Task* t : {a.get(), b.get(), c.get(), d.get(), e.get()}) {
      t->scheduleTask();
   }
   b->scheduleTask();  // already ready: keeps its place
   sched_->runFor(0);
   EXPECT_EQ(ran_, (std::vector<Kel::String>{"d@0", "b@0", "e@0", "a@0", "c@0"}));
}

// Successive calls 0.5 s apart on one task, each row on a fresh scheduler:
// the earlier deadline wins, and a ready task has nothing pending. (A later
// call that does not push the deadline out, and stopTask() cancelling a
// pending one: see OptionsDataExportTest's UpdatesCoalesceForOneSecond... and
// PeriodicTransmissionDiscardsQueuedUpdates.)
TEST_F(TaskSchedulerTest, LowestDelayKeepsTheEarlierDeadline) {
   const struct {
      std::vector<double> delays;  // scheduleTaskLowestDelay; < 0: scheduleTask
      std::vector<Kel::String> expected;
   } cases[] = {{{5.0, 1.0}, {"t@1.5"}}, {{0.0}, {"t@0"}}, {{5.0, -1, 0.5}, {"t@0.5", "t@1.5"}}};
   for (const auto& c : cases) {
      sched_ = Kel::makePtr<Bexa::TaskSchedulerRoot>();
      start_ = Kel::System::currentTime();
      ran_.clear();
      auto t = task("t");
      for (std::size_t i = 0; i < c.delays.size(); ++i) {
         sched_->runFor(i > 0 ? 0.5 : 0.0);
         if (c.delays[i] < 0) {
            t->scheduleTask();
         } else {
            t->scheduleTaskLowestDelay(c.delays[i]);
         }
      }
      sched_->runFor(20.0);
      EXPECT_EQ(ran_, c.expected);
   }
}

// A long task yields as soon as a higher-priority one is ready (yielding once
// the slice is used up is checked by the options data exporter's flush in
// tests/Ipfix/OptionsDataExporterSmTest).
TEST_F(TaskSchedulerTest, LongTaskYieldsToAHigherPriorityTask) {
   auto urgent = task("urgent", 1);
   auto peer = task("peer", 3);
   int steps = 0;
   std::unique_ptr<Task> worker;
   worker = task("worker", 3, [&] {
      while (steps < 10 && !sched_->shouldYield()) {
         if (++steps == 3) {
            peer->scheduleTask();  // same priority: no reason to yield
         } else if (steps == 6) {
            urgent->scheduleTask();
         }
      }
      if (steps < 10) {
         worker->scheduleTask();
      }
   });
   worker->scheduleTask();
   sched_->runFor(0);
   EXPECT_EQ(ran_, (std::vector<Kel::String>{"worker@0", "urgent@0", "peer@0", "worker@0"}));
}

// An assertion leaving a task leaves the loop at once, with the next task
// still ready. (An exception is counted and the loop goes on: see
// ExporterTest.SocketOpenFailureLeavesOnlyThatExporterInactive.)
TEST_F(TaskSchedulerTest, AnAssertionLeavesTheLoop) {
   auto broken = task("broken", 1, [] { KEL_ASSERT(1 + 1 == 3); });
   auto good = task("good", 2);
   good->scheduleTask();
   broken->scheduleTask();
   EXPECT_THROW(sched_->runFor(0), Kel::AssertionError);
   EXPECT_EQ(ran_, (std::vector<Kel::String>{"broken@0"}));
   EXPECT_EQ(sched_->currentTask(), nullptr);
   EXPECT_TRUE(good->taskScheduled()) << "the loop was left before it";
}

}  // namespace
