#ifndef VITALS_CALLER_H
#define VITALS_CALLER_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "call_report.h"
#include "latencies.h"
#include "process_client.h"

namespace vitals {

/// Calls the sensor's service by way of the hub, on a thread of its own: each question once, each
/// error once, one question a thousand times, and then the top lists each second.
class Caller {
 public:
  static constexpr std::size_t kTimedCalls = 1000;
  static constexpr std::size_t kTopCount = 4;

  /// `sensorEnded`, on the caller's thread: a call that fails because of that is no fault.
  Caller(const std::string& endpoint, std::function<bool()> sensorEnded);
  /// As stop().
  ~Caller();
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;

  void start();
  /// Waits for the call under way.
  void stop();
  /// Whether only the top lists are left, or nothing.
  bool settled() const;
  CallReport report() const;

 private:
  void run();
  bool over();                                 // no more calls are to be made
  bool endsSoon();                             // waits a little for that
  bool pause(std::chrono::milliseconds time);  // true if it is to stop
  void settle(const std::string& fault);

  void askForTopLists();
  void askForTop(Measure measure, Processes& answer);
  void provokeErrors();
  void askForUsage();
  void askThousandTimes();
  void countRight();

  const std::string endpoint_;
  const std::function<bool()> sensorEnded_;
  ProcessClient client_;
  std::thread thread_;

  mutable std::mutex mutex_;  // guards all that follows
  std::condition_variable stopSignal_;
  bool stopping_ = false;
  bool settled_ = false;
  CallReport report_;
  Latencies latencies_;
};

}  // namespace vitals

#endif
