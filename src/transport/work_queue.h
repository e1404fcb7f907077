#ifndef TESSEL_SRC_TRANSPORT_WORK_QUEUE_H
#define TESSEL_SRC_TRANSPORT_WORK_QUEUE_H

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
  /// Waits for the running tasks and drops the queued ones unrun. Not from a worker of this queue:
  /// that ends the process, because a thread cannot join itself.
  ~WorkQueue();
  WorkQueue(const WorkQueue&) = delete;
  WorkQueue& operator=(const WorkQueue&) = delete;

  void push(Task task) TESSEL_EXCLUDES(mutex_);
  /// Pushes all of them in order, as one; leaves the vector empty.
  void pushAll(std::vector<Task>& tasks) TESSEL_EXCLUDES(mutex_);
  /// Waits until every task pushed has returned: true. False, sooner, after cancelWaits().
  bool waitIdle() TESSEL_EXCLUDES(mutex_);
  /// Ends the waiting in waitIdle(), now and from now on: what it waits for may never come.
  void cancelWaits() TESSEL_EXCLUDES(mutex_);

 private:
  void run() TESSEL_EXCLUDES(mutex_);
  void tearDown() TESSEL_EXCLUDES(mutex_);

  std::vector<std::thread> workers_;  // the owner's; unchanged while workers run
  Mutex mutex_;
  Condition taskAvailable_;
  Condition idle_;
  bool stopping_ TESSEL_GUARDED_BY(mutex_) = false;
  bool waitsCancelled_ TESSEL_GUARDED_BY(mutex_) = false;
  std::deque<Task> tasks_ TESSEL_GUARDED_BY(mutex_);
  // Pushed and not yet returned; more than the queued ones while tasks run.
  std::uint64_t pending_ TESSEL_GUARDED_BY(mutex_) = 0;
  // Workers waiting for a task and not yet told to wake; nobody else needs a signal.
  std::size_t sleeping_ TESSEL_GUARDED_BY(mutex_) = 0;
};

}  // namespace tessel

#endif
