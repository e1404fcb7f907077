#ifndef TESSEL_TESTS_SUPPORT_THREADS_H
#define TESSEL_TESTS_SUPPORT_THREADS_H

#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <thread>

#include "support/deadline.h"

namespace tessel::test {

/// The kernel's number of the calling thread.
inline int thisThread() { return static_cast<int>(::syscall(SYS_gettid)); }

/// How many threads this process has. One that was joined may still count for a moment.
inline int threadCount() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<int>(std::distance(begin(tasks), end(tasks)));
}

/// The kernel's numbers of the threads of this process.
inline std::set<int> threadNumbers() {
  std::set<int> numbers;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    numbers.insert(std::stoi(task.path().filename()));
  }
  return numbers;
}

/// Whether a thread of this process is there no more. One that was joined may be for a moment.
inline bool hasEnded(int thread) {
  return !std::filesystem::exists("/proc/self/task/" + std::to_string(thread));
}

/// Waits until a thread has slept for a while, as one does that waits for a lock, a join or a
/// socket, or until `otherwise()` holds. That it sleeps is a guess: use it where a wrong one makes
/// a test weaker, never where it makes it fail.
template <typename Condition>
bool waitUntilAsleepOr(int thread, const Condition& otherwise) {
  int asleep = 0;
  return eventually([&] {
    if (otherwise()) return true;
    std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string text;
    std::getline(status, text);
    const std::size_t name = text.rfind(')');
    const bool sleeping = name != std::string::npos && text.compare(name, 3, ") S") == 0;
    asleep = sleeping ? asleep + 1 : 0;
    return asleep >= 25;
  });
}
inline bool waitUntilAsleep(int thread) {
  return waitUntilAsleepOr(thread, [] { return false; });
}

/// A thread that is joined when the scope ends.
class ScopedThread {
 public:
  template <typename Function>
  explicit ScopedThread(Function&& function) : thread_(std::forward<Function>(function)) {}
  ~ScopedThread() { join(); }
  ScopedThread(const ScopedThread&) = delete;
  ScopedThread& operator=(const ScopedThread&) = delete;
  void join() {
    if (thread_.joinable()) thread_.join();
  }

 private:
  std::thread thread_;
};

}  // namespace tessel::test

#endif
