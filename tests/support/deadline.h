#ifndef TESSEL_TESTS_SUPPORT_DEADLINE_H
#define TESSEL_TESTS_SUPPORT_DEADLINE_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace tessel::test {

/// How long anything that must happen may take: long, since machines are slow under sanitizers and
/// load, and only a failing test ever waits for it.
constexpr std::chrono::seconds kPatience{20 * TESSEL_TEST_SLOWNESS};

/// Waits until `condition()` holds, looking often; false when it does not within the patience.
template <typename Condition>
bool eventually(const Condition& condition, std::chrono::milliseconds patience = kPatience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return true;
}

/// A door that callbacks wait at until a test opens it.
class Gate {
 public:
  void open() {
    const std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  void pass() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

}  // namespace tessel::test

#endif
