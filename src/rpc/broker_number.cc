#include "rpc/broker_number.h"

#include <set>

#include "transport/mutex.h"

namespace tessel {
namespace {

struct Numbers {
  Mutex mutex;
  std::uint64_t next TESSEL_GUARDED_BY(mutex) = 0;
  std::set<std::uint64_t> unsettled TESSEL_GUARDED_BY(mutex);

  static Numbers& instance() {
    static Numbers& numbers = *new Numbers;  // outlives every thread
    return numbers;
  }
  std::uint64_t take() TESSEL_EXCLUDES(mutex) {
    const Lock lock(mutex);
    unsettled.insert(next);
    return next++;
  }
};

}  // namespace

BrokerNumber::BrokerNumber() : value_(Numbers::instance().take()) {}

void BrokerNumber::settle() {
  Numbers& numbers = Numbers::instance();
  const Lock lock(numbers.mutex);
  numbers.unsettled.erase(value_);
}

bool BrokerNumber::isSettled(std::uint64_t number) {
  Numbers& numbers = Numbers::instance();
  const Lock lock(numbers.mutex);
  return number < numbers.next && numbers.unsettled.count(number) == 0;
}

}  // namespace tessel
