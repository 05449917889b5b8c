#pragma once

#include <array>
#include <optional>
#include <vector>

#include "Bexa/Task.h"
#include "Kel/Ptr.h"

namespace Bexa {

// The run queue (by priority, then first come first served) and the timer heap
// of one thread. Time is Kel::System::currentTime(), so that a manual clock
// turns it into virtual time.
class TaskScheduler : public Kel::PtrInterface {
 public:
   TaskScheduler() = default;
   ~TaskScheduler() override;

   // The task whose action runs right now, or null.
   const Task* currentTask() const noexcept { return current_; }
   // Tells a long-running task to give the turn back: its time slice is used
   // up, or a task of higher priority is ready.
   bool shouldYield() const;
   Kel::Seconds timeSlice() const noexcept { return timeSlice_; }
   void timeSliceIs(Kel::Seconds slice) noexcept { timeSlice_ = slice; }

   // Runs the first ready task, after making due timers ready. False when
   // nothing was ready.
   bool runOnce();
   std::optional<Kel::Seconds> nextDeadline() const;
   std::size_t readyCount() const noexcept { return readyCount_; }
   std::size_t timerCount() const noexcept { return heap_.size(); }

   Kel::U64 tasksRun() const noexcept { return tasksRun_; }
   // Exceptions that left a task: traced, counted, and the loop went on.
   Kel::U64 taskExceptions() const noexcept { return taskExceptions_; }

 private:
   friend class Task;

   struct ReadyList {
      Task* head = nullptr;
      Task* tail = nullptr;
   };

   void readyIs(Task& task);
   void readyDel(Task& task);
   void timerIs(Task& task, Kel::Seconds deadline);
   void timerDel(Task& task);
   void taskDestroyed(Task& task);
   void promoteDueTimers(Kel::Seconds now);
   void runTask(Task& task, Kel::Seconds now);

   static bool earlier(const Task* a, const Task* b);
   void heapSwap(std::size_t i, std::size_t j);
   void siftUp(std::size_t i);
   void siftDown(std::size_t i);

   std::array<ReadyList, taskPriorityCount> ready_{};
   std::size_t readyCount_ = 0;
   std::vector<Task*> heap_;
   Kel::U64 nextTimerSeq_ = 0;
   Task* current_ = nullptr;
   Kel::Seconds turnStart_ = 0;
   Kel::Seconds timeSlice_ = 0.01;
   Kel::U64 tasksRun_ = 0;
   Kel::U64 taskExceptions_ = 0;
};

class TaskSchedulerRoot;

// A descriptor the loop watches for a task: while the watch lives, the loop
// schedules the task whenever the descriptor is readable. Move-only; destroying
// it ends the watch. Declare it after the task it names, so that it goes first.
class [[nodiscard]] FdWatch {
 public:
   FdWatch() = default;
   FdWatch(FdWatch&& other) noexcept;
   FdWatch& operator=(FdWatch&& other) noexcept;
   ~FdWatch();
   FdWatch(const FdWatch&) = delete;
   FdWatch& operator=(const FdWatch&) = delete;

 private:
   friend class TaskSchedulerRoot;
   FdWatch(Kel::Ptr<TaskSchedulerRoot> root, Kel::U64 id);
   void end() noexcept;

   Kel::Ptr<TaskSchedulerRoot> root_;
   Kel::U64 id_ = 0;
};

// The scheduler that owns the thread's loop: runs tasks, advances virtual time
// or waits for real time, and wakes tasks when watched file descriptors become
// readable.
class TaskSchedulerRoot : public TaskScheduler {
 public:
   TaskSchedulerRoot() = default;

   // Runs until stop(). With a virtual clock it also returns once nothing is
   // ready, no timer is pending and no descriptor is watched.
   void run();
   // Runs everything due in the next `seconds`, moving virtual time from
   // deadline to deadline, and returns with the clock at the end of the span.
   void runFor(Kel::Seconds seconds);
   // Makes run() and runFor() return after the current task.
   void stop() noexcept { stopping_ = true; }

   // Schedules `task` whenever `fd` is readable, for as long as the returned
   // watch lives.
   FdWatch fdWatchIs(int fd, Task* task);

 private:
   // Waits until `deadline` (or forever for nullopt), a watched descriptor is
   // readable, or, with a virtual clock, simply moves time there.
   void waitUntil(std::optional<Kel::Seconds> deadline);
   bool pollDescriptors(int timeoutMs);

   friend class FdWatch;
   void fdWatchDel(Kel::U64 id) noexcept;

   struct Watched {
      Kel::U64 id;
      int fd;
      Task* task;
   };
   std::vector<Watched> fdWatches_;
   Kel::U64 lastWatchId_ = 0;
   bool stopping_ = false;
};

}  // namespace Bexa
