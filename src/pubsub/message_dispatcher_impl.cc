#include "pubsub/message_dispatcher_impl.h"

#include <zmq.h>

#include <utility>

#include "pubsub/high_water_marks.h"
#include "transport/deadlock.h"

namespace tessel {
namespace {

constexpr std::size_t kWakeItem = 0;  // in the poll set

// While values come, a socket on which nobody is subscribed is asked once in so many passes: to
// find that it has nothing takes two system calls. To ask is to drop what still comes there for
// those who have gone; the sender would keep the rest of it ready for those who subscribe next.
constexpr int kPassesInAStream = 64;

}  // namespace

MessageDispatcherImpl::MessageDispatcherImpl(const std::string& updatesTransport,
                                             const std::string& cacheTransport,
                                             std::size_t workerCount)
    : workerCount_(workerCount),
      deliveries_(workerCount),
      poll_{wakeup_.pollHandle(), updates_.socket().handle(), cache_.socket().handle()} {
  // Subscriptions go out on these sockets; a burst of them must not meet a limit.
  updates_.socket().setOption(ZMQ_SNDHWM, kNoHighWaterMark);
  cache_.socket().setOption(ZMQ_SNDHWM, kNoHighWaterMark);
  cache_.socket().setOption(ZMQ_RCVHWM, kReplayHighWaterMark);
  connect(updates_, updatesTransport);
  connect(cache_, cacheTransport);
}

MessageDispatcherImpl::~MessageDispatcherImpl() { stop(false); }

void MessageDispatcherImpl::connect(SubscriptionTable& table, const std::string& transport) {
  table.socket().onPeerGone([this] {
    const Lock lock(registrationMutex_);
    wake();
  });
  table.socket().connect(transport);
}

void MessageDispatcherImpl::wake() {
  if (wakePending_) return;
  wakeup_.signal();
  wakePending_ = true;  // not before: a signal that failed would be waited for
}

void MessageDispatcherImpl::registerSubscription(std::shared_ptr<SubscriptionBase> subscription) {
  const Lock lock(registrationMutex_);
  wake();  // first: what throws has registered nothing
  pendingRegistrations_.push_back(std::move(subscription));
}

void MessageDispatcherImpl::unregisterSubscription(std::shared_ptr<SubscriptionBase> like) {
  const Lock lock(registrationMutex_);
  wake();
  pendingUnregistrations_.push_back(std::move(like));
}

bool MessageDispatcherImpl::isOnOwnThread() const {
  return threadId_ == std::this_thread::get_id() || deliveries_.isOnWorker();
}

void MessageDispatcherImpl::start() {
  // It runs, then, and who holds the lock may be waiting for this thread to end.
  if (isOnOwnThread()) return;
  const Lock lock(threadMutex_);
  if (thread_.joinable()) return;
  stopRequested_ = false;
  deliveryQueue_ = std::make_unique<WorkQueue>(workerCount_);
  try {
    thread_ = std::thread([this] { run(); });
  } catch (...) {
    deliveryQueue_.reset();
    throw;
  }
}

void MessageDispatcherImpl::stop(bool clearSubscriptions) {
  if (threadId_ == std::this_thread::get_id()) {
    // Without the lock: another thread may hold it, waiting for this one to end.
    stopRequested_ = true;
    throwDeadlock();
  }
  // Also when another thread holds the lock, which then waits for the callback that this is.
  if (deliveries_.isOnWorker()) throwDeadlock();
  // Released after the lock. With the last weak reference to a subscriber goes what the application
  // gave its shared_ptr besides, an allocator perhaps, which may call the dispatcher.
  Deliveries::Subscriptions uncalled;
  SubscriptionTable::Forgotten updates;
  SubscriptionTable::Forgotten cache;
  const Lock lock(threadMutex_);
  if (!thread_.joinable()) return;
  stopRequested_ = true;
  {
    const Lock registrationLock(registrationMutex_);
    wake();
  }
  deliveryQueue_->cancelWaits();  // the deliveries waited for may never end
  thread_.join();
  deliveries_.abandon();
  deliveryQueue_.reset();
  uncalled = deliveries_.takeBack();
  if (!clearSubscriptions) return;
  updates = updates_.clear();
  cache = cache_.clear();
}

// Neither noexcept nor with a handler, here or where it is called: without memory the process ends
// where it was asked for. Frames unwound first would release subscriptions that they have removed
// from a table, and a worker may be about to call them.
void MessageDispatcherImpl::run() {
  threadId_ = std::this_thread::get_id();
  // The last run may have seen the signal of its stop() and left it unread, and so a socket.
  wakeupMayBeUnread_ = true;
  connectAgain();
  updates_.resubscribeAll();
  cache_.resubscribeAll();
  while (serveOnce()) {
  }
  // A callback that runs may wait for one that nobody was called for yet, which still may begin.
  deliveries_.callWorkers(*deliveryQueue_);
  deliveries_.keep(updates_.unsubscribeAll());
  deliveries_.keep(cache_.unsubscribeAll());
  threadId_ = std::thread::id();
}

bool MessageDispatcherImpl::serveOnce() {
  if (stopRequested_) return false;
  bool woken = false;
  if (idle_) {  // only when nothing waits: a poll costs several system calls
    deliveries_.callWorkers(*deliveryQueue_);
    if (wakeupMayBeUnread_) {
      poll_.wait();
    } else {
      poll_.waitFoundEmpty();
    }
    wakeupMayBeUnread_ = false;
    woken = poll_.readable(kWakeItem);  // also before the thread that signals could say so
  }
  if (stopRequested_) return false;
  if (woken || wakePending_) {
    applyRegistrations();
    connectAgain();
  }
  idle_ = false;  // until both sockets were looked at
  const bool served = serveMessages(Subscribed::kYes);
  if (stopRequested_) return false;
  if (served && ++passesInAStream_ < kPassesInAStream) return true;
  passesInAStream_ = 0;
  idle_ = !serveMessages(Subscribed::kNo) && !served;
  return true;
}

// One of each socket, in turn.
bool MessageDispatcherImpl::serveMessages(Subscribed subscribed) {
  bool any = false;
  for (SubscriptionTable* table : {&updates_, &cache_}) {
    if (table->empty() != (subscribed == Subscribed::kNo)) continue;
    any = serveMessage(*table) || any;
    if (stopRequested_) break;
  }
  return any;
}

// To brokers of this process that have gone: for those of others ZeroMQ does it. Whoever binds the
// endpoint next gets all subscriptions.
void MessageDispatcherImpl::connectAgain() {
  updates_.socket().connectAgainIfPeerGone();
  cache_.socket().connectAgainIfPeerGone();
}

void MessageDispatcherImpl::applyRegistrations() {
  wakeup_.consume();
  wakeupMayBeUnread_ = true;
  Subscriptions registrations;
  Subscriptions unregistrations;
  {
    const Lock lock(registrationMutex_);
    wakePending_ = false;
    registrations.swap(pendingRegistrations_);
    unregistrations.swap(pendingUnregistrations_);
  }
  for (std::shared_ptr<SubscriptionBase>& subscription : registrations) {
    if (subscription->isExpired()) continue;
    SubscriptionTable& table = tableOf(*subscription);
    table.add(std::move(subscription));
  }
  for (const std::shared_ptr<SubscriptionBase>& like : unregistrations) {
    deliveries_.keep(tableOf(*like).removeOne(*like));
  }
  deliveries_.keep(updates_.removeExpired());
  deliveries_.keep(cache_.removeExpired());
}

SubscriptionTable& MessageDispatcherImpl::tableOf(const SubscriptionBase& subscription) {
  return subscription.mode() == SubscriptionMode::NewValues ? updates_ : cache_;
}

bool MessageDispatcherImpl::serveMessage(SubscriptionTable& table) {
  if (!receiveNotification(table.socket(), received_, ZMQ_DONTWAIT)) return false;
  // The callbacks of one value end before those of the next begin, whichever socket it came from.
  if (deliveries_.finish(*deliveryQueue_)) {
    dispatch(table);
  } else {
    received_.value = ZmqFrame();  // it stops, and may never receive the next one
  }
  return true;
}

void MessageDispatcherImpl::dispatch(SubscriptionTable& table) {
  deliveries_.clear();
  const auto add = [&](const std::shared_ptr<SubscriptionBase>& subscription) {
    if (received_.replayed() && subscription->delivered()) return true;
    // The worker skips a subscriber that has gone; to look here as well would move its count
    // between processors for each callback. Two cases must look: a Once entry that has gone is left
    // to the sweep, not used up by this value; and without workers a callback for nobody would
    // block the next value for ever.
    const bool once = subscription->mode() == SubscriptionMode::Once;
    if ((once || workerCount_ == 0) && subscription->isExpired()) return true;
    subscription->setDelivered();
    deliveries_.add(*subscription);
    return !once;
  };
  deliveries_.keep(table.visitMatches(received_.key, add));
  deliveries_.run(std::move(received_), *deliveryQueue_);
}

}  // namespace tessel
