#include "Bexa/Task.h"

#include "Bexa/TaskScheduler.h"
#include "Kel/Exception.h"
#include "Kel/System.h"

namespace Bexa {

Task::Task(Kel::Ptr<TaskScheduler> scheduler, Kel::Name name, TaskPriority priority, Action action)
    : scheduler_(std::move(scheduler)),
      name_(std::move(name)),
      priority_(priority),
      action_(std::move(action)) {
   KEL_ASSERT(scheduler_);
   KEL_ASSERT(static_cast<std::size_t>(priority_) < taskPriorityCount);
}

Task::~Task() {
   scheduler_->taskDestroyed(*this);
}

void Task::scheduleTask() {
   if (ready_) {
      return;
   }
   scheduler_->timerDel(*this);
   scheduler_->readyIs(*this);
}

void Task::scheduleTaskLowestDelay(Kel::Seconds delay) {
   if (ready_) {
      return;
   }
   const Kel::Seconds deadline = Kel::System::currentTime() + (delay > 0 ? delay : 0);
   if (heapIndex_ != notInHeap && deadline_ <= deadline) {
      return;
   }
   scheduler_->timerIs(*this, deadline);
}

void Task::stopTask() {
   scheduler_->readyDel(*this);
   scheduler_->timerDel(*this);
}

bool Task::taskCurrentlyRunning() const noexcept {
   return scheduler_->currentTask() == this;
}

Kel::Seconds Task::deadline() const noexcept {
   return heapIndex_ == notInHeap ? std::numeric_limits<Kel::Seconds>::infinity() : deadline_;
}

}  // namespace Bexa
