#ifndef VITALS_HUB_STATISTICS_H
#define VITALS_HUB_STATISTICS_H

#include <tessel/tessel.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "stop_signals.h"

namespace vitals {

/// What the hub has counted since it was started.
struct HubStatistics {
  std::int64_t published = 0;   ///< Values that arrived, the suppressed ones too.
  std::int64_t suppressed = 0;  ///< Those that equalled the cached value: nobody hears of them.
  std::int64_t withdrawn = 0;   ///< Values that left the cache.
  std::int64_t subscriptions = 0;
  std::int64_t time = 0;  ///< now() when it was counted.
};

std::string encode(const HubStatistics& statistics);
std::optional<HubStatistics> decodeStatistics(const void* data, std::size_t size);

/// Listens to the hub's statistics, and so knows whether there is a hub.
class HubWatch : public tessel::Subscriber {
 public:
  HubWatch();
  /// The last ones heard of.
  std::optional<HubStatistics> latest() const;
  std::int64_t heardCount() const;
  /// Whether the hub has spoken within that time.
  bool heardWithin(std::chrono::nanoseconds time) const;
  /// Waits for statistics counted after `time`; false if none came or the program is to end.
  bool waitForLaterThan(std::int64_t time, std::chrono::milliseconds patience,
                        StopSignals* stop) const;

 private:
  void onValue(const void* data, std::size_t size) override;

  mutable std::mutex mutex_;
  std::optional<HubStatistics> latest_;
  std::int64_t heardAt_ = 0;
  std::int64_t heardCount_ = 0;
};

/// How long a process looks for the hub before it gives up.
constexpr std::chrono::seconds kHubPatience{15};

}  // namespace vitals

#endif
