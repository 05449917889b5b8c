#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>

#include "Bexa/TaskScheduler.h"
#include "Kel/Exception.h"
#include "Kel/System.h"
#include "Kel/Trace.h"

namespace {

using Bexa::Task;
using Bexa::TaskPriority;

class TaskSchedulerTest : public ::testing::Test {
 protected:
   // Records "name@time" (time relative to the start) whenever a task runs.
   std::unique_ptr<Task> task(const Kel::Name& name, int priority = 2,
                              std::function<void()> extra = {}) {
      return std::make_unique<Task>(sched_, name, TaskPriority(priority), [this, name, extra] {
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
   EXPECT_EQ(sched_->tasksRun(), 5u);
}

TEST_F(TaskSchedulerTest, VirtualTimeRunsTimersInDeadlineOrderInstantly) {
   auto a = task("a"), b = task("b"), c = task("c");
   std::unique_ptr<Task> periodic;
   periodic = task("p", 2, [&] { periodic->scheduleTaskLowestDelay(4.0); });
   a->scheduleTaskLowestDelay(7.0);
   b->scheduleTaskLowestDelay(0.5);
   c->scheduleTaskLowestDelay(3.0);
   periodic->scheduleTaskLowestDelay(4.0);
   sched_->runFor(10.0);
   EXPECT_EQ(ran_, (std::vector<Kel::String>{"b@0.5", "c@3", "p@4", "a@7", "p@8"}));
   EXPECT_DOUBLE_EQ(Kel::System::currentTime() - start_, 10.0);
   EXPECT_TRUE(periodic->taskScheduled());
   EXPECT_DOUBLE_EQ(periodic->deadline() - start_, 12.0);
}

TEST_F(TaskSchedulerTest, LowestDelayKeepsTheEarlierDeadline) {
   const struct {
      const char* name;
      std::vector<double> delays;  // successive scheduleTaskLowestDelay calls, 0.5 s apart
      const char* expected;
   } cases[] = {
       {"later call does not push out", {1.0, 5.0}, "t@1"},
       {"earlier call pulls in", {5.0, 1.0}, "t@1.5"},
       {"coalescing burst", {1.0, 1.0}, "t@1"},
       {"zero delay is due now", {0.0}, "t@0"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      ran_.clear();
      start_ = Kel::System::currentTime();
      auto t = task("t");
      for (std::size_t i = 0; i < c.delays.size(); ++i) {
         if (i > 0) {
            sched_->runFor(0.5);
         }
         t->scheduleTaskLowestDelay(c.delays[i]);
      }
      sched_->runFor(20.0);
      EXPECT_EQ(ran_, std::vector<Kel::String>{c.expected});
   }
}

TEST_F(TaskSchedulerTest, ReadyWinsOverPendingDelayAndStopCancels) {
   auto t = task("t");
   t->scheduleTaskLowestDelay(5.0);
   t->scheduleTask();
   EXPECT_EQ(sched_->timerCount(), 0u);
   t->scheduleTaskLowestDelay(1.0);  // already ready: nothing later
   sched_->runFor(10.0);
   EXPECT_EQ(ran_, std::vector<Kel::String>{"t@0"});

   t->scheduleTaskLowestDelay(1.0);
   t->stopTask();
   EXPECT_FALSE(t->taskScheduled());
   sched_->runFor(10.0);
   EXPECT_EQ(ran_.size(), 1u);
}

TEST_F(TaskSchedulerTest, DestroyedTasksNeverRun) {
   auto keep = task("keep");
   auto gone = task("gone");
   auto goneTimer = task("goneTimer");
   std::unique_ptr<Task> self;
   self = task("self", 2, [&] { self.reset(); });
   gone->scheduleTask();
   goneTimer->scheduleTaskLowestDelay(1.0);
   keep->scheduleTaskLowestDelay(2.0);
   self->scheduleTask();
   gone.reset();
   goneTimer.reset();
   sched_->runFor(5.0);
   EXPECT_EQ(ran_, (std::vector<Kel::String>{"self@0", "keep@2"}));
   EXPECT_EQ(self, nullptr);
}

TEST_F(TaskSchedulerTest, CurrentlyRunningOnlyInsideOwnRun) {
   std::unique_ptr<Task> a, b;
   std::vector<bool> seen;
   a = task("a", 2, [&] { seen = {a->taskCurrentlyRunning(), b->taskCurrentlyRunning()}; });
   b = task("b");
   a->scheduleTask();
   b->scheduleTask();
   EXPECT_FALSE(a->taskCurrentlyRunning());
   sched_->runFor(0);
   EXPECT_EQ(seen, (std::vector<bool>{true, false}));
   EXPECT_FALSE(a->taskCurrentlyRunning());
}

TEST_F(TaskSchedulerTest, LongTaskYieldsToHigherPriorityAndAfterItsSlice) {
   auto urgent = task("urgent", 1);
   int steps = 0;
   std::unique_ptr<Task> worker;
   worker = task("worker", 3, [&] {
      while (steps < 10 && !sched_->shouldYield()) {
         ++steps;
         if (steps == 3) {
            urgent->scheduleTask();
         }
      }
      if (steps < 10) {
         worker->scheduleTask();
      }
   });
   worker->scheduleTask();
   sched_->runOnce();
   EXPECT_EQ(steps, 3);
   sched_->runFor(0);
   EXPECT_EQ(ran_, (std::vector<Kel::String>{"worker@0", "urgent@0", "worker@0"}));
   EXPECT_EQ(steps, 10);

   sched_->timeSliceIs(0);  // every check says the slice is used up
   steps = 0;
   worker->scheduleTask();
   sched_->runOnce();
   EXPECT_EQ(steps, 0);
   EXPECT_FALSE(sched_->shouldYield()) << "outside a task there is nothing to yield";
}

TEST_F(TaskSchedulerTest, ExceptionLeavingTaskIsTracedCountedAndLoopGoesOn) {
   Kel::TraceCapture capture("Bexa", 1);
   auto bad = task("bad", 1, [] { throw Kel::ErrnoException(ENOBUFS, "send"); });
   // One that code on the way out has traced already is only counted.
   auto reported = task("reported", 1, [] {
      Kel::ErrnoException e(EACCES, "open");
      e.reportedIs(true);
      throw e;
   });
   auto good = task("good");
   bad->scheduleTask();
   reported->scheduleTask();
   good->scheduleTask();
   sched_->runFor(0);
   EXPECT_EQ(ran_, (std::vector<Kel::String>{"bad@0", "reported@0", "good@0"}));
   EXPECT_EQ(sched_->taskExceptions(), 2u);
   EXPECT_EQ(capture.lines(1),
             std::vector<Kel::String>{
                 "Caught exception in task bad: send: No buffer space available (errno 105)"});
}

TEST_F(TaskSchedulerTest, AssertionLeavesTheLoop) {
   auto broken = task("broken", 2, [] { KEL_ASSERT(1 + 1 == 3); });
   auto after = task("after");
   broken->scheduleTask();
   after->scheduleTask();
   EXPECT_THROW(sched_->runFor(0), Kel::AssertionError);
   EXPECT_EQ(sched_->currentTask(), nullptr);
   EXPECT_TRUE(after->taskScheduled());
}

TEST_F(TaskSchedulerTest, RunReturnsWhenVirtualTimeHasNothingLeftAndStopEndsIt) {
   std::unique_ptr<Task> t;
   int runs = 0;
   t = task("t", 2, [&] {
      if (++runs < 3) {
         t->scheduleTaskLowestDelay(1.0);
      }
   });
   t->scheduleTask();
   sched_->run();
   EXPECT_EQ(runs, 3);

   std::unique_ptr<Task> forever;
   forever = task("forever", 2, [&] {
      forever->scheduleTaskLowestDelay(1.0);
      if (ran_.size() == 6) {
         sched_->stop();
      }
   });
   forever->scheduleTask();
   sched_->run();
   EXPECT_EQ(ran_.size(), 6u);
}

TEST_F(TaskSchedulerTest, ReadableDescriptorSchedulesItsTask) {
   int fds[2];
   ASSERT_EQ(pipe(fds), 0);
   int reads = 0;
   auto reader = task("reader", 2, [&] {
      char c;
      reads += static_cast<int>(read(fds[0], &c, 1));
      sched_->stop();
   });
   auto watch = sched_->fdWatchIs(fds[0], reader.get());
   sched_->runFor(1.0);
   EXPECT_EQ(reads, 0);
   ASSERT_EQ(write(fds[1], "x", 1), 1);
   sched_->run();
   EXPECT_EQ(reads, 1);
   // Once the watch is gone, virtual time with nothing left ends run().
   watch = {};
   ASSERT_EQ(write(fds[1], "y", 1), 1);
   sched_->run();
   EXPECT_EQ(reads, 1);
   close(fds[0]);
   close(fds[1]);
}

// Message headers take whole seconds from the cheap clock: it must be the
// wall clock (not, say, the time since boot), at most a tick behind, and the
// virtual clock must give the same as its own utc().
TEST(Clock, WholeUtcSecondsAreTheWallClocks) {
   const Kel::SystemClock real;
   const double before = real.utc();
   const auto seconds = static_cast<double>(real.utcSeconds());
   EXPECT_LE(seconds, real.utc());
   EXPECT_GT(seconds, before - 1.5);  // floor, and up to a tick behind
   Kel::ScopedManualClock manual(1000.0, 1.7e9 + 0.75);
   EXPECT_EQ(Kel::System::currentTimeUtcSeconds(), 1'700'000'000u);
}

}  // namespace
