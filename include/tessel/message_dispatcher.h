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
  /// The cached value at once if there is one, and what is published from now on. A dispatcher that
  /// was stopped, or lost its connection, skips the cached value for whoever has had one: what was
  /// published meanwhile is then told with the next change only.
  AllValues = 2
};

/// Receives the values of one topic and tag: derive from it, override what is needed, and register
/// it with a MessageDispatcher.
///
/// The application owns it through a shared_ptr; a dispatcher never keeps it alive other than while
/// a callback runs. If the last owner lets go meanwhile, it is destroyed on that worker thread.
/// Destroying it ends the subscription.
class TESSEL_EXPORT Subscriber {
 public:
  /// Registers nothing yet.
  ///
  /// @param mode which values it gets
  /// @param topic the publisher's topic; a colon is not refused, but no publisher's topic has one
  /// @param tag the publisher's tag; an empty one means "default"
  Subscriber(SubscriptionMode mode, const std::string& topic, const std::string& tag);
  /// Ends the subscription. Does not wait for anything: no callback runs, since a callback owns the
  /// subscriber.
  virtual ~Subscriber();
  /// Not copied, nor moved.
  Subscriber(const Subscriber&) = delete;
  /// Not assigned.
  Subscriber& operator=(const Subscriber&) = delete;

  /// Which values it gets.
  ///
  /// @return the mode that it was made with
  SubscriptionMode getMode() const;
  /// What it subscribes to.
  ///
  /// @return the topic that it was made with, valid as long as the subscriber
  const std::string& getTopic() const;
  /// Which one of its topic.
  ///
  /// @return the tag, "default" if it was given empty; valid as long as the subscriber
  const std::string& getTag() const;

 protected:
  /// A value was published, or was there already when the subscriber came. Does nothing unless
  /// overridden.
  ///
  /// Called on a worker thread of the dispatcher. Calls for different values never overlap; a
  /// subscriber registered twice gets a value twice, perhaps at the same time. An exception that
  /// leaves it ends the process.
  ///
  /// @param data the bytes, valid during the call only
  /// @param size how many bytes
  virtual void onValue(const void* data, std::size_t size);
  /// The value was withdrawn. Called as onValue() is. Does nothing unless overridden.
  virtual void onDeletion();

 private:
  friend class SubscriberImpl;
  std::unique_ptr<SubscriberImpl> impl_;
};

/// Receives what is published from now on under every key, topic ":" tag, that begins with a
/// prefix. Owned and called as a Subscriber is.
class TESSEL_EXPORT MultiSubscriber {
 public:
  /// Uses any prefix.
  ///
  /// @param prefix the beginning of topic ":" tag: part of a topic, a whole one, or more; an empty
  ///     one gets everything
  MultiSubscriber(const std::string& prefix);
  /// Uses the prefix topic ":" tag; other tags that begin with this one match as well.
  ///
  /// @param topic a whole topic
  /// @param tag a tag, or its beginning; an empty one gets every tag of the topic
  MultiSubscriber(const std::string& topic, const std::string& tag);
  /// Ends the subscription.
  virtual ~MultiSubscriber();
  /// Not copied, nor moved.
  MultiSubscriber(const MultiSubscriber&) = delete;
  /// Not assigned.
  MultiSubscriber& operator=(const MultiSubscriber&) = delete;

 protected:
  /// A value was published. Does nothing unless overridden.
  ///
  /// @param topic the publisher's topic
  /// @param tag the publisher's tag
  /// @param data the bytes, valid during the call only
  /// @param size how many bytes
  virtual void onValue(const std::string& topic, const std::string& tag, const void* data,
                       std::size_t size);
  /// The value was withdrawn. Does nothing unless overridden.
  ///
  /// @param topic the publisher's topic
  /// @param tag the publisher's tag
  virtual void onDeletion(const std::string& topic, const std::string& tag);

 private:
  friend class MultiSubscriberImpl;
  std::unique_ptr<MultiSubscriberImpl> impl_;
};

/// Receives values from one broker and calls the subscribers registered with it.
///
/// Any thread may call any operation, callbacks may register and unregister; only stop()
/// refuses, and the destructor ends the process, when a callback calls them.
///
/// All callbacks for one value return before those for the next begin, so a slow subscriber holds
/// up the others; callbacks for the same value run at once on the worker threads.
class TESSEL_EXPORT MessageDispatcher {
 public:
  /// Connects to a broker. One that is not there yet is no error: it goes on trying, also after a
  /// connection is lost. A broker that is made again at the same endpoints, of this process or
  /// another one, gets the subscriptions that there are, and replays what it keeps to those who
  /// have had nothing yet.
  ///
  /// @param updatesTransport one of the broker's updates transports; serves
  ///     SubscriptionMode::NewValues and every MultiSubscriber
  /// @param cacheTransport one of its cache transports; serves the other modes
  /// @param workerCount how many threads run the callbacks. With 0 none ever runs, and once a value
  ///     has come that somebody is registered for, the dispatcher takes one more and then neither
  ///     values nor registrations until it is stopped
  /// @throws std::runtime_error with ZeroMQ's text when an endpoint cannot be connected, its name
  ///     being wrong, or when the process has no socket left
  MessageDispatcher(const std::string& updatesTransport = "tcp://localhost:9011",
                    const std::string& cacheTransport = "tcp://localhost:9012",
                    std::size_t workerCount = 4);
  /// Stops the dispatcher, as stop() does.
  ~MessageDispatcher();
  /// Not copied, nor moved.
  MessageDispatcher(const MessageDispatcher&) = delete;
  /// Not assigned.
  MessageDispatcher& operator=(const MessageDispatcher&) = delete;

  /// Adds a subscriber, once more if it is there already. Returns at once: the subscription is made
  /// by the dispatcher's thread, while it runs, and reaches the broker a moment later. The
  /// dispatcher does not keep the subscriber alive.
  ///
  /// @param subscriber the one to add
  /// @throws std::invalid_argument for a null pointer
  void registerSubscriber(const std::shared_ptr<Subscriber>& subscriber);
  /// @copydoc registerSubscriber(const std::shared_ptr<Subscriber>&)
  void registerSubscriber(const std::shared_ptr<MultiSubscriber>& subscriber);
  /// Takes one registration of the subscriber back. Returns at once; callbacks may still come until
  /// the dispatcher's thread has seen it. What that sees together, as all that was queued while it
  /// did not run, it does in this order: first it registers, then it takes back.
  ///
  /// @param subscriber the one to remove; when it is not there, nothing happens
  /// @throws std::invalid_argument for a null pointer
  void unregisterSubscriber(const std::shared_ptr<Subscriber>& subscriber);
  /// @copydoc unregisterSubscriber(const std::shared_ptr<Subscriber>&)
  void unregisterSubscriber(const std::shared_ptr<MultiSubscriber>& subscriber);

  /// Starts the dispatcher's thread and its workers; does nothing when they run. Registrations that
  /// a stop() has left are made anew at the broker; a subscriber that has had a value by then does
  /// not get a cached one again.
  ///
  /// @throws std::system_error when there are no threads to be had; the dispatcher is then as it
  ///     was
  void start();
  /// Waits for the running callbacks and ends the threads; callbacks not yet begun are dropped, and
  /// with them a value that was received and waits for those of the value before. Others that have
  /// arrived by then are for the next start(). What is published in between does not arrive, other
  /// than in the moment until the broker has heard that the dispatcher unsubscribed.
  /// Does nothing when the dispatcher does not run, whatever the flag says.
  ///
  /// @param clearSubscriptions forgets the registrations that the dispatcher's thread has seen,
  ///     which stay for the next start() otherwise; those that it has not seen stay in any case
  /// @throws std::system_error when a callback of this dispatcher calls it; nothing is stopped then
  void stop(bool clearSubscriptions = false);

 private:
  std::unique_ptr<MessageDispatcherImpl> impl_;
};

}  // namespace tessel

#endif
