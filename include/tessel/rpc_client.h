#ifndef TESSEL_RPC_CLIENT_H
#define TESSEL_RPC_CLIENT_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "tessel/export.h"

namespace tessel {

class RpcBroker;
class RpcClientImpl;

/// Calls methods of services, and waits for the answer.
///
/// A client is cheap: it owns no connection. Each thread that calls keeps one connection to each
/// endpoint, shared by all clients, and closes it when the thread ends. Any number of threads may
/// call through one client at once.
class TESSEL_EXPORT RpcClient {
 public:
  /// Calls the services that the broker at this endpoint has or knows of. Connects at the first
  /// call.
  ///
  /// Both constructors: `receiveTimeout` is how long a call waits for its answer; -1 ms, and more
  /// than 2147483647 ms, mean for ever.
  RpcClient(const std::string& transport, std::chrono::milliseconds receiveTimeout);
  /// Calls services registered with this broker directly, on the calling thread, while the broker
  /// runs; others through a slave's master, or the master that the broker is. Does not keep the
  /// broker alive. Throws std::invalid_argument for a null pointer.
  RpcClient(const std::shared_ptr<RpcBroker>& broker, std::chrono::milliseconds receiveTimeout);
  virtual ~RpcClient();
  RpcClient(const RpcClient&) = delete;
  RpcClient& operator=(const RpcClient&) = delete;

  /// Calls `method` with `size` bytes at `data`. On success `out` owns the result, `outSize` bytes.
  /// On failure both are as before, unless the service ran on this thread and wrote to them.
  ///
  /// Throws rpc_timeout when no answer came in time, rpc_broker_error when nobody has the service,
  /// rpc_custom_error or rpc_service_error when the service threw, and std::runtime_error with
  /// ZeroMQ's text when the endpoint cannot be used. A call that timed out may still run; its
  /// answer is dropped.
  void CallMethod(const std::string& service, const std::string& instance,
                  const std::string& method, const void* data, std::size_t size,
                  std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize);

  std::chrono::milliseconds receiveTimeout() const;
  /// From the next call on. Any thread.
  void setReceiveTimeout(const std::chrono::milliseconds& timeout);

 private:
  std::unique_ptr<RpcClientImpl> impl_;
};

}  // namespace tessel

#endif
