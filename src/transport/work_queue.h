#ifndef TESSEL_SRC_TRANSPORT_WORK_QUEUE_H
#define TESSEL_SRC_TRANSPORT_WORK_QUEUE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <thread>
#include <vector>

#include "transport/mutex.h"

namespace tessel {

/// A fixed pool of worker threads that runs tasks first in, first out. A task that throws ends the
/// process. With no threads tasks are accepted and never run.
class WorkQueue {
 public:
  using Task = std::function<void()>;

  /// Throws std::system_error when a thread cannot be started; those started before are joined.
  explicit WorkQueue(std::size_t threadCount);
  /// Waits for the running tasks and drops the queued ones unrun, with those that are pushed when
  /// what a dropped one held is released. Not from a worker of this queue: that ends the process,
  /// because a thread cannot join itself.
  ~WorkQueue();
  WorkQueue(const WorkQueue&) = delete;
  WorkQueue& operator=(const WorkQueue&) = delete;

  void push(Task task) TESSEL_EXCLUDES(mutex_);
  /// Whether every task pushed has returned; gives way to other threads a few times until it has.
  bool isIdleSoon();
  /// Waits until every task pushed has returned: true. False, sooner, after cancelWaits().
  bool waitIdle() TESSEL_EXCLUDES(mutex_);
  /// Ends the waiting in waitIdle(), now and from now on: what it waits for may never come.
  void cancelWaits() TESSEL_EXCLUDES(mutex_);

 private:
  void run() TESSEL_EXCLUDES(mutex_);
  void tearDown() TESSEL_EXCLUDES(mutex_);
  bool dropOne() TESSEL_EXCLUDES(mutex_);

  std::vector<std::thread> workers_;  // the owner's; unchanged while workers run
  Mutex mutex_;
  Condition taskAvailable_;
  Condition idle_;
  bool stopping_ TESSEL_GUARDED_BY(mutex_) = false;
  std::deque<Task> tasks_ TESSEL_GUARDED_BY(mutex_);
  // Workers waiting for a task and not yet told to wake; nobody else needs a signal.
  std::size_t sleeping_ TESSEL_GUARDED_BY(mutex_) = 0;

  // Changed under the mutex, but for the marked one; looked at without it before anybody sleeps.
  std::atomic<std::uint64_t> pending_{0};  // pushed and not yet returned: queued and running ones
  std::atomic<std::size_t> queued_{0};     // the size of tasks_
  std::atomic<bool> waitsCancelled_{false};
  // Workers that will look into tasks_ before they sleep; counted up without the mutex.
  std::atomic<std::size_t> looking_{0};
};

}  // namespace tessel

#endif
