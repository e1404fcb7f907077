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
/// each broker, shared by all publishers, and closes it when the thread ends; what is still queued
/// is then dropped.
///
/// publish(), unpublish() and removeFromCache() may be called from any thread, also at once. The
/// switches are plain fields: set them before other threads publish.
class TESSEL_EXPORT Publisher {
 public:
  /// Sends to the default brokers of the process: the first MessageBroker made in it, unless
  /// setDefaultBroker() said otherwise before.
  ///
  /// All constructors: an empty tag means "default". Throws std::invalid_argument when the topic or
  /// the tag contains a colon. The topic may be empty.
  Publisher(const std::string& topic, const std::string& tag);
  /// Sends to the brokers at these endpoints; with none it publishes nothing.
  Publisher(const std::vector<std::string>& transports, const std::string& topic,
            const std::string& tag);
  /// Sends to a broker of this process. The broker may go first.
  Publisher(const MessageBroker& broker, const std::string& topic, const std::string& tag);
  /// Withdraws the value if enableUnpublishOnDestruction() or enableClearCacheOnDestruction() is
  /// on; waits as unpublish() does, but not for a broker of this process that has gone. An error
  /// while doing so ends the process.
  virtual ~Publisher();
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;

  /// Sends `size` bytes, which are copied, to each broker in order. Returns when they are queued;
  /// waits while the queue to a broker is full (1000 values when nobody is connected, about 2000
  /// unread ones in the process).
  ///
  /// Throws std::runtime_error with ZeroMQ's text when an endpoint cannot be connected, now or
  /// before on this thread; brokers earlier in the list have the value then.
  void publish(const void* data, std::size_t size) const;

  /// Withdraws the value: subscribers get onDeletion. While the cache is enabled, the broker also
  /// forgets it, and passes the withdrawal on only if it had it. Waits and throws as publish().
  void unpublish() const;
  /// Another name for unpublish().
  void removeFromCache();

  /// Whether brokers keep the value for those who subscribe later. On at first.
  void enableCache(bool enable);
  bool isCacheEnabled() const;
  /// Whether brokers pass on a value that equals the one they keep. Off at first.
  void enablePublishIfEqual(bool enable);
  bool isPublishIfEqualEnabled() const;
  /// Whether the destructor withdraws the value, as unpublish() does. Off at first. One switch with
  /// enableUnpublishOnDestruction(): setting either sets both.
  void enableClearCacheOnDestruction(bool enable);
  bool isClearCacheOnDestructionEnabled() const;
  /// The same switch as enableClearCacheOnDestruction().
  void enableUnpublishOnDestruction(bool enable);
  bool isUnpublishOnDestructionEnabled() const;

  const std::string& getTopic() const;
  /// "default" if it was given empty.
  const std::string& getTag() const;

  /// Where publishers made from now on without a broker of their own send to. Any thread.
  static void setDefaultBroker(const std::vector<std::string>& transports);
  static void setDefaultBroker(const MessageBroker& broker);

 private:
  std::unique_ptr<PublisherImpl> impl_;
};

}  // namespace tessel

#endif
