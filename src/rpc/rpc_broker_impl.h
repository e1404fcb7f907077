#ifndef TESSEL_SRC_RPC_RPC_BROKER_IMPL_H
#define TESSEL_SRC_RPC_RPC_BROKER_IMPL_H

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "messages/message_header.h"
#include "messages/message_registration.h"
#include "messages/message_request.h"
#include "rpc/observer_data.h"
#include "rpc/service_key.h"
#include "tessel/rpc_dispatcher.h"
#include "tessel/service.h"
#include "transport/broker_number.h"
#include "transport/mutex.h"
#include "transport/poll_set.h"
#include "transport/zmq_socket.h"

namespace tessel {

class RpcBrokerImpl;

/// How clients of the process reach their broker without owning it, not even for a moment: the
/// release of the last owner stops the broker, which a worker of it, running a service that calls
/// its own broker, could not wait for. Outlives the broker; any thread.
class LocalRoad {
 public:
  explicit LocalRoad(RpcBrokerImpl& broker) : broker_(&broker) {}

  /// The service with the observers of its broker; null when the broker is gone, does not run or
  /// does not have it.
  std::shared_ptr<Service> find(const std::string& service, const std::string& instance,
                                std::shared_ptr<ObserverData>& observers) TESSEL_EXCLUDES(mutex_);
  /// Waits for those who are looking; nothing is found from now on.
  void close() TESSEL_EXCLUDES(mutex_);

 private:
  Mutex mutex_;  // taken before the broker's registry lock
  RpcBrokerImpl* broker_ TESSEL_GUARDED_BY(mutex_);
};

/// The broker behind the front: its sockets, registries and observers, and the thread that routes.
///
/// Starting and stopping have a lock of their own, apart from that of the registry: a stop waits
/// for the broker thread and for the workers, and both look services up and register them.
class RpcBrokerImpl {
 public:
  RpcBrokerImpl(bool master, const std::vector<std::string>& transports,
                std::shared_ptr<RpcDispatcher> dispatcher);
  ~RpcBrokerImpl();
  RpcBrokerImpl(const RpcBrokerImpl&) = delete;
  RpcBrokerImpl& operator=(const RpcBrokerImpl&) = delete;

  void registerService(const std::shared_ptr<Service>& service) TESSEL_EXCLUDES(registryMutex_);
  void unregisterService(const std::shared_ptr<Service>& service) TESSEL_EXCLUDES(registryMutex_);
  void attach(const std::shared_ptr<RpcBrokerObserver>& observer) { observers_->attach(observer); }
  void detach(const std::shared_ptr<RpcBrokerObserver>& observer) { observers_->detach(observer); }
  void start() TESSEL_EXCLUDES(lifecycleMutex_, registryMutex_);
  void stop(bool clearServices, bool clearObservers)
      TESSEL_EXCLUDES(lifecycleMutex_, registryMutex_);

  /// Where clients of this process connect.
  const std::string& clientEndpoint() const { return routerEndpoint_; }
  /// Null when the service is not registered here, or the broker does not run.
  std::shared_ptr<Service> findLocalService(const std::string& service, const std::string& instance)
      TESSEL_EXCLUDES(registryMutex_);
  std::shared_ptr<ObserverData> observerData() const { return observers_; }
  std::shared_ptr<LocalRoad> localRoad() const { return localRoad_; }

  /// One pass of the broker's loop: at most one message of each socket. False once it is to stop.
  bool serveOnce();

 private:
  using ServiceKeys = std::vector<ServiceKey>;
  using Services = std::map<ServiceKey, std::shared_ptr<Service>, ServiceKeyLess>;
  enum class Announce { kOffer, kWithdraw };
  using Change = std::pair<Announce, ServiceKey>;
  // Unknown: no pass in this run yet, so ask before sleeping.
  enum class Pass { kUnknown, kServed, kFoundNothing };
  // What becomes of a start() or stop(): it goes ahead, with the lock held; or it does not, since
  // the broker's own thread makes it, or one that may be waited for by whoever holds the lock.
  enum class Entry { kEntered, kOnOwnThread, kWaitedFor };

  void run(const ServiceKeys& announced);
  void waitForMasterOrChanges();
  void leave() TESSEL_EXCLUDES(registryMutex_);
  void dropQueuedRegistrations();
  bool serveNext();
  bool serveMain();
  bool serveInternal();
  void serve(MessageHeader&& header);
  void serveRequest(MessageHeader&& header) TESSEL_EXCLUDES(registryMutex_);
  void serveReply(MessageHeader&& header);
  void serveRegistration(MessageHeader&& header);
  void answerNotFound(MessageRequest& request);
  void announce(const ServiceKeys& services, Announce what);
  void announceFromThisThread(const ServiceKey& key, Announce what) TESSEL_REQUIRES(registryMutex_);
  void forward(MessageRegistration& registration) TESSEL_EXCLUDES(registryMutex_);
  ServiceKeys openRegistry() TESSEL_EXCLUDES(registryMutex_);
  void closeRegistry() TESSEL_EXCLUDES(registryMutex_);
  Entry enterLifecycle() TESSEL_NO_THREAD_SAFETY_ANALYSIS;
  void joinThread() TESSEL_REQUIRES(lifecycleMutex_);
  void wakeThread() TESSEL_REQUIRES(lifecycleMutex_);

  const bool master_;
  Pass lastPass_ = Pass::kUnknown;  // the broker thread's own, of a slave
  BrokerNumber number_{BrokerKind::kRpc};
  const std::string routerEndpoint_;
  const std::string internalEndpoint_;

  // The broker thread's own; others touch them only before start() or after the join.
  ZmqSocket mainSocket_;
  ZmqSocket internalSocket_;
  std::map<ServiceKey, std::vector<std::uint8_t>, ServiceKeyLess> remoteServices_;
  std::optional<MessageHeader> waiting_;  // of a message that a master was sent as it stopped

  Mutex lifecycleMutex_;  // orders start() and stop(); taken before the registry's lock
  std::thread thread_ TESSEL_GUARDED_BY(lifecycleMutex_);  // joinable until a stop() has joined it
  std::atomic<std::thread::id> threadId_{};                // set by the broker thread while it runs
  // Whoever holds lifecycleMutex_ may be waiting for a call that is being served.
  std::atomic<bool> waitingForCalls_{false};
  std::atomic<bool> stopRequested_{false};
  ZmqSocket waker_;  // to the socket that the broker thread waits for; under lifecycleMutex_ only
  PollSet poll_;     // the broker thread's own, of a slave

  const std::shared_ptr<RpcDispatcher> dispatcher_;

  Mutex registryMutex_;  // taken before the observers' lock; never held while waiting for a thread
  Services services_ TESSEL_GUARDED_BY(registryMutex_);
  // Calls of this process are served, and a slave tells its master what is registered.
  bool serving_ TESSEL_GUARDED_BY(registryMutex_) = false;
  // What the slave's thread takes back when it leaves: all that was offered while it served.
  ServiceKeys withdrawn_ TESSEL_GUARDED_BY(registryMutex_);

  // Taken last: a slave's thread must not wait for the registry while observers are told.
  Mutex changesMutex_;
  // What that thread has been told by others and not read yet, in the order of the calls.
  std::deque<Change> changes_ TESSEL_GUARDED_BY(changesMutex_);

  const std::shared_ptr<ObserverData> observers_;  // locks itself
  const std::shared_ptr<LocalRoad> localRoad_;     // locks itself
};

}  // namespace tessel

#endif
