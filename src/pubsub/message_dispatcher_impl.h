#ifndef TESSEL_SRC_PUBSUB_MESSAGE_DISPATCHER_IMPL_H
#define TESSEL_SRC_PUBSUB_MESSAGE_DISPATCHER_IMPL_H

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "messages/value_notification.h"
#include "pubsub/deliveries.h"
#include "pubsub/subscription.h"
#include "pubsub/subscription_table.h"
#include "transport/mutex.h"
#include "transport/poll_set.h"
#include "transport/work_queue.h"
#include "transport/zmq_event.h"

namespace tessel {

/// The dispatcher behind the front: a thread that receives values and hands them to workers, which
/// call the subscribers. The dispatcher thread itself never runs code of the application, other
/// than that of a deleter or allocator that an application put into its shared_ptr.
class MessageDispatcherImpl {
 public:
  MessageDispatcherImpl(const std::string& updatesTransport, const std::string& cacheTransport,
                        std::size_t workerCount);
  ~MessageDispatcherImpl();
  MessageDispatcherImpl(const MessageDispatcherImpl&) = delete;
  MessageDispatcherImpl& operator=(const MessageDispatcherImpl&) = delete;

  void registerSubscription(std::shared_ptr<SubscriptionBase> subscription)
      TESSEL_EXCLUDES(registrationMutex_);
  /// `like` is a subscription made for the purpose; it tells which subscriber is meant.
  void unregisterSubscription(std::shared_ptr<SubscriptionBase> like)
      TESSEL_EXCLUDES(registrationMutex_);
  void start() TESSEL_EXCLUDES(threadMutex_);
  void stop(bool clearSubscriptions) TESSEL_EXCLUDES(threadMutex_, registrationMutex_);

 private:
  using Subscriptions = std::vector<std::shared_ptr<SubscriptionBase>>;
  enum class Subscribed { kNo, kYes };

  bool isOnOwnThread() const;
  void connect(SubscriptionTable& table, const std::string& transport);
  void run();
  bool serveOnce();
  void connectAgain();
  void applyRegistrations() TESSEL_EXCLUDES(registrationMutex_);
  bool serveMessages(Subscribed subscribed);
  bool serveMessage(SubscriptionTable& table);
  void dispatch(SubscriptionTable& table);
  SubscriptionTable& tableOf(const SubscriptionBase& subscription);
  void wake() TESSEL_REQUIRES(registrationMutex_);

  const std::size_t workerCount_;

  // Before the sockets, since whoever closes their in-process peer wakes the dispatcher. Taken
  // after threadMutex_, or the lock of the in-process endpoints, where that is held, too.
  Mutex registrationMutex_;
  Subscriptions pendingRegistrations_ TESSEL_GUARDED_BY(registrationMutex_);
  Subscriptions pendingUnregistrations_ TESSEL_GUARDED_BY(registrationMutex_);
  ZmqEvent wakeup_;  // signalled under registrationMutex_ only
  // One signal is on its way, so no other is needed: written under registrationMutex_ only, read
  // without it by the dispatcher thread. The pair behind the event holds 2000 signals and would
  // then block, with the lock held.
  std::atomic<bool> wakePending_{false};

  // The dispatcher thread's own; others touch them only before start() or after the join.
  SubscriptionTable updates_;
  SubscriptionTable cache_;
  ReceivedNotification received_;  // the message in hand; kept for the memory of its key
  Deliveries deliveries_;          // of the last one dispatched; outlives the queue that runs them
  bool idle_ = true;               // the last pass found nothing to read
  int passesInAStream_ = 0;        // since the sockets without subscriptions were asked
  // A signal may be there that will not wake the poll: ask before sleeping.
  bool wakeupMayBeUnread_ = true;

  // Made before the thread starts and destroyed after it was joined, so it needs no lock.
  std::unique_ptr<WorkQueue> deliveryQueue_;

  Mutex threadMutex_;                                   // orders start() and stop()
  std::thread thread_ TESSEL_GUARDED_BY(threadMutex_);  // joinable until a stop() has joined it
  std::atomic<std::thread::id> threadId_{};  // set by the dispatcher thread while it runs
  std::atomic<bool> stopRequested_{false};

  PollSet poll_;  // the dispatcher thread's own
};

}  // namespace tessel

#endif
