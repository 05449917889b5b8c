#include "Bexa/TaskScheduler.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <utility>

#include "Kel/Exception.h"
#include "Kel/System.h"
#include "Kel/Trace.h"
#include "Kel/TurnEnd.h"

namespace Bexa {

namespace {
Kel::TraceHandle traceBexa("Bexa");
}

TaskScheduler::~TaskScheduler() = default;

void TaskScheduler::readyIs(Task& task) {
   ReadyList& list = ready_[static_cast<std::size_t>(task.priority_)];
   task.prev_ = list.tail;
   task.next_ = nullptr;
   (list.tail ? list.tail->next_ : list.head) = &task;
   list.tail = &task;
   task.ready_ = true;
   ++readyCount_;
}

void TaskScheduler::readyDel(Task& task) {
   if (!task.ready_) {
      return;
   }
   ReadyList& list = ready_[static_cast<std::size_t>(task.priority_)];
   (task.prev_ ? task.prev_->next_ : list.head) = task.next_;
   (task.next_ ? task.next_->prev_ : list.tail) = task.prev_;
   task.prev_ = task.next_ = nullptr;
   task.ready_ = false;
   --readyCount_;
}

bool TaskScheduler::earlier(const Task* a, const Task* b) {
   return a->deadline_ < b->deadline_ ||
          (a->deadline_ == b->deadline_ && a->timerSeq_ < b->timerSeq_);
}

void TaskScheduler::heapSwap(std::size_t i, std::size_t j) {
   std::swap(heap_[i], heap_[j]);
   heap_[i]->heapIndex_ = i;
   heap_[j]->heapIndex_ = j;
}

void TaskScheduler::siftUp(std::size_t i) {
   while (i > 0) {
      const std::size_t parent = (i - 1) / 2;
      if (!earlier(heap_[i], heap_[parent])) {
         return;
      }
      heapSwap(i, parent);
      i = parent;
   }
}

void TaskScheduler::siftDown(std::size_t i) {
   for (;;) {
      std::size_t first = i;
      for (std::size_t child : {2 * i + 1, 2 * i + 2}) {
         if (child < heap_.size() && earlier(heap_[child], heap_[first])) {
            first = child;
         }
      }
      if (first == i) {
         return;
      }
      heapSwap(i, first);
      i = first;
   }
}

void TaskScheduler::timerIs(Task& task, Kel::Seconds deadline) {
   task.deadline_ = deadline;
   task.timerSeq_ = nextTimerSeq_++;
   if (task.heapIndex_ == Task::notInHeap) {
      task.heapIndex_ = heap_.size();
      heap_.push_back(&task);
      siftUp(task.heapIndex_);
   } else {
      // Only ever moved earlier.
      siftUp(task.heapIndex_);
   }
}

void TaskScheduler::timerDel(Task& task) {
   const std::size_t i = task.heapIndex_;
   if (i == Task::notInHeap) {
      return;
   }
   heapSwap(i, heap_.size() - 1);
   heap_.pop_back();
   task.heapIndex_ = Task::notInHeap;
   if (i < heap_.size()) {
      siftDown(i);
      siftUp(i);
   }
}

void TaskScheduler::taskDestroyed(Task& task) {
   readyDel(task);
   timerDel(task);
   if (current_ == &task) {
      current_ = nullptr;
   }
}

void TaskScheduler::promoteDueTimers(Kel::Seconds now) {
   while (!heap_.empty() && heap_.front()->deadline_ <= now) {
      Task& task = *heap_.front();
      timerDel(task);
      readyIs(task);
   }
}

std::optional<Kel::Seconds> TaskScheduler::nextDeadline() const {
   if (heap_.empty()) {
      return std::nullopt;
   }
   return heap_.front()->deadline_;
}

bool TaskScheduler::shouldYield() const {
   if (!current_) {
      return false;
   }
   const auto running = static_cast<std::size_t>(current_->priority_);
   for (std::size_t p = 0; p < running; ++p) {
      if (ready_[p].head) {
         return true;
      }
   }
   return Kel::System::currentTime() - turnStart_ >= timeSlice_;
}

bool TaskScheduler::runOnce() {
   const Kel::Seconds now = Kel::System::currentTime();
   promoteDueTimers(now);
   for (ReadyList& list : ready_) {
      if (list.head) {
         runTask(*list.head, now);
         return true;
      }
   }
   return false;
}

void TaskScheduler::runTask(Task& task, Kel::Seconds now) {
   readyDel(task);
   Task* const outer = current_;
   current_ = &task;
   turnStart_ = now;
   ++tasksRun_;
   // Level 5: what ran and when, for reading a trace of the loop.
   KEL_TRACE(traceBexa, 5, "Running task {} at {:.6f}", task.name(), now);
   try {
      // The action may destroy its own task: copy nothing out of it afterwards.
      task.action_();
   } catch (const Kel::AssertionError&) {
      current_ = outer;
      throw;
   } catch (const std::exception& e) {
      ++taskExceptions_;
      const auto* known = dynamic_cast<const Kel::Exception*>(&e);
      if (!known || !known->reported()) {
         KEL_TRACE(traceBexa, 1, "Caught exception in task {}: {}",
                   current_ ? current_->name() : Kel::Name("(destroyed)"), e.what());
      }
   }
   current_ = outer;
   Kel::turnEnd();
}

void TaskSchedulerRoot::run() {
   stopping_ = false;
   while (!stopping_) {
      if (runOnce()) {
         continue;
      }
      const auto next = nextDeadline();
      if (!next && fdWatches_.empty() && Kel::System::clockSource().isVirtual()) {
         Kel::turnEnd();
         return;  // virtual time with nothing left that could ever run
      }
      waitUntil(next);
   }
}

void TaskSchedulerRoot::runFor(Kel::Seconds seconds) {
   stopping_ = false;
   const Kel::Seconds end = Kel::System::currentTime() + seconds;
   while (!stopping_) {
      if (runOnce()) {
         continue;
      }
      const auto next = nextDeadline();
      if (next && *next <= end) {
         waitUntil(*next);
      } else if (Kel::System::currentTime() < end) {
         waitUntil(end);
      } else {
         Kel::turnEnd();
         return;
      }
   }
}

void TaskSchedulerRoot::waitUntil(std::optional<Kel::Seconds> deadline) {
   // What was deferred outside any task (a reactor run by a caller's change)
   // is not left waiting with the loop.
   Kel::turnEnd();
   if (deadline) {
      const Kel::Seconds now = Kel::System::currentTime();
      if (*deadline <= now) {
         pollDescriptors(0);
         return;
      }
      if (Kel::System::clockSource().advanceTo(*deadline)) {
         pollDescriptors(0);
         return;
      }
      pollDescriptors(static_cast<int>(std::ceil((*deadline - now) * 1000.0)));
   } else {
      pollDescriptors(-1);
   }
}

bool TaskSchedulerRoot::pollDescriptors(int timeoutMs) {
   std::vector<pollfd> fds;
   fds.reserve(fdWatches_.size());
   for (const Watched& w : fdWatches_) {
      fds.push_back(pollfd{w.fd, POLLIN, 0});
   }
   const int n = ::poll(fds.data(), fds.size(), timeoutMs);
   if (n < 0) {
      if (errno == EINTR) {
         return false;
      }
      throw Kel::ErrnoException(errno, "poll");
   }
   for (std::size_t i = 0; i < fds.size(); ++i) {
      if (fds[i].revents != 0) {
         fdWatches_[i].task->scheduleTask();
      }
   }
   return n > 0;
}

FdWatch TaskSchedulerRoot::fdWatchIs(int fd, Task* task) {
   KEL_ASSERT(task);
   fdWatches_.push_back(Watched{++lastWatchId_, fd, task});
   return FdWatch(Kel::Ptr<TaskSchedulerRoot>(this), lastWatchId_);
}

void TaskSchedulerRoot::fdWatchDel(Kel::U64 id) noexcept {
   std::erase_if(fdWatches_, [id](const Watched& w) { return w.id == id; });
}

FdWatch::FdWatch(Kel::Ptr<TaskSchedulerRoot> root, Kel::U64 id) : root_(std::move(root)), id_(id) {}

FdWatch::FdWatch(FdWatch&& other) noexcept
    : root_(std::move(other.root_)), id_(std::exchange(other.id_, 0)) {}

FdWatch& FdWatch::operator=(FdWatch&& other) noexcept {
   if (this != &other) {
      end();
      root_ = std::move(other.root_);
      id_ = std::exchange(other.id_, 0);
   }
   return *this;
}

FdWatch::~FdWatch() {
   end();
}

void FdWatch::end() noexcept {
   if (root_) {
      root_->fdWatchDel(id_);
      root_ = nullptr;
   }
}

}  // namespace Bexa
