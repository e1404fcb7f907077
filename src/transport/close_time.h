#ifndef TESSEL_SRC_TRANSPORT_CLOSE_TIME_H
#define TESSEL_SRC_TRANSPORT_CLOSE_TIME_H

#include <zmq.h>

#include <atomic>
#include <chrono>
#include <limits>
#include <thread>

#include "transport/zmq_error.h"

namespace tessel {

/// When something was last closed in this process. ZeroMQ closes in the background: for a moment
/// after a close, the place among the sockets of the context, and the endpoint if it was bound, are
/// still taken. Any thread.
class CloseTime {
 public:
  void note() { ticks_ = Clock::now().time_since_epoch().count(); }

  /// Attempts until it succeeds; throws ZeroMQ's error, unless it is the one that a close on its
  /// way explains: then only when that does not come to its end within `patience`.
  template <typename Attempt>
  void insist(int explained, std::chrono::milliseconds patience, const Attempt& attempt) const {
    const Clock::time_point begun = Clock::now();
    while (!attempt()) {
      const int error = zmq_errno();
      if (error != explained || !isRecent() || Clock::now() - begun >= patience) {
        throwZmqError(error);
      }
      std::this_thread::sleep_for(kInterval);
    }
  }

 private:
  using Clock = std::chrono::steady_clock;

  static constexpr std::chrono::milliseconds kRecently{1000};
  static constexpr std::chrono::milliseconds kInterval{1};
  static constexpr Clock::rep kNever = std::numeric_limits<Clock::rep>::min();

  bool isRecent() const {
    const Clock::rep ticks = ticks_;
    return ticks != kNever && Clock::now() - Clock::time_point(Clock::duration(ticks)) < kRecently;
  }

  std::atomic<Clock::rep> ticks_{kNever};
};

}  // namespace tessel

#endif
