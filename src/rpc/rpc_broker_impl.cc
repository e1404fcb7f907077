#include "rpc/rpc_broker_impl.h"

#include <zmq.h>

#include <chrono>
#include <exception>
#include <optional>
#include <stdexcept>
#include <utility>

#include "messages/message_reply.h"
#include "rpc/rpc_request_impl.h"
#include "rpc/service_call.h"
#include "transport/deadlock.h"
#include "transport/thread_socket_cache.h"

namespace tessel {
namespace {

// In a slave's poll set.
constexpr std::size_t kMainItem = 0;
constexpr std::size_t kInternalItem = 1;

const std::string& onlyTransport(const std::vector<std::string>& transports) {
  if (transports.size() != 1) {
    throw std::logic_error("only one transport is allowed in slave mode!");
  }
  return transports.front();
}

std::shared_ptr<RpcDispatcher> notNull(std::shared_ptr<RpcDispatcher> dispatcher) {
  if (dispatcher == nullptr) throw std::invalid_argument("RPC dispatcher must not be null!");
  return dispatcher;
}

// True while it exists.
class Raised {
 public:
  explicit Raised(std::atomic<bool>& flag) : flag_(flag) { flag_.store(true); }
  ~Raised() { flag_ = false; }
  Raised(const Raised&) = delete;
  Raised& operator=(const Raised&) = delete;

 private:
  std::atomic<bool>& flag_;
};

// Peers are trusted not to send what has no business here; going on would mean to guess.
[[noreturn]] void throwUnexpected() { throw std::logic_error("this should not happen"); }

}  // namespace

std::shared_ptr<Service> LocalRoad::find(const std::string& service, const std::string& instance,
                                         std::shared_ptr<ObserverData>& observers) {
  const Lock lock(mutex_);
  if (broker_ == nullptr) return nullptr;
  observers = broker_->observerData();
  return broker_->findLocalService(service, instance);
}

void LocalRoad::close() {
  const Lock lock(mutex_);
  broker_ = nullptr;
}

RpcBrokerImpl::RpcBrokerImpl(bool master, const std::vector<std::string>& transports,
                             std::shared_ptr<RpcDispatcher> dispatcher)
    : master_(master),
      routerEndpoint_(master ? number_.endpoint() : onlyTransport(transports)),
      internalEndpoint_("inproc://rpc_broker_internal_" + std::to_string(number_.value())),
      mainSocket_(master ? ZMQ_ROUTER : ZMQ_DEALER),
      internalSocket_(ZMQ_PULL),
      waker_(master ? ZMQ_DEALER : ZMQ_PUSH),
      poll_{mainSocket_.handle(), internalSocket_.handle()},
      dispatcher_(notNull(std::move(dispatcher))),
      observers_(std::make_shared<ObserverData>()),
      localRoad_(std::make_shared<LocalRoad>(*this)) {
  waker_.liftSendLimit();  // a stop never waits for those before it to be read
  if (master_) {
    for (const std::string& transport : transports) mainSocket_.bind(transport);
    mainSocket_.bind(routerEndpoint_);
    mainSocket_.waitThroughSignals();
    waker_.connect(routerEndpoint_);
  } else {
    mainSocket_.liftSendLimit();  // announcements wait for the master
    mainSocket_.connect(routerEndpoint_);
    internalSocket_.setOption(ZMQ_RCVHWM, kNoHighWaterMark);  // registering never waits
    internalSocket_.bind(internalEndpoint_);
    waker_.connect(internalEndpoint_);
  }
  number_.settle();
}

RpcBrokerImpl::~RpcBrokerImpl() {
  stop(false, false);
  localRoad_->close();
  Services released;  // while everything is still there: their destructors may call the broker
  const Lock lock(registryMutex_);
  released.swap(services_);
}

void RpcBrokerImpl::registerService(const std::shared_ptr<Service>& service) {
  ObserverData::Told told;  // released after the lock: their destructors may call the broker
  const Lock lock(registryMutex_);
  const ServiceKey key(service->getServiceName(), service->getInstanceName());
  const auto entry = services_.emplace(key, service);
  if (!entry.second) throw std::logic_error("service already registered");
  try {
    announceFromThisThread(key, Announce::kOffer);
  } catch (...) {  // otherwise it could not be registered again, when there are sockets
    services_.erase(entry.first);
    throw;
  }
  const auto tell = [&](RpcBrokerObserver& observer) {
    observer.onServiceRegistered(key.first, key.second, true, {});
  };
  observers_->notify(tell, told);
}

void RpcBrokerImpl::unregisterService(const std::shared_ptr<Service>& service) {
  const ServiceKey key(service->getServiceName(), service->getInstanceName());
  // Both after the lock: their destructors may call the broker.
  Services::node_type released;
  ObserverData::Told told;
  const Lock lock(registryMutex_);
  const auto tell = [&](RpcBrokerObserver& observer) {
    observer.onServiceUnregistered(key.first, key.second, true, {});
  };
  observers_->notify(tell, told);
  announceFromThisThread(key, Announce::kWithdraw);
  released = services_.extract(key);
}

// By the thread's own socket: the one to the master is the broker thread's.
void RpcBrokerImpl::announceFromThisThread(const ServiceKey& key, Announce what) {
  if (master_ || !serving_) return;
  {
    const Lock lock(changesMutex_);
    changes_.emplace_back(what, key);
  }
  try {
    MessageRegistration message(what == Announce::kOffer, key.first, key.second);
    message.send(ThreadSockets::ofThisThread().registrations.socketFor(internalEndpoint_));
  } catch (...) {
    const Lock lock(changesMutex_);
    if (!changes_.empty()) changes_.pop_back();
    throw;
  }
}

std::shared_ptr<Service> RpcBrokerImpl::findLocalService(const std::string& service,
                                                         const std::string& instance) {
  const Lock lock(registryMutex_);
  if (!serving_) return nullptr;
  const auto entry = services_.find(ServiceKeyView(service, instance));
  return entry == services_.end() ? nullptr : entry->second;
}

RpcBrokerImpl::ServiceKeys RpcBrokerImpl::openRegistry() {
  ServiceKeys announced;
  const Lock lock(registryMutex_);
  for (const auto& entry : services_) announced.push_back(entry.first);
  serving_ = true;
  return announced;
}

void RpcBrokerImpl::closeRegistry() {
  const Lock lock(registryMutex_);
  if (!serving_) return;
  if (!master_) {  // the list first: if there is no memory for it, the broker goes on as it was
    ServiceKeys offered;
    for (const auto& entry : services_) offered.push_back(entry.first);
    withdrawn_.swap(offered);
  }
  serving_ = false;
}

// An observer or a service must not wait for a start() or stop() that waits for it. The analysis
// does not follow a lock that is taken on one way and not on others.
RpcBrokerImpl::Entry RpcBrokerImpl::enterLifecycle() {
  if (threadId_ == std::this_thread::get_id()) return Entry::kOnOwnThread;
  if (!RpcRequestImpl::runsOnThisThread(observers_)) {
    lifecycleMutex_.lock();
    return Entry::kEntered;
  }
  while (!waitingForCalls_) {
    if (lifecycleMutex_.tryLock()) return Entry::kEntered;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return Entry::kWaitedFor;
}

void RpcBrokerImpl::start() {
  // Otherwise it runs or is about to, or it is as if this came just before that stop.
  if (enterLifecycle() != Entry::kEntered) return;
  lifecycleMutex_.assertHeld();
  const Lock lock(lifecycleMutex_, std::adopt_lock);
  if (thread_.joinable()) return;
  const Raised waiting(waitingForCalls_);  // the dispatcher may serve what it has kept
  dispatcher_->start();
  stopRequested_ = false;
  try {
    thread_ = std::thread([this, announced = openRegistry()] { run(announced); });
  } catch (...) {
    {
      const Lock registryLock(registryMutex_);
      serving_ = false;  // nothing was announced, so nothing is to be withdrawn
    }
    dropQueuedRegistrations();
    dispatcher_->stop();
    throw;
  }
}

void RpcBrokerImpl::stop(bool clearServices, bool clearObservers) {
  // Both after the locks: their destructors may call the broker.
  Services released;
  ObserverData::Entries detached;
  const Entry entry = enterLifecycle();
  if (entry == Entry::kOnOwnThread) stopRequested_ = true;
  if (entry != Entry::kEntered) throwDeadlock();
  lifecycleMutex_.assertHeld();
  const Lock lock(lifecycleMutex_, std::adopt_lock);
  if (!thread_.joinable()) return;
  const Raised waiting(waitingForCalls_);
  closeRegistry();
  joinThread();
  std::exception_ptr thrown;
  try {
    dispatcher_->stop();
  } catch (...) {  // a further stop() would find nothing running, and clear nothing
    thrown = std::current_exception();
  }
  if (clearServices) {
    const Lock registryLock(registryMutex_);
    released.swap(services_);
    remoteServices_.clear();
  }
  if (clearObservers) detached = observers_->takeAll();
  if (thrown != nullptr) std::rethrow_exception(thrown);
}

void RpcBrokerImpl::joinThread() {
  stopRequested_ = true;
  wakeThread();
  thread_.join();
}

// By a message that says nothing: it is dropped, now or after the next start, as any that cannot be
// read.
void RpcBrokerImpl::wakeThread() {
  ZmqFrame empty;
  waker_.send(empty, 0);
}

void RpcBrokerImpl::run(const ServiceKeys& announced) {
  threadId_ = std::this_thread::get_id();
  lastPass_ = Pass::kUnknown;
  if (!master_) announce(announced, Announce::kOffer);
  while (serveOnce()) {
  }
  closeRegistry();  // unless stop() has
  if (!master_) leave();
  threadId_ = std::thread::id();
}

// What other threads have registered goes first, so that nothing of it comes after its withdrawal
// or is still there at the next start.
void RpcBrokerImpl::leave() {
  while (serveInternal()) {
  }
  dropQueuedRegistrations();
  ServiceKeys withdrawn;
  {
    const Lock lock(registryMutex_);
    withdrawn.swap(withdrawn_);
  }
  announce(withdrawn, Announce::kWithdraw);
}

// The next start lists what is there by then, also what was registered during one that failed.
void RpcBrokerImpl::dropQueuedRegistrations() {
  internalSocket_.discardWaiting();
  const Lock lock(changesMutex_);
  changes_.clear();
}

void RpcBrokerImpl::announce(const ServiceKeys& services, Announce what) {
  for (const ServiceKey& key : services) {
    MessageRegistration(what == Announce::kOffer, key.first, key.second).send(mainSocket_);
  }
}

bool RpcBrokerImpl::serveOnce() {
  if (stopRequested_) return false;
  if (master_) return serveNext();
  const bool waits = lastPass_ != Pass::kServed;
  if (waits) waitForMasterOrChanges();  // only when nothing is there
  if (stopRequested_) return false;
  lastPass_ = Pass::kServed;  // until both sockets were looked at
  const bool main = serveMain();
  // The poll has just said whether there is something; only a pass that did not poll has to try.
  const bool internal = (!waits || poll_.readable(kInternalItem)) && serveInternal();
  if (!main && !internal) lastPass_ = Pass::kFoundNothing;
  return true;
}

// A master has only one socket to wait for, and waits in its receive: that takes two system calls,
// a poll before it five. A message may come together with the stop, and then waits for the next
// start: its header here, the rest in the socket.
bool RpcBrokerImpl::serveNext() {
  MessageHeader header;
  if (waiting_.has_value()) {
    header = std::move(*waiting_);
    waiting_.reset();
  } else if (readMessageHeader(mainSocket_, header) != HeaderRead::kRead) {
    return true;
  }
  if (stopRequested_) {
    waiting_ = std::move(header);
    return false;
  }
  serve(std::move(header));
  return true;
}

void RpcBrokerImpl::waitForMasterOrChanges() {
  // Made anew by sending, when its master was of this process and has gone.
  poll_.replace(kMainItem, mainSocket_.handle());
  if (lastPass_ == Pass::kUnknown) {
    poll_.wait();
  } else {
    poll_.waitFoundEmpty();
  }
}

bool RpcBrokerImpl::serveMain() {
  MessageHeader header;
  const HeaderRead read = readMessageHeader(mainSocket_, header, ZMQ_DONTWAIT);
  if (read == HeaderRead::kRead) serve(std::move(header));
  return read != HeaderRead::kNothing;
}

void RpcBrokerImpl::serve(MessageHeader&& header) {
  if (header.type == kMessageRequest) {
    serveRequest(std::move(header));
  } else if (header.type == kMessageReply && master_) {
    serveReply(std::move(header));
  } else if (header.type == kMessageRegistration && master_) {
    serveRegistration(std::move(header));
  } else {
    throwUnexpected();
  }
}

void RpcBrokerImpl::serveRequest(MessageHeader&& header) {
  const auto request = std::make_shared<MessageRequest>(std::move(header));
  if (!request->receive(mainSocket_)) return;
  const ServiceKeyView key(request->serviceName(), request->instanceName());
  std::weak_ptr<Service> service;
  bool found = false;
  {
    const Lock lock(registryMutex_);
    const auto entry = services_.find(key);
    found = entry != services_.end();
    if (found) service = entry->second;
  }
  if (found) {
    dispatcher_->submit(
        std::make_shared<RpcRequestImpl>(observers_, std::move(service), request, routerEndpoint_));
    return;
  }
  const auto slave = remoteServices_.find(key);  // empty in a slave
  if (slave == remoteServices_.end()) {
    answerNotFound(*request);
    return;
  }
  request->insertEnvelopeFront(ZmqFrame(slave->second));
  request->send(mainSocket_);
}

void RpcBrokerImpl::answerNotFound(MessageRequest& request) {
  observers_->notify([&](RpcBrokerObserver& observer) {
    observer.onReply(request.serviceName(), request.instanceName(), request.methodName(),
                     kReplyBrokerError, kServiceNotFound, observedSize(kServiceNotFound));
  });
  MessageReply(request, kReplyBrokerError,
               serviceNotFoundText(request.serviceName(), request.instanceName()))
      .send(mainSocket_);
}

// From a worker or a slave; behind its identity stands that of the client.
void RpcBrokerImpl::serveReply(MessageHeader&& header) {
  MessageReply reply(std::move(header));
  if (!reply.receive(mainSocket_)) return;
  reply.removeEnvelopeFront();
  reply.send(mainSocket_);
}

void RpcBrokerImpl::serveRegistration(MessageHeader&& header) {
  MessageRegistration registration(std::move(header));
  if (!registration.receive(mainSocket_)) return;
  const ServiceKey key(registration.serviceName(), registration.instanceName());
  const std::vector<std::uint8_t> slave = registration.senderIdentity();
  if (registration.registered()) {
    remoteServices_[key] = slave;
    observers_->notify([&](RpcBrokerObserver& observer) {
      observer.onServiceRegistered(key.first, key.second, false, slave);
    });
  } else if (remoteServices_.erase(key) != 0) {  // whichever slave has it
    observers_->notify([&](RpcBrokerObserver& observer) {
      observer.onServiceUnregistered(key.first, key.second, false, slave);
    });
  }
}

bool RpcBrokerImpl::serveInternal() {
  MessageHeader header;
  const HeaderRead read = readMessageHeader(internalSocket_, header, ZMQ_DONTWAIT);
  if (read != HeaderRead::kRead) return read == HeaderRead::kMalformed;
  if (header.type != kMessageRegistration) throwUnexpected();
  MessageRegistration registration(std::move(header));
  if (registration.receive(internalSocket_)) forward(registration);
  return true;
}

// Those of different threads overtake each other on their way here. They leave in the order in
// which they were made, with each that arrives the first that has not left: the master would go by
// a stale one for ever.
void RpcBrokerImpl::forward(MessageRegistration& registration) {
  std::optional<Change> next;
  {
    const Lock lock(changesMutex_);
    if (!changes_.empty()) {
      next = std::move(changes_.front());
      changes_.pop_front();
    }
  }
  if (next.has_value()) {
    announce({next->second}, next->first);
  } else {
    registration.send(mainSocket_);
  }
}

}  // namespace tessel
