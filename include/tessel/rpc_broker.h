#ifndef TESSEL_RPC_BROKER_H
#define TESSEL_RPC_BROKER_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tessel/export.h"

namespace tessel {

class RpcBrokerImpl;
class RpcBrokerObserver;
class RpcDispatcher;
class Service;

/// Takes calls from clients and runs them with the services registered in it, or passes them on.
///
/// A master binds the endpoints that clients connect to. A slave connects to one master and offers
/// its services through it: clients need to know the master only. When several slaves offer a
/// service of the same names, the last to come gets the calls; a service of the master's own comes
/// before theirs.
///
/// Any thread may call any operation; a service may register and unregister from inside a call.
///
/// Whoever can connect is trusted: a well-formed message of a type that has no business at a broker
/// ends its process.
class TESSEL_EXPORT RpcBroker {
 public:
  /// A master binds all of `transports`, a slave connects to its only one. Calls wait in the
  /// sockets' queues until start(). The dispatcher decides where services run.
  ///
  /// Throws std::runtime_error with ZeroMQ's text when an endpoint cannot be bound or connected,
  /// std::logic_error when a slave is given other than one transport, std::invalid_argument for a
  /// null dispatcher. Waits for an endpoint in use as MessageBroker does.
  RpcBroker(bool master, const std::vector<std::string>& transports,
            std::shared_ptr<RpcDispatcher> dispatcher);
  /// Stops the broker. Not from an observer on the broker's thread, nor from a service that one of
  /// its workers runs: a thread cannot wait for itself, and the process ends.
  virtual ~RpcBroker();
  RpcBroker(const RpcBroker&) = delete;
  RpcBroker& operator=(const RpcBroker&) = delete;

  /// Offers a service, at any time; the broker shares its ownership. A running slave tells its
  /// master. Throws std::logic_error when there is one of the same names, std::invalid_argument for
  /// a null pointer.
  void registerService(const std::shared_ptr<Service>& service);
  /// Takes the service of these names back, also when it was never there. Calls that run go on;
  /// calls accepted and not begun are answered that the service was not found, if nobody else owns
  /// it. Throws std::invalid_argument for a null pointer.
  void unregisterService(const std::shared_ptr<Service>& service);

  /// Adds an observer at the end of the list, once more if it is there already. The broker does not
  /// keep it alive. A null pointer is ignored.
  void attach(const std::shared_ptr<RpcBrokerObserver>& observer);
  /// Removes every entry of the observer. Calls under way still tell it. A null pointer is ignored.
  void detach(const std::shared_ptr<RpcBrokerObserver>& observer);

  /// Starts the dispatcher and the broker's thread; does nothing when they run. A slave announces
  /// its services. Throws what the dispatcher throws, and std::system_error when there is no thread
  /// to be had; the broker is then as it was.
  void start();
  /// Waits for the broker's thread to end, then stops the dispatcher. A slave withdraws its
  /// services from the master. Does nothing when the broker does not run, whatever the flags say.
  ///
  /// `clearServices` releases every service, `clearObservers` detaches every observer after that.
  ///
  /// Throws std::system_error (resource_deadlock_would_occur) when an observer calls it on the
  /// broker's thread; the thread then ends, and a stop() from another thread completes the stop.
  void stop(bool clearServices = false, bool clearObservers = false);

 private:
  friend class RpcClient;
  friend class RpcClientImpl;
  std::unique_ptr<RpcBrokerImpl> impl_;
};

/// Watches an RpcBroker; for monitoring.
///
/// An exception that leaves onServiceRegistered() or onServiceUnregistered() reaches the caller of
/// registerService() or unregisterService(), or ends the process on the broker's thread.
class TESSEL_EXPORT RpcBrokerObserver {
 public:
  virtual ~RpcBrokerObserver();
  /// `local`: registered with this broker, and `identity` is empty; otherwise with the slave that
  /// has this routing identity. Called on the thread that registers, or the broker's, with the
  /// broker's registry and observer list locked: it must not call the broker.
  virtual void onServiceRegistered(const std::string& serviceName, const std::string& instanceName,
                                   bool local, const std::vector<std::uint8_t>& identity) = 0;
  /// As onServiceRegistered().
  virtual void onServiceUnregistered(const std::string& serviceName,
                                     const std::string& instanceName, bool local,
                                     const std::vector<std::uint8_t>& identity) = 0;
  /// A service of this broker is about to be called. On the thread that calls it, no lock held; by
  /// several threads at once. An exception that leaves it is what the caller gets.
  virtual void onRequest(const std::string& serviceName, const std::string& instanceName,
                         const std::string& methodName, const void* data, std::size_t size) = 0;
  /// How the call ended: 0 with its result, 1 with a text of the service's failure, 2 with
  /// "service not found", 3 with the bytes of the service's own error. The size of a text counts
  /// its terminating NUL. Called before the caller has the answer, as onRequest(); for a service
  /// that nobody has, on the broker's thread, with the observer list locked.
  virtual void onReply(const std::string& serviceName, const std::string& instanceName,
                       const std::string& methodName, int status, const void* data,
                       std::size_t size) = 0;
};

}  // namespace tessel

#endif
