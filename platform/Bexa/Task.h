#pragma once

#include <functional>
#include <limits>

#include "Kel/Ptr.h"
#include "Kel/Types.h"

namespace Bexa {

class TaskScheduler;

// Lower values run first; tasks of equal priority run in the order they
// became ready.
enum class TaskPriority : Kel::U8 {};
constexpr std::size_t taskPriorityCount = 16;

// A named unit of deferred work. The owner keeps the Task; destroying it
// cancels whatever is scheduled, even from inside its own run.
class Task {
 public:
   using Action = std::function<void()>;

   Task(Kel::Ptr<TaskScheduler> scheduler, Kel::Name name, TaskPriority priority, Action action);
   ~Task();
   Task(const Task&) = delete;
   Task& operator=(const Task&) = delete;

   // Runs the task on a coming turn of the scheduler.
   void scheduleTask();
   // Runs the task `delay` seconds from now, unless it is already due earlier
   // (or ready): an earlier deadline is kept, a later one never replaces it.
   void scheduleTaskLowestDelay(Kel::Seconds delay);
   // Cancels a pending run.
   void stopTask();

   bool taskScheduled() const noexcept { return ready_ || heapIndex_ != notInHeap; }
   // True only while the task's own action runs.
   bool taskCurrentlyRunning() const noexcept;
   // The pending deadline; infinity unless a delayed run is pending.
   Kel::Seconds deadline() const noexcept;

   const Kel::Name& name() const noexcept { return name_; }
   TaskPriority priority() const noexcept { return priority_; }
   const Kel::Ptr<TaskScheduler>& scheduler() const noexcept { return scheduler_; }

 private:
   friend class TaskScheduler;
   static constexpr std::size_t notInHeap = std::numeric_limits<std::size_t>::max();

   Kel::Ptr<TaskScheduler> scheduler_;
   Kel::Name name_;
   TaskPriority priority_;
   Action action_;

   // Ready-list links, owned by the scheduler.
   Task* prev_ = nullptr;
   Task* next_ = nullptr;
   bool ready_ = false;
   // Timer-heap position and ordering, owned by the scheduler.
   std::size_t heapIndex_ = notInHeap;
   Kel::Seconds deadline_ = 0;
   Kel::U64 timerSeq_ = 0;
};

}  // namespace Bexa
