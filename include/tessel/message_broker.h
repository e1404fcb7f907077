#ifndef TESSEL_MESSAGE_BROKER_H
#define TESSEL_MESSAGE_BROKER_H

#include <memory>
#include <string>
#include <vector>

#include "tessel/export.h"

namespace tessel {

class MessageBrokerImpl;
class MessageBrokerObserver;

/// The hub of the publish/subscribe service: takes values from publishers, keeps the last value of
/// every cached key and fans values out to dispatchers.
///
/// Any thread may call any operation. Observers are called on the broker's own thread.
///
/// A value that equals the cached one of its key is suppressed: dispatchers do not hear of it
/// again. A dispatcher that subscribes to a cached key gets its value at once.
class TESSEL_EXPORT MessageBroker {
 public:
  /// Binds every endpoint, and one in-process endpoint besides, so that peers can connect and queue
  /// messages before start(). A list may be empty.
  ///
  /// ZeroMQ gives endpoints back in the background. So if this process has closed any bound socket
  /// within the last second, as a broker or a dispatcher does that is destroyed, it waits up to
  /// 100 ms for an endpoint in use.
  ///
  /// @param pullTransports where publishers connect
  /// @param updatesTransports where dispatchers receive live values
  /// @param cacheTransports where they receive the cached value of each key they subscribe to, and
  ///     live values from then on
  /// @throws std::runtime_error with ZeroMQ's text when an endpoint cannot be bound, or when the
  ///     process has no socket left
  MessageBroker(const std::vector<std::string>& pullTransports = {"tcp://*:9010"},
                const std::vector<std::string>& updatesTransports = {"tcp://*:9011"},
                const std::vector<std::string>& cacheTransports = {"tcp://*:9012"});
  /// Stops the broker. Not from an observer of this broker: a thread cannot wait for itself, and
  /// the process ends.
  virtual ~MessageBroker();
  /// Not copied, nor moved.
  MessageBroker(const MessageBroker&) = delete;
  /// Not assigned.
  MessageBroker& operator=(const MessageBroker&) = delete;

  /// Starts the broker's thread; does nothing when it runs.
  ///
  /// @throws std::system_error when there is no thread to be had; the broker is then as it was
  void start();

  /// Waits for the broker's thread to end. What arrives from then on waits in the sockets' queues
  /// for the next start(). Does nothing when the broker does not run, whatever the flags say.
  ///
  /// Called by an observer that hears of the clearing, start() and stop() do nothing. If one
  /// throws, the others are told all the same and both are cleared; the first exception then leaves
  /// stop().
  ///
  /// @param clearCache forgets every cached value and tells the observers, on the calling thread;
  ///     no dispatcher hears of it
  /// @param clearObservers detaches all observers after that
  /// @throws std::system_error (resource_deadlock_would_occur) when an observer calls it on the
  ///     broker's thread; the flags are then ignored and the thread ends, but the broker counts as
  ///     running until a stop() from another thread, with flags of its own, completes the stop: a
  ///     start() before that does nothing
  void stop(bool clearCache = false, bool clearObservers = false);

  /// Where publishers of this process reach this broker.
  ///
  /// @return the endpoint:
  ///     "inproc://publish_service" and the broker's number, counted from 0 in each process
  std::string getInprocPullTransport() const;

  /// Adds an observer at the end of the list, once more if it is there already. The broker does not
  /// keep it alive. Waits while a notification is under way, so observers must not call it.
  ///
  /// @param observer the one to add; a null pointer is ignored
  void attach(const std::shared_ptr<MessageBrokerObserver>& observer);
  /// Removes every entry of the observer. Waits while a notification is under way, so observers
  /// must not call it.
  ///
  /// @param observer the one to remove; a null pointer is ignored
  void detach(const std::shared_ptr<MessageBrokerObserver>& observer);

 private:
  std::unique_ptr<MessageBrokerImpl> impl_;
};

/// Watches a MessageBroker; for monitoring, since nothing it does changes what the broker does.
///
/// Called on the broker's thread, one observer after another in order of attachment, with the
/// broker's observer list locked: attach() and detach() of the same broker would wait for ever. An
/// exception that leaves an observer ends the process, unless it hears of a clearing by stop().
///
/// Slow observers slow the broker down. One that publishes to the same broker puts what it
/// publishes into the queue that only the broker's thread empties, which is the thread that it is
/// on: once the queue is full (2000 values) it waits for ever, and so does everybody else.
class TESSEL_EXPORT MessageBrokerObserver {
 public:
  /// Needs no detach() before: brokers forget observers that have gone.
  virtual ~MessageBrokerObserver();
  /// A dispatcher has subscribed at a cache transport; called before the cached value, if there is
  /// one, is sent to it. Subscriptions at updates transports are not told.
  ///
  /// @param topic what stands before the first ":" of the subscription; all of it without one
  /// @param tag what stands behind the first ":"
  virtual void onSubscribe(const std::string& topic, const std::string& tag) = 0;
  /// The last dispatcher with this subscription has given it up.
  ///
  /// @param topic as for onSubscribe()
  /// @param tag as for onSubscribe()
  virtual void onUnsubscribe(const std::string& topic, const std::string& tag) = 0;
  /// A value came from a publisher.
  ///
  /// @param topic the publisher's topic
  /// @param tag the publisher's tag
  /// @param cached the publisher wants the value kept
  /// @param cacheUpdated it has become the cached value
  /// @param suppressed it equals the cached one and was not passed on
  virtual void onPublish(const std::string& topic, const std::string& tag, bool cached,
                         bool cacheUpdated, bool suppressed) = 0;
  /// A value was withdrawn, or forgotten by MessageBroker::stop(true), which is told on the thread
  /// that stops.
  ///
  /// @param topic the publisher's topic
  /// @param tag the publisher's tag
  /// @param removeFromCache the value is to leave the cache too
  /// @param cacheUpdated it was there; if it was to leave and was not there, nothing is passed on
  /// @param suppressed always false
  virtual void onUnpublish(const std::string& topic, const std::string& tag, bool removeFromCache,
                           bool cacheUpdated, bool suppressed) = 0;
};

}  // namespace tessel

#endif
