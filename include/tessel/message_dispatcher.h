#ifndef TESSEL_MESSAGE_DISPATCHER_H
#define TESSEL_MESSAGE_DISPATCHER_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "tessel/export.h"

namespace tessel {

class MessageDispatcherImpl;
class MultiSubscriberImpl;
class SubscriberImpl;

/// Which values a Subscriber gets. Other values of the type mean AllValues.
enum class SubscriptionMode : std::int32_t {
  Once = 0,       ///< The cached value, or else the next one published; then no more.
  NewValues = 1,  ///< What is published from now on.
  AllValues = 2   ///< The cached value at once if there is one, and what is published from now on.
};

/// Receives the values of one topic and tag: derive from it, override what is needed, and register
/// it with a MessageDispatcher.
///
/// The application owns it through a shared_ptr; a dispatcher never keeps it alive other than while
/// a callback runs. If the last owner lets go meanwhile, it is destroyed on that worker thread.
/// Destroying it ends the subscription.
class TESSEL_EXPORT Subscriber {
 public:
  /// An empty tag means "default". Colons are not refused, but no publisher's value has them.
  Subscriber(SubscriptionMode mode, const std::string& topic, const std::string& tag);
  virtual ~Subscriber();
  Subscriber(const Subscriber&) = delete;
  Subscriber& operator=(const Subscriber&) = delete;

  SubscriptionMode getMode() const;
  const std::string& getTopic() const;
  /// "default" if it was given empty.
  const std::string& getTag() const;

 protected:
  /// A value; the bytes are valid during the call only. Called on a worker thread of the
  /// dispatcher. Calls for different values never overlap; a subscriber registered twice gets a
  /// value twice, perhaps at the same time. An exception that leaves it ends the process.
  virtual void onValue(const void* data, std::size_t size);
  /// The value was withdrawn. Called as onValue() is.
  virtual void onDeletion();

 private:
  friend class SubscriberImpl;
  friend class MessageDispatcher;
  std::unique_ptr<SubscriberImpl> impl_;
};

/// Receives what is published from now on under every key, topic ":" tag, that begins with a
/// prefix. Owned and called as a Subscriber is.
class TESSEL_EXPORT MultiSubscriber {
 public:
  /// The prefix of topic ":" tag: part of a topic, a whole one, or more. An empty one gets all.
  MultiSubscriber(const std::string& prefix);
  /// The prefix topic ":" tag; with an empty tag every tag of the topic.
  MultiSubscriber(const std::string& topic, const std::string& tag);
  virtual ~MultiSubscriber();
  MultiSubscriber(const MultiSubscriber&) = delete;
  MultiSubscriber& operator=(const MultiSubscriber&) = delete;

 protected:
  /// A value and what it was published under; the bytes are valid during the call only.
  virtual void onValue(const std::string& topic, const std::string& tag, const void* data,
                       std::size_t size);
  /// The value was withdrawn.
  virtual void onDeletion(const std::string& topic, const std::string& tag);

 private:
  friend class MultiSubscriberImpl;
  friend class MessageDispatcher;
  std::unique_ptr<MultiSubscriberImpl> impl_;
};

/// Receives values from one broker and calls the subscribers registered with it.
///
/// Any thread may call any operation, callbacks may register and unregister; only stop() and the
/// destructor must not be called from a callback: the process ends.
///
/// All callbacks for one value return before those for the next begin, so a slow subscriber holds
/// up the others; callbacks for the same value run at once on the worker threads.
class TESSEL_EXPORT MessageDispatcher {
 public:
  /// Connects to a broker: to one of its updates transports, which serves NewValues and every
  /// MultiSubscriber, and to one of its cache transports, which serves the other modes.
  /// `workerCount` threads run the callbacks; with 0 none ever runs.
  ///
  /// Throws std::runtime_error with ZeroMQ's text when an endpoint cannot be connected. A broker
  /// that is not there yet is no error.
  MessageDispatcher(const std::string& updatesTransport = "tcp://localhost:9011",
                    const std::string& cacheTransport = "tcp://localhost:9012",
                    std::size_t workerCount = 4);
  /// Stops the dispatcher.
  ~MessageDispatcher();
  MessageDispatcher(const MessageDispatcher&) = delete;
  MessageDispatcher& operator=(const MessageDispatcher&) = delete;

  /// Adds a subscriber, once more if it is there already. Returns at once: the subscription is made
  /// by the dispatcher's thread, while it runs, and reaches the broker a moment later. Throws
  /// std::invalid_argument for a null pointer.
  void registerSubscriber(const std::shared_ptr<Subscriber>& subscriber);
  void registerSubscriber(const std::shared_ptr<MultiSubscriber>& subscriber);
  /// Takes one registration of the subscriber back. Returns at once; callbacks may still come until
  /// the dispatcher's thread has seen it. Throws std::invalid_argument for a null pointer.
  void unregisterSubscriber(const std::shared_ptr<Subscriber>& subscriber);
  void unregisterSubscriber(const std::shared_ptr<MultiSubscriber>& subscriber);

  /// Starts the dispatcher's thread and its workers; does nothing when they run. Throws
  /// std::system_error when there are no threads to be had; the dispatcher is then as it was.
  void start();
  /// Waits for the running callbacks and ends the threads; callbacks not yet begun are dropped.
  /// Registrations stay for the next start(), unless `clearSubscriptions` is set. Does nothing when
  /// the dispatcher does not run, whatever the flag says.
  void stop(bool clearSubscriptions = false);

 private:
  std::unique_ptr<MessageDispatcherImpl> impl_;
};

}  // namespace tessel

#endif
