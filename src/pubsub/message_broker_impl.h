#ifndef TESSEL_SRC_PUBSUB_MESSAGE_BROKER_IMPL_H
#define TESSEL_SRC_PUBSUB_MESSAGE_BROKER_IMPL_H

#include <atomic>
#include <exception>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "messages/message_header.h"
#include "messages/value_notification.h"
#include "pubsub/last_value_cache.h"
#include "tessel/message_broker.h"
#include "transport/broker_number.h"
#include "transport/mutex.h"
#include "transport/observer_list.h"
#include "transport/poll_set.h"
#include "transport/zmq_event.h"
#include "transport/zmq_socket.h"

namespace tessel {

/// The broker behind the front: its sockets, cache and observers, and the thread that serves them.
class MessageBrokerImpl {
 public:
  MessageBrokerImpl(const std::vector<std::string>& pullTransports,
                    const std::vector<std::string>& updatesTransports,
                    const std::vector<std::string>& cacheTransports);
  ~MessageBrokerImpl();
  MessageBrokerImpl(const MessageBrokerImpl&) = delete;
  MessageBrokerImpl& operator=(const MessageBrokerImpl&) = delete;

  void start() TESSEL_EXCLUDES(threadMutex_);
  void stop(bool clearCache, bool clearObservers) TESSEL_EXCLUDES(threadMutex_);
  const std::string& inprocEndpoint() const { return inprocEndpoint_; }
  void attach(const std::shared_ptr<MessageBrokerObserver>& observer);
  void detach(const std::shared_ptr<MessageBrokerObserver>& observer);

  /// One pass of the broker's loop: at most one message of each socket. False once it is to stop.
  bool serveOnce();

 private:
  /// Unknown is what is neither a publication nor a withdrawal: dropped, and the pass is over. One
  /// of those with a bad body is dropped as well, but counts as served.
  enum class Inbound { kNothing, kUnknown, kServed };

  void run();
  Inbound serveInbound();
  void servePublication(MessageHeader&& header);
  void serveWithdrawal(MessageHeader&& header);
  bool serveSubscription();
  void greetSubscriber();
  void broadcast(ValueNotification&& notification);
  /// Tells the observers of each; what the first of them throws is returned, if any does.
  std::exception_ptr forgetCachedValues();

  BrokerNumber number_{BrokerKind::kMessage};
  const std::string inprocEndpoint_;

  // The broker thread's own; others touch them only before start() or after the join.
  ZmqSocket pullSocket_;
  ZmqSocket pubSocket_;
  ZmqSocket xpubSocket_;
  LastValueCache cache_;
  std::string key_;  // of the message in hand; kept for its memory
  int passesSincePoll_ = 0;
  bool idle_ = true;  // the last pass found nothing to read
  // A signal may be there that will not wake the poll: ask before sleeping.
  bool stopSignalMayBeUnread_ = true;

  Mutex threadMutex_;  // orders start() and stop(); taken before the observers' lock
  std::thread thread_ TESSEL_GUARDED_BY(threadMutex_);  // joinable until a stop() has joined it
  std::atomic<std::thread::id> threadId_{};             // set by the broker thread while it runs
  std::atomic<std::thread::id> clearingThreadId_{};     // set by stop() while it clears the cache
  std::atomic<bool> stopRequested_{false};
  ZmqEvent stopSignal_;  // signalled and consumed under threadMutex_ only
  PollSet poll_;         // the broker thread's own

  ObserverList<MessageBrokerObserver> observers_;  // locks itself
};

}  // namespace tessel

#endif
