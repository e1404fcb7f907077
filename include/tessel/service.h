#ifndef TESSEL_SERVICE_H
#define TESSEL_SERVICE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "tessel/export.h"

namespace tessel {

class ServiceImpl;

/// What an application offers to callers: derive from it, implement callMethod(), and register it
/// with an RpcBroker. Known by two names, so that several instances of one service can live side by
/// side.
class TESSEL_EXPORT Service {
 public:
  /// Offers nothing yet.
  ///
  /// @param serviceName what it is; any text, also an empty one
  /// @param instanceName which one it is; any text, also an empty one
  Service(const std::string& serviceName, const std::string& instanceName);
  /// On whichever thread lets go last: one of the application's, or one that ran a call.
  virtual ~Service();
  /// Not copied, nor moved.
  Service(const Service&) = delete;
  /// Not assigned.
  Service& operator=(const Service&) = delete;

  /// Runs a method.
  ///
  /// Throws what the caller is to catch: an rpc_custom_error reaches it with its bytes, any other
  /// std::exception as rpc_service_error with the same text, anything else as rpc_service_error
  /// "unknown exception".
  ///
  /// Called on a thread of the broker's dispatcher, or on the caller's own when it calls within the
  /// process; by several threads at once.
  ///
  /// @param method the method, as the caller has named it
  /// @param data the argument, valid during the call only
  /// @param size how many bytes
  /// @param[out] out a new array with the result; may stay null for an empty one: what is sent is
  ///     empty then, whatever the size
  /// @param[out] outSize how many bytes the result has; set it also to 0, since a caller within the
  ///     process finds here what it had before
  virtual void callMethod(const std::string& method, const void* data, std::size_t size,
                          std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) = 0;

  /// What it is.
  ///
  /// @return the first name, valid as long as the service
  const std::string& getServiceName() const;
  /// Which one it is.
  ///
  /// @return the second name, valid as long as the service
  const std::string& getInstanceName() const;

 private:
  std::unique_ptr<ServiceImpl> impl_;
};

}  // namespace tessel

#endif
