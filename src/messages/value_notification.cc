#include "messages/value_notification.h"

#include <utility>

#include "transport/zmq_error.h"

namespace tessel {

ValueNotification::ValueNotification(const std::string& key, ZmqFrame&& value, std::uint64_t flags)
    : key_(key), value_(std::move(value)), flags_(ZmqFrame::ofLittleEndian64(flags)) {}

ValueNotification::ValueNotification(Shared /*tag*/, ValueNotification& other)
    : key_(other.key_.share()), value_(other.value_.share()), flags_(other.flags_.share()) {}

void ValueNotification::send(ZmqSocket& socket) {
  if (!socket.send(key_, ZMQ_SNDMORE) || !socket.send(value_, ZMQ_SNDMORE) ||
      !socket.send(flags_, 0)) {
    throwZmqError();
  }
}

bool receiveNotification(ZmqSocket& socket, ReceivedNotification& notification, int flags) {
  ZmqFrame key;
  if (!socket.receive(key, flags)) return false;
  notification.key.assign(static_cast<const char*>(key.data()), key.size());
  notification.value = ZmqFrame();
  notification.flags = 0;
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
