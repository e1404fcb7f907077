#include "messages/value_notification.h"

#include <utility>

#include "transport/zmq_error.h"

namespace tessel {

ValueNotification::ValueNotification(const std::string& key, ZmqFrame value, std::uint64_t flags)
    : ValueNotification(ZmqFrame(key), std::move(value), ZmqFrame::ofLittleEndian64(flags)) {}

ValueNotification::ValueNotification(ZmqFrame key, ZmqFrame value, ZmqFrame flags)
    : key_(std::move(key)), value_(std::move(value)), flags_(std::move(flags)) {}

ValueNotification ValueNotification::share() {
  return ValueNotification(key_.share(), value_.share(), flags_.share());
}

void ValueNotification::send(ZmqSocket& socket) {
  if (!socket.send(key_, ZMQ_SNDMORE) || !socket.send(value_, ZMQ_SNDMORE) ||
      !socket.send(flags_, 0)) {
    throwZmqError();
  }
}

bool receiveNotification(ZmqSocket& socket, ReceivedNotification& notification, int flags) {
  ZmqFrame key;
  if (!socket.receive(key, flags)) return false;
  notification.key = key.toString();
  if (!key.more()) return true;
  socket.receive(notification.value, 0);
  if (!notification.value.more()) return true;
  ZmqFrame word;
  socket.receive(word, 0);
  notification.flags = word.littleEndian64();
  if (word.more()) socket.discardPending();
  return true;
}

}  // namespace tessel
