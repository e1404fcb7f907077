#include "hub_statistics.h"

#include <sstream>
#include <thread>

#include "clock.h"
#include "names.h"

namespace vitals {

std::string encode(const HubStatistics& s) {
  std::ostringstream text;
  text << s.published << ' ' << s.suppressed << ' ' << s.withdrawn << ' ' << s.subscriptions << ' '
       << s.time;
  return text.str();
}

std::optional<HubStatistics> decodeStatistics(const void* data, std::size_t size) {
  std::istringstream text(std::string(static_cast<const char*>(data), size));
  HubStatistics s;
  if (!(text >> s.published >> s.suppressed >> s.withdrawn >> s.subscriptions >> s.time)) {
    return std::nullopt;
  }
  return s;
}

// NewValues: old counts are of no use to anybody.
HubWatch::HubWatch() : Subscriber(tessel::SubscriptionMode::NewValues, kHubTopic, kStatisticsTag) {}

std::optional<HubStatistics> HubWatch::latest() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return latest_;
}

std::int64_t HubWatch::heardCount() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return heardCount_;
}

bool HubWatch::heardWithin(std::chrono::nanoseconds time) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return latest_ && now() - heardAt_ <= time.count();
}

bool HubWatch::waitForLaterThan(std::int64_t time, std::chrono::milliseconds patience,
                                StopSignals* stop) const {
  constexpr std::chrono::milliseconds kLook{10};
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (std::chrono::steady_clock::now() < deadline) {
    const auto statistics = latest();
    if (statistics && statistics->time > time) return true;
    if (stop == nullptr) {
      std::this_thread::sleep_for(kLook);
    } else if (stop->waitFor(kLook)) {
      return false;
    }
  }
  return false;
}

void HubWatch::onValue(const void* data, std::size_t size) {
  const auto statistics = decodeStatistics(data, size);
  if (!statistics) return;
  const std::lock_guard<std::mutex> lock(mutex_);
  latest_ = statistics;
  heardAt_ = now();
  ++heardCount_;
}

}  // namespace vitals
