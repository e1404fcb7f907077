#ifndef TESSEL_BENCH_SUPPORT_CREW_H
#define TESSEL_BENCH_SUPPORT_CREW_H

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace tessel::bench {

/// Threads that work together, round by round.
class Crew {
 public:
  /// What a thread does in a round; it stays with its thread and is released there.
  using Work = std::function<void()>;

  /// `prepare(index)` is called once on each thread.
  Crew(std::size_t size, const std::function<Work(std::size_t)>& prepare) {
    for (std::size_t i = 0; i < size; ++i) {
      threads_.emplace_back([this, prepare, i] { run(prepare(i)); });
    }
  }
  ~Crew() {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      over_ = true;
      changed_.notify_all();
    }
    for (std::thread& thread : threads_) thread.join();
  }
  Crew(const Crew&) = delete;
  Crew& operator=(const Crew&) = delete;

  /// Lets all begin at once, and waits for the last.
  void round() {
    std::unique_lock<std::mutex> lock(mutex_);
    ++round_;
    working_ = threads_.size();
    changed_.notify_all();
    changed_.wait(lock, [this] { return working_ == 0; });
  }

 private:
  void run(const Work& work) {
    std::unique_lock<std::mutex> lock(mutex_);
    for (std::size_t round = 1;; ++round) {
      changed_.wait(lock, [&] { return round_ == round || over_; });
      if (over_) return;
      lock.unlock();
      work();
      lock.lock();
      if (--working_ == 0) changed_.notify_all();
    }
  }

  std::vector<std::thread> threads_;
  std::mutex mutex_;  // guards all that follows
  std::condition_variable changed_;
  std::size_t round_ = 0;
  std::size_t working_ = 0;
  bool over_ = false;
};

}  // namespace tessel::bench

#endif
