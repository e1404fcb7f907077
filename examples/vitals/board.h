#ifndef VITALS_BOARD_H
#define VITALS_BOARD_H

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "call_report.h"
#include "key_difference.h"
#include "latencies.h"
#include "names.h"
#include "reading.h"

namespace vitals {

/// What the viewer knows of one key.
struct Row {
  std::string key;
  std::optional<Reading> reading;  ///< None before the first value and after a withdrawal.
  bool withdrawn = false;
  std::int64_t added = 0;      ///< now() then; an older reading comes from the cache.
  std::deque<double> history;  ///< The amount at each of the last looks.
};

/// How the late join went.
struct Join {
  bool complete = false;     ///< Every answer is in.
  std::size_t expected = 0;  ///< Values that were there before the viewer came.
  std::size_t received = 0;  ///< Those of them that it got at once.
  KeyDifference difference;
  std::int64_t nanoseconds = 0;  ///< From the first registration to the last of the values.
};

/// How many values came to which kind of subscriber.
struct Deliveries {
  std::size_t once = 0;
  std::size_t newValues = 0;
  std::size_t allValues = 0;
  std::size_t multi = 0;
  std::size_t total() const { return once + newValues + allValues + multi; }
};

/// What the viewer shows; a copy taken at one moment.
struct Picture {
  std::vector<Row> rows;                      ///< In the sensor's order.
  std::map<std::string, std::size_t> topics;  ///< Live values so far, by topic.
  Deliveries deliveries;
  Join join;
  std::size_t liveValues = 0;  ///< Those whose latency is known.
  std::int64_t p50 = 0;        ///< Latency in microseconds.
  std::int64_t p99 = 0;
  std::size_t withdrawn = 0;  ///< Rows whose withdrawal was heard of.
  CallReport calls;
};

/// Collects what the subscribers hear, on the dispatcher's threads, for the thread that draws.
class Board {
 public:
  static constexpr std::size_t kHistory = 40;

  /// The late join begins: these keys were there before.
  void beginJoin(const Keys& keys);
  /// Adds a row at the end if the key has none; false if it has.
  bool addRow(const std::string& key);
  /// The list of keys came again; the first time it ends the join.
  void takeKeys(const Keys& keys);
  void takeValue(const std::string& key, const Reading& reading);
  void takeWithdrawal(const std::string& key);
  void countTopic(const std::string& topic);

  /// Extends the histories: called before each look.
  void remember();
  Picture picture() const;
  bool joined() const;

 private:
  Row* find(const std::string& key);
  void endJoin(const Keys& keys);  // with the mutex held

  mutable std::mutex mutex_;  // guards all that follows
  Picture picture_;
  std::map<std::string, std::size_t> places_;  // of the rows, by key
  Latencies latencies_;
  KeySet published_;                // before the join
  std::int64_t joinBegan_ = 0;      // now() then
  std::int64_t lastJoinValue_ = 0;  // now() when the last value before its end came
};

}  // namespace vitals

#endif
