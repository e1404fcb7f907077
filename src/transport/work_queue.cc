#include "transport/work_queue.h"

#include <utility>

namespace tessel {
namespace {

// In a stream of tasks the next one, or the end of the last, is near: giving way a few times lets
// the thread come up with it that is to do so. Going to sleep and being woken takes several times
// as long, on both sides.
constexpr int kGiveWay = 20;

template <typename Condition>
void giveWayUntil(const Condition& condition) {
  for (int i = 0; i < kGiveWay && !condition(); ++i) std::this_thread::yield();
}

}  // namespace

WorkQueue::WorkQueue(std::size_t threadCount) {
  try {
    workers_.reserve(threadCount);
    while (workers_.size() < threadCount) workers_.emplace_back([this] { run(); });
  } catch (...) {
    tearDown();
    throw;
  }
}

WorkQueue::~WorkQueue() {
  tearDown();
  while (dropOne()) {
  }
}

void WorkQueue::push(Task task) {
  const Lock lock(mutex_);
  tasks_.push_back(std::move(task));
  ++pending_;
  // Those who look find their tasks by themselves.
  if (++queued_ <= looking_ || sleeping_ == 0) return;
  --sleeping_;
  taskAvailable_.notifyOne();
}

bool WorkQueue::isIdleSoon() {
  giveWayUntil([this] { return pending_ == 0; });
  return pending_ == 0;
}

bool WorkQueue::waitIdle() {
  if (isIdleSoon() && !waitsCancelled_) return true;
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
    ++looking_;
    giveWayUntil([this] { return queued_ != 0; });
    Task task;
    {
      const Lock lock(mutex_);
      --looking_;
      while (tasks_.empty() && !stopping_) {
        ++sleeping_;
        taskAvailable_.wait(mutex_);
      }
      if (stopping_) return;
      task = std::move(tasks_.front());
      tasks_.pop_front();
      --queued_;
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

bool WorkQueue::dropOne() {
  Task dropped;  // released after the lock: what it holds may push another
  const Lock lock(mutex_);
  if (tasks_.empty()) return false;
  dropped = std::move(tasks_.front());
  tasks_.pop_front();
  --queued_;
  --pending_;
  return true;
}

}  // namespace tessel
