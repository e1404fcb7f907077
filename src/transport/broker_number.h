#ifndef TESSEL_SRC_TRANSPORT_BROKER_NUMBER_H
#define TESSEL_SRC_TRANSPORT_BROKER_NUMBER_H

#include <cstdint>
#include <string>

namespace tessel {

/// The brokers that have numbers of their own.
enum class BrokerKind { kMessage, kRpc };

/// The number of a broker in its process, from 0; its in-process endpoints are named after it, so
/// none of them is ever used again. A broker that could not be made has used its number up, too.
class BrokerNumber {
 public:
  /// Takes the next number, for a broker that is about to be made.
  explicit BrokerNumber(BrokerKind kind);
  ~BrokerNumber() { settle(); }
  BrokerNumber(const BrokerNumber&) = delete;
  BrokerNumber& operator=(const BrokerNumber&) = delete;

  std::uint64_t value() const { return value_; }
  /// Where the process reaches the broker, if it binds it.
  std::string endpoint() const;
  /// The broker has bound its endpoints.
  void settle();
  /// Whether this is the endpoint() of a broker that has gone: nobody will bind it any more. Any
  /// thread.
  static bool isRetired(const std::string& endpoint);

 private:
  class Numbers;

  Numbers& numbers_;
  const std::uint64_t value_;
};

}  // namespace tessel

#endif
