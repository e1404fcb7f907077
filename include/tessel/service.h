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
  /// Any names, also empty ones.
  Service(const std::string& serviceName, const std::string& instanceName);
  virtual ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  /// Runs `method` with `size` bytes at `data`, valid during the call only. Sets `out` to a new
  /// array with the result and `outSize` to its length, or leaves both for an empty result.
  ///
  /// Throws what the caller is to catch: an rpc_custom_error reaches it with its bytes, any other
  /// std::exception as rpc_service_error with the same text, anything else as rpc_service_error
  /// "unknown exception".
  ///
  /// Called on a thread of the broker's dispatcher, or on the caller's own when it calls within the
  /// process; by several threads at once.
  virtual void callMethod(const std::string& method, const void* data, std::size_t size,
                          std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) = 0;

  const std::string& getServiceName() const;
  const std::string& getInstanceName() const;

 private:
  std::unique_ptr<ServiceImpl> impl_;
};

}  // namespace tessel

#endif
