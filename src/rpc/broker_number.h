#ifndef TESSEL_SRC_RPC_BROKER_NUMBER_H
#define TESSEL_SRC_RPC_BROKER_NUMBER_H

#include <cstdint>

namespace tessel {

/// The number of a broker in its process, from 0; its in-process endpoints are named after it, so
/// none of them is ever used again. A broker that could not be made has used its number up, too.
class BrokerNumber {
 public:
  /// Takes the next number, for a broker that is about to be made.
  BrokerNumber();
  ~BrokerNumber() { settle(); }
  BrokerNumber(const BrokerNumber&) = delete;
  BrokerNumber& operator=(const BrokerNumber&) = delete;

  std::uint64_t value() const { return value_; }
  /// The broker has bound its endpoints.
  void settle();
  /// Whether no endpoint of that number will be bound any more. Any thread.
  static bool isSettled(std::uint64_t number);

 private:
  const std::uint64_t value_;
};

}  // namespace tessel

#endif
