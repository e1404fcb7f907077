#ifndef TESSEL_SRC_RPC_SERVICE_CALL_H
#define TESSEL_SRC_RPC_SERVICE_CALL_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "rpc/observer_data.h"
#include "tessel/service.h"

namespace tessel {

/// What observers hear when nobody has the service; the text for the caller says which.
extern const char* const kServiceNotFound;
std::string serviceNotFoundText(const std::string& service, const std::string& instance);

/// The size that observers are given with a text: its terminating NUL counts.
std::size_t observedSize(const char* text);

/// One call of a service's method, with the observers who are told of it. Refers to its arguments.
struct ServiceCall {
  const std::string& service;
  const std::string& instance;
  const std::string& method;
  const void* data;
  std::size_t size;
  const ObserverSnapshot& observers;

  /// Calls the service between its observers, then `finish`. What any of them throws is told to the
  /// observers as the end of the call, and thrown on: an rpc_custom_error as the object that it is,
  /// anything else as rpc_service_error. What an observer throws while it is told of a failure is
  /// swallowed: the caller gets its answer.
  void run(Service& target, std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize,
           const std::function<void()>& finish) const;
  /// Tells the observers that the service has gone; what they throw is swallowed.
  void tellNotFound() const;

 private:
  void tellReply(int status, const void* bytes, std::size_t count) const;
  void tellFailure(int status, const void* bytes, std::size_t count) const;
};

}  // namespace tessel

#endif
