#ifndef TESSEL_PUBLISHER_H
#define TESSEL_PUBLISHER_H

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "tessel/export.h"

namespace tessel {

class MessageBroker;
class PublisherImpl;

/// Publishes the values of one topic and tag, to one or more brokers.
///
/// A publisher is cheap: it owns no connection. Each thread that publishes keeps one connection to
/// each broker, shared by all publishers, and closes it when the thread ends. What has not left by
/// then is dropped, other than for a broker of this process: so a thread that publishes over a
/// network and ends at once, before its connection is up, has published nothing. For a broker of
/// this process that is made only later, what the last 100 such threads have published is kept.
///
/// publish(), unpublish() and removeFromCache() may be called from any thread, also at once. The
/// switches are plain fields: set them before other threads publish.
class TESSEL_EXPORT Publisher {
 public:
  /// Sends to the default brokers of the process: the first MessageBroker made in it, unless
  /// setDefaultBroker() said otherwise before. The first is the first whose construction was tried:
  /// if that failed, or if that broker has gone and another was made, name the new one by
  /// setDefaultBroker().
  ///
  /// @param topic without colons; may be empty
  /// @param tag without colons; an empty one means "default"
  /// @throws std::invalid_argument when the topic or the tag contains a colon
  Publisher(const std::string& topic, const std::string& tag);
  /// Sends to the brokers at these endpoints. Connects when something is first published.
  ///
  /// @param transports pull transports of brokers; with none, nothing is ever published
  /// @param topic without colons; may be empty
  /// @param tag without colons; an empty one means "default"
  /// @throws std::invalid_argument when the topic or the tag contains a colon
  Publisher(const std::vector<std::string>& transports, const std::string& topic,
            const std::string& tag);
  /// Sends to a broker of this process.
  ///
  /// @param broker where to; it may be destroyed before the publisher
  /// @param topic without colons; may be empty
  /// @param tag without colons; an empty one means "default"
  /// @throws std::invalid_argument when the topic or the tag contains a colon
  Publisher(const MessageBroker& broker, const std::string& topic, const std::string& tag);
  /// Withdraws the value if enableUnpublishOnDestruction() or enableClearCacheOnDestruction() is
  /// on, as unpublish() does: it waits while the queue to a broker is full, for one of another
  /// process also when nobody is there. But it gives up on a broker of this process that has gone.
  /// An error while doing so ends the process.
  ///
  /// Otherwise it does nothing. What was published is on its way, and not the publisher's any more.
  virtual ~Publisher();
  /// Not copied, nor moved.
  Publisher(const Publisher&) = delete;
  /// Not assigned.
  Publisher& operator=(const Publisher&) = delete;

  /// Sends a value to each broker in order. Returns when it is queued; waits while the queue to a
  /// broker is full (1000 values when nobody is connected, about 2000 unread ones in the process).
  /// Whatever it throws, brokers earlier in the list have the value.
  ///
  /// @param data the bytes; they are copied
  /// @param size how many bytes; none is a value, too
  /// @throws std::runtime_error with ZeroMQ's text when an endpoint cannot be connected, its name
  ///     being wrong: at the first attempt of this thread, and from then on without another; when
  ///     the process has no socket left, in which case the next call tries again; and when ZeroMQ
  ///     has no memory for the message
  /// @throws std::bad_alloc when the library has none
  void publish(const void* data, std::size_t size) const;

  /// Withdraws the value: subscribers get onDeletion. While the cache is enabled, the broker also
  /// forgets it, and passes the withdrawal on only if it had it. Waits as publish() does.
  ///
  /// @throws std::runtime_error as publish() does
  void unpublish() const;
  /// Another name for unpublish().
  ///
  /// @throws std::runtime_error as publish() does
  void removeFromCache();

  /// Whether brokers keep the value for those who subscribe later. On at first.
  ///
  /// @param enable on or off, from the next publish() or unpublish() on
  void enableCache(bool enable);
  /// Whether the cache is enabled.
  ///
  /// @return as enableCache() was last told, or true
  bool isCacheEnabled() const;
  /// Whether brokers pass on a value that equals the one they keep. Off at first.
  ///
  /// @param enable on or off, from the next publish() on
  void enablePublishIfEqual(bool enable);
  /// Whether equal values are passed on.
  ///
  /// @return as enablePublishIfEqual() was last told, or false
  bool isPublishIfEqualEnabled() const;
  /// Whether the destructor withdraws the value, as unpublish() does. Off at first. One switch with
  /// enableUnpublishOnDestruction(): setting either sets both.
  ///
  /// @param enable on or off
  void enableClearCacheOnDestruction(bool enable);
  /// Whether the destructor withdraws the value.
  ///
  /// @return as either of the two setters was last told, or false
  bool isClearCacheOnDestructionEnabled() const;
  /// The same switch as enableClearCacheOnDestruction().
  ///
  /// @param enable on or off
  void enableUnpublishOnDestruction(bool enable);
  /// Whether the destructor withdraws the value.
  ///
  /// @return as either of the two setters was last told, or false
  bool isUnpublishOnDestructionEnabled() const;

  /// What is published.
  ///
  /// @return the topic, valid as long as the publisher
  const std::string& getTopic() const;
  /// Which one of its topic it is.
  ///
  /// @return the tag, "default" if it was given empty; valid as long as the publisher
  const std::string& getTag() const;

  /// Where publishers made from now on without a broker of their own send to. Any thread.
  ///
  /// @param transports pull transports of brokers; with none, such publishers publish nothing
  static void setDefaultBroker(const std::vector<std::string>& transports);
  /// Lets publishers made from now on without a broker of their own send to this one. Any thread.
  ///
  /// @param broker a broker of this process; only its endpoint is kept
  static void setDefaultBroker(const MessageBroker& broker);

 private:
  std::unique_ptr<PublisherImpl> impl_;
};

}  // namespace tessel

#endif
