#ifndef TESSEL_BENCH_SUPPORT_WINDOW_H
#define TESSEL_BENCH_SUPPORT_WINDOW_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <stdexcept>

#include "support/try_until.h"

namespace tessel::bench {

/// Flow control between one sender and the receivers of what it sends: at most `size` messages are
/// on their way, so that no queue reaches the limit at which publishing sockets drop. A sender that
/// has to wait sleeps until half of them have arrived.
class Window {
 public:
  explicit Window(std::uint64_t size) : size_(size) {}

  /// The sender, before each message.
  void send() {
    if (++sent_ - arrived_.load() > size_) waitFor(sent_ - size_ / 2);
  }
  /// A receiver, for each message. Any thread.
  void arrive() {
    if (arrived_.fetch_add(1) + 1 != awaited_.load()) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    wake_.notify_one();
  }
  /// The sender: waits until everything has arrived.
  void drain() { waitFor(sent_); }

 private:
  // The number is written before the count is looked at, and the count before the number by those
  // who arrive: so one of them sees the other.
  void waitFor(std::uint64_t count) {
    awaited_ = count;
    std::unique_lock<std::mutex> lock(mutex_);
    if (!wake_.wait_for(lock, kPatience, [&] { return arrived_ >= count; })) {
      throw std::runtime_error("a message was lost");
    }
  }

  const std::uint64_t size_;
  std::uint64_t sent_ = 0;  // the sender's own
  std::atomic<std::uint64_t> arrived_{0};
  std::atomic<std::uint64_t> awaited_{0};
  std::mutex mutex_;
  std::condition_variable wake_;
};

}  // namespace tessel::bench

#endif
