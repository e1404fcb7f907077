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
  /// @param transport the endpoint of a master
  /// @param receiveTimeout how long a call waits for its answer; -1 ms and more than 2147483647 ms
  ///     mean for ever
  RpcClient(const std::string& transport, std::chrono::milliseconds receiveTimeout);
  /// Calls services registered with this broker directly, on the calling thread, while the broker
  /// runs; others through a slave's master, or the master that the broker is.
  ///
  /// @param broker a broker of this process; the client does not keep it alive
  /// @param receiveTimeout how long a call waits for its answer, unless it runs directly; -1 ms
  ///     and more than 2147483647 ms mean for ever
  /// @throws std::invalid_argument for a null pointer
  RpcClient(const std::shared_ptr<RpcBroker>& broker, std::chrono::milliseconds receiveTimeout);
  /// Closes no connection: the threads that have called keep theirs until they end.
  virtual ~RpcClient();
  /// Not copied, nor moved.
  RpcClient(const RpcClient&) = delete;
  /// Not assigned.
  RpcClient& operator=(const RpcClient&) = delete;

  /// Calls a method and waits for its end: for the time-out at most, or as long as a service runs
  /// that is called directly. A client made on a broker also waits, without a time-out, while
  /// observers of that broker are told of a registration. A call that timed out may still run; its
  /// answer is dropped.
  ///
  /// @param service the service's first name
  /// @param instance the service's second name
  /// @param method the method, which the service interprets
  /// @param data the argument; it is copied, or passed on as it is to a service called directly
  /// @param size how many bytes
  /// @param[out] out owns the result afterwards; after a failure it is as before, unless a service
  ///     called directly has written to it
  /// @param[out] outSize how many bytes the result has; after a failure as `out`; 0 and a buffer
  ///     for an empty result, other than from a service called directly that sets neither
  /// @throws rpc_timeout when no answer came in time; at once when one came that cannot be read, or
  ///     when the broker, of this process, went before it had the whole call
  /// @throws rpc_broker_error when nobody has the service; "unknown response type" when the answer
  ///     says how the call ended in a way that this version does not know
  /// @throws rpc_custom_error when the service threw one: its bytes
  /// @throws rpc_service_error when the service threw anything else: its text
  /// @throws std::runtime_error with ZeroMQ's text when the endpoint cannot be used, when a signal
  ///     handler ends the waiting, or for a negative time-out other than -1 ms
  void CallMethod(const std::string& service, const std::string& instance,
                  const std::string& method, const void* data, std::size_t size,
                  std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize);

  /// How long a call waits for its answer.
  ///
  /// @return what was set last
  std::chrono::milliseconds receiveTimeout() const;
  /// Changes how long calls wait, from the next one on. Any thread.
  ///
  /// @param timeout as for the constructors
  void setReceiveTimeout(const std::chrono::milliseconds& timeout);

 private:
  std::unique_ptr<RpcClientImpl> impl_;
};

}  // namespace tessel

#endif
