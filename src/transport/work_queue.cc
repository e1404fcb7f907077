#include "transport/work_queue.h"

#include <algorithm>
#include <utility>

namespace tessel {

WorkQueue::WorkQueue(std::size_t threadCount) {
  try {
    workers_.reserve(threadCount);
    while (workers_.size() < threadCount) workers_.emplace_back([this] { run(); });
  } catch (...) {
    tearDown();
    throw;
  }
}

WorkQueue::~WorkQueue() { tearDown(); }

void WorkQueue::push(Task task) {
  const Lock lock(mutex_);
  tasks_.push_back(std::move(task));
  ++pending_;
  if (sleeping_ == 0) return;
  --sleeping_;
  taskAvailable_.notifyOne();
}

void WorkQueue::pushAll(std::vector<Task>& tasks) {
  {
    const Lock lock(mutex_);
    for (Task& task : tasks) tasks_.push_back(std::move(task));
    pending_ += tasks.size();
    for (std::size_t n = std::min(sleeping_, tasks.size()); n > 0; --n) {
      --sleeping_;
      taskAvailable_.notifyOne();
    }
  }
  tasks.clear();
}

bool WorkQueue::waitIdle() {
  const Lock lock(mutex_);
  while (pending_ != 0 && !waitsCancelled_) idle_.wait(mutex_);
  return !waitsCancelled_;
}

void WorkQueue::cancelWaits() {
  const Lock lock(mutex_);
  waitsCancelled_ = true;
  idle_.notifyAll();
}

void WorkQueue::run() {
  while (true) {
    Task task;
    {
      const Lock lock(mutex_);
      while (tasks_.empty() && !stopping_) {
        ++sleeping_;
        taskAvailable_.wait(mutex_);
      }
      if (stopping_) return;
      task = std::move(tasks_.front());
      tasks_.pop_front();
    }
    task();
    {
      const Lock lock(mutex_);
      if (--pending_ == 0) idle_.notifyAll();
    }
    // The task goes with its scope, without the lock: it may hold the last reference to something.
  }
}

void WorkQueue::tearDown() {
  {
    const Lock lock(mutex_);
    stopping_ = true;
    taskAvailable_.notifyAll();
  }
  for (std::thread& worker : workers_) worker.join();
}

}  // namespace tessel
