#ifndef TESSEL_TESTS_SUPPORT_WATCHDOG_H
#define TESSEL_TESTS_SUPPORT_WATCHDOG_H

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace tessel::test {

/// Ends the process when its scope is not left in time: a test of locks fails by hanging, and hung
/// threads can neither be joined nor left behind.
class Watchdog {
 public:
  explicit Watchdog(const char* what, std::chrono::seconds patience = std::chrono::seconds(100))
      : thread_([this, what, patience] { watch(what, patience * TESSEL_TEST_SLOWNESS); }) {}
  ~Watchdog() {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      left_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

 private:
  void watch(const char* what, std::chrono::seconds patience) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (changed_.wait_for(lock, patience, [this] { return left_; })) return;
    std::fprintf(stderr, "%s hangs\n", what);
    std::fflush(nullptr);
    std::_Exit(1);
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  bool left_ = false;
  std::thread thread_;
};

}  // namespace tessel::test

#endif
