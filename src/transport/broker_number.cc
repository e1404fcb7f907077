#include "transport/broker_number.h"

#include <charconv>
#include <set>
#include <string_view>
#include <system_error>

#include "transport/inproc_endpoints.h"
#include "transport/mutex.h"

namespace tessel {

class BrokerNumber::Numbers {
 public:
  // Outlive every thread.
  static Numbers& of(BrokerKind kind) {
    static Numbers& message = *new Numbers("inproc://publish_service");
    static Numbers& rpc = *new Numbers("inproc://rpc_reply_in_");
    return kind == BrokerKind::kMessage ? message : rpc;
  }

  std::string endpointOf(std::uint64_t number) const {
    return std::string(prefix_) + std::to_string(number);
  }
  std::uint64_t take() TESSEL_EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    unsettled_.insert(next_);
    return next_++;
  }
  void settle(std::uint64_t number) TESSEL_EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    unsettled_.erase(number);
  }
  // Whether it is the endpoint of a broker that has been made, or could not be. Without memory of
  // its own, as threads ask that end.
  bool isSettled(const std::string& endpoint) TESSEL_EXCLUDES(mutex_) {
    if (endpoint.compare(0, prefix_.size(), prefix_) != 0) return false;
    const char* const begin = endpoint.data() + prefix_.size();
    const char* const end = endpoint.data() + endpoint.size();
    std::uint64_t number = 0;
    const auto [behind, error] = std::from_chars(begin, end, number);
    if (behind != end || error != std::errc()) return false;
    if (*begin == '0' && end - begin > 1) return false;  // a name that no broker has
    const Lock lock(mutex_);
    return number < next_ && unsettled_.count(number) == 0;
  }

 private:
  explicit Numbers(std::string_view prefix) : prefix_(prefix) {}

  const std::string_view prefix_;
  Mutex mutex_;
  std::uint64_t next_ TESSEL_GUARDED_BY(mutex_) = 0;
  std::set<std::uint64_t> unsettled_ TESSEL_GUARDED_BY(mutex_);
};

BrokerNumber::BrokerNumber(BrokerKind kind)
    : numbers_(Numbers::of(kind)), value_(numbers_.take()) {}

std::string BrokerNumber::endpoint() const { return numbers_.endpointOf(value_); }

void BrokerNumber::settle() { numbers_.settle(value_); }

bool BrokerNumber::isRetired(const std::string& endpoint) {
  // In this order: whoever has settled has bound before.
  return (Numbers::of(BrokerKind::kMessage).isSettled(endpoint) ||
          Numbers::of(BrokerKind::kRpc).isSettled(endpoint)) &&
         !InprocEndpoints::instance().isBound(endpoint);
}

}  // namespace tessel
