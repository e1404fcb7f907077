#ifndef TESSEL_SRC_TRANSPORT_MUTEX_H
#define TESSEL_SRC_TRANSPORT_MUTEX_H

#include <condition_variable>
#include <mutex>

#include "transport/thread_annotations.h"

namespace tessel {

// The standard mutex, lock and condition variable, dressed so that clang's lock analysis sees them:
// it does not follow those of the standard library.

class TESSEL_CAPABILITY("mutex") Mutex {
 public:
  void lock() TESSEL_ACQUIRE() { mutex_.lock(); }
  bool tryLock() TESSEL_TRY_ACQUIRE(true) { return mutex_.try_lock(); }
  void unlock() TESSEL_RELEASE() { mutex_.unlock(); }
  // Tells the analysis what it cannot follow: that the caller has it.
  void assertHeld() TESSEL_ASSERT_CAPABILITY(this) {}

 private:
  friend class Condition;
  std::mutex mutex_;
};

class TESSEL_SCOPED_CAPABILITY Lock {
 public:
  explicit Lock(Mutex& mutex) TESSEL_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  Lock(Mutex& mutex, std::adopt_lock_t /*held*/) TESSEL_REQUIRES(mutex) : mutex_(mutex) {}
  ~Lock() TESSEL_RELEASE() { mutex_.unlock(); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  Mutex& mutex_;
};

class Condition {
 public:
  // Callers wait in a loop: the analysis does not look into a predicate.
  void wait(Mutex& mutex) TESSEL_REQUIRES(mutex) TESSEL_NO_THREAD_SAFETY_ANALYSIS {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    condition_.wait(lock);
    lock.release();
  }
  void notifyOne() { condition_.notify_one(); }
  void notifyAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace tessel

#endif
