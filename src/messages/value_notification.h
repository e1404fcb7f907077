#ifndef TESSEL_SRC_MESSAGES_VALUE_NOTIFICATION_H
#define TESSEL_SRC_MESSAGES_VALUE_NOTIFICATION_H

#include <cstdint>
#include <string>

#include "transport/zmq_frame.h"
#include "transport/zmq_socket.h"

namespace tessel {

/// Bits of a notification's flags word. A live value has none.
enum ValueFlag : std::uint64_t {
  kReplayed = 1,   // the value comes from the cache, for a new subscriber
  kWithdrawn = 2,  // the value is gone
};

/// What a broker sends to dispatchers: key, value, flags; the key first, since subscriptions match
/// the beginning of a message.
class ValueNotification {
 public:
  ValueNotification(const std::string& key, ZmqFrame&& value, std::uint64_t flags);

  /// The same again for a second socket, over the same bytes.
  ValueNotification share() { return ValueNotification(Shared{}, *this); }
  /// Sends it, once. Throws std::runtime_error with ZeroMQ's text on failure.
  void send(ZmqSocket& socket);

 private:
  struct Shared {};
  ValueNotification(Shared tag, ValueNotification& other);

  ZmqFrame key_;
  ZmqFrame value_;
  ZmqFrame flags_;
};

/// A notification as it was received; what a peer left out reads as empty.
struct ReceivedNotification {
  bool replayed() const { return (flags & kReplayed) != 0; }
  bool withdrawn() const { return (flags & kWithdrawn) != 0; }

  std::string key;
  ZmqFrame value;
  std::uint64_t flags = 0;
};

/// Reads one notification, whatever its shape; false when none is there. Frames after the third are
/// dropped. What `notification` held before is gone then.
bool receiveNotification(ZmqSocket& socket, ReceivedNotification& notification, int flags = 0);

}  // namespace tessel

#endif
