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
  /// Binds or connects; calls wait in the sockets' queues until start(). Waits for an endpoint in
  /// use as MessageBroker does.
  ///
  /// @param master whether it is a master, which binds, or a slave, which connects to a master
  /// @param transports a master's own endpoints, or the only one at which a slave finds its master;
  ///     a master without any serves this process only
  /// @param dispatcher decides on which threads services run; shared with the broker
  /// @throws std::runtime_error with ZeroMQ's text when an endpoint cannot be bound or connected,
  ///     or when the process has no socket left
  /// @throws std::logic_error when a slave is given other than one transport
  /// @throws std::invalid_argument for a null dispatcher
  RpcBroker(bool master, const std::vector<std::string>& transports,
            std::shared_ptr<RpcDispatcher> dispatcher);
  /// Stops the broker. Not from an observer on the broker's thread, nor from a service that one of
  /// its workers runs: a thread cannot wait for itself, and the process ends.
  virtual ~RpcBroker();
  /// Not copied, nor moved.
  RpcBroker(const RpcBroker&) = delete;
  /// Not assigned.
  RpcBroker& operator=(const RpcBroker&) = delete;

  /// Offers a service, at any time. A running slave tells its master. Waits as attach() does.
  /// Throws what an observer throws who is told; the service is registered all the same.
  ///
  /// @param service the service; the broker shares its ownership
  /// @throws std::logic_error when there is one of the same names
  /// @throws std::invalid_argument for a null pointer
  /// @throws std::runtime_error with ZeroMQ's text when a running slave cannot tell its master,
  ///     because the process has no socket left; the service is not registered then
  void registerService(const std::shared_ptr<Service>& service);
  /// Takes the service of these names back, also when it was never there. Calls that run go on;
  /// calls accepted and not begun are answered that the service was not found, if nobody else owns
  /// it. Waits as attach() does. Throws what an observer throws who is told; the service is then
  /// still there.
  ///
  /// @param service one with the names of the service to take back
  /// @throws std::invalid_argument for a null pointer
  /// @throws std::runtime_error with ZeroMQ's text when a running slave cannot tell its master,
  ///     because the process has no socket left; the service is then still there
  void unregisterService(const std::shared_ptr<Service>& service);

  /// Adds an observer at the end of the list, once more if it is there already. The broker does not
  /// keep it alive. Waits while observers are told of a registration, or that nobody has a service,
  /// so they must not call it then.
  ///
  /// @param observer the one to add; a null pointer is ignored
  void attach(const std::shared_ptr<RpcBrokerObserver>& observer);
  /// Removes every entry of the observer. Calls under way still tell it. Waits as attach() does.
  ///
  /// @param observer the one to remove; a null pointer is ignored
  void detach(const std::shared_ptr<RpcBrokerObserver>& observer);

  /// Starts the dispatcher and the broker's thread; does nothing when they run. A slave announces
  /// its services, also to a master that comes later; but not once more to one that has ended and
  /// comes back, nor after its connection broke. The master that lives on knows it as somebody else
  /// then: calls through it time out until its stop() and start(). Throws what the dispatcher's
  /// start() throws.
  ///
  /// Waits for a start() or stop() under way, except on a thread that these may be waiting for: in
  /// an observer on the broker's thread, in a service that the dispatcher runs, or in an observer
  /// of such a call. There it does nothing. It also does nothing after an observer has called
  /// stop() on the broker's thread, until a stop() from another thread has completed that one.
  ///
  /// @throws std::system_error when there is no thread to be had; the broker is then as it was
  void start();
  /// Waits for the broker's thread to end, then stops the dispatcher. A slave withdraws its
  /// services from the master; what has not left when it is destroyed, or the process ends, is
  /// dropped. Does nothing when the broker does not run, whatever the flags say.
  ///
  /// Not from a service that a worker of a ThreadedRpcDispatcher runs: a worker cannot wait for
  /// itself, and the process ends. Throws what the dispatcher's stop() throws, in the end.
  ///
  /// @param clearServices releases every service, and forgets those of slaves
  /// @param clearObservers detaches every observer after that
  /// @throws std::system_error (resource_deadlock_would_occur) when an observer calls it on the
  ///     broker's thread; the thread then ends, and a stop() from another thread completes the
  ///     stop: until then nothing is routed, the dispatcher runs on, and start() does nothing
  /// @throws std::system_error the same, when a service that the dispatcher runs, or an observer of
  ///     such a call, calls it during a start() or stop(); nothing else happens then
  void stop(bool clearServices = false, bool clearObservers = false);

 private:
  friend class RpcClientImpl;
  std::unique_ptr<RpcBrokerImpl> impl_;
};

/// Watches an RpcBroker; for monitoring.
///
/// The broker's thread calls it for services of slaves, and for calls of a service that nobody has.
/// An exception that leaves it there ends the process. With the observer list locked as it is then,
/// no observer may attach, detach, register or unregister with this broker, or call a service of it
/// by an RpcClient made on it: it would wait for itself.
class TESSEL_EXPORT RpcBrokerObserver {
 public:
  /// Needs no detach() before: brokers forget observers that have gone.
  virtual ~RpcBrokerObserver();
  /// A service was registered, with this broker or with a slave of it. Called on the thread that
  /// registers, with the broker's registry and observer list locked, so that it must not call the
  /// broker; or for a slave on the broker's. The broker routes no call before it returns. An
  /// exception that leaves it reaches the caller of registerService(), and the observers behind it
  /// are not told.
  ///
  /// @param serviceName the service's first name
  /// @param instanceName the service's second name
  /// @param local registered with this broker, not with a slave
  /// @param identity the routing identity of the slave; empty for this broker
  virtual void onServiceRegistered(const std::string& serviceName, const std::string& instanceName,
                                   bool local, const std::vector<std::uint8_t>& identity) = 0;
  /// A service was taken back. Called as onServiceRegistered() is; with this broker also for a
  /// service that was never there.
  ///
  /// @param serviceName the service's first name
  /// @param instanceName the service's second name
  /// @param local taken back from this broker, not by a slave
  /// @param identity the routing identity of the slave that takes it back; empty for this broker
  virtual void onServiceUnregistered(const std::string& serviceName,
                                     const std::string& instanceName, bool local,
                                     const std::vector<std::uint8_t>& identity) = 0;
  /// A service of this broker is about to be called. On the thread that calls it, no lock held; by
  /// several threads at once. An exception that leaves it is what the caller gets.
  ///
  /// @param serviceName the service's first name
  /// @param instanceName the service's second name
  /// @param methodName the method
  /// @param data the call's argument, valid during the call only
  /// @param size how many bytes
  virtual void onRequest(const std::string& serviceName, const std::string& instanceName,
                         const std::string& methodName, const void* data, std::size_t size) = 0;
  /// How the call ended. Called before the caller has the answer, as onRequest(); for a service
  /// that nobody has, on the broker's thread, with the observer list locked.
  ///
  /// An exception that leaves it when there is a result makes a failure of that, of which all
  /// observers hear again, and is what the caller gets. One that leaves it at a failure is dropped.
  ///
  /// @param serviceName the service's first name
  /// @param instanceName the service's second name
  /// @param methodName the method
  /// @param status 0: it has a result; 1: the service failed; 2: nobody has it; 3: it failed with
  ///     an error of its own
  /// @param data 0: the result; 1: the text of the failure; 2: "service not found"; 3: the bytes of
  ///     the error; valid during the call only. Null, whatever the size, when the service gave no
  ///     buffer
  /// @param size how many bytes, as the service has set it; of a text with its terminating NUL
  virtual void onReply(const std::string& serviceName, const std::string& instanceName,
                       const std::string& methodName, int status, const void* data,
                       std::size_t size) = 0;
};

}  // namespace tessel

#endif
