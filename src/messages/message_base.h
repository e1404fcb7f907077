#ifndef TESSEL_SRC_MESSAGES_MESSAGE_BASE_H
#define TESSEL_SRC_MESSAGES_MESSAGE_BASE_H

#include <cstdint>
#include <initializer_list>
#include <vector>

#include "messages/message_header.h"

namespace tessel {

/// One message between the library's objects: a header and the body frames of its class.
class MessageBase {
 public:
  virtual ~MessageBase();
  MessageBase(const MessageBase&) = delete;
  MessageBase& operator=(const MessageBase&) = delete;

  std::int32_t type() const { return header_.type; }
  std::vector<ZmqFrame>& envelope() { return header_.envelope; }
  const std::vector<ZmqFrame>& envelope() const { return header_.envelope; }
  /// The last envelope frame, which names the sender to the socket that received the message;
  /// empty when there is none.
  std::vector<std::uint8_t> senderIdentity() const;
  /// Envelope frames in front: to send a message on to one peer, and to take that back.
  void insertEnvelopeFront(ZmqFrame frame);
  void removeEnvelopeFront();

  /// Reads the message, or only its body when the header was taken over. False when it is not a
  /// whole message of this class; it is then gone, other than where only the type differs: the body
  /// frames of such a message stay in the socket.
  bool receive(ZmqSocket& socket);
  /// Sends the message, once: its frames go to ZeroMQ. Waits while the socket's queue is full.
  /// Throws std::runtime_error with ZeroMQ's text when a frame cannot be sent.
  void send(ZmqSocket& socket);
  /// The same, but gives the message up, with false, rather than wait for somebody to bind an
  /// in-process endpoint that nobody has.
  bool sendUnlessAbandoned(ZmqSocket& socket);

 protected:
  explicit MessageBase(std::int32_t type);
  /// Over a header that was read. Throws std::logic_error when it is of another type.
  MessageBase(std::int32_t type, MessageHeader&& header);

  /// Reads the body frames in order; false when there are too few or too many.
  static bool receiveFrames(ZmqSocket& socket, std::initializer_list<ZmqFrame*> frames);
  static void sendFrames(ZmqSocket& socket, std::initializer_list<ZmqFrame*> frames);

 private:
  virtual bool receiveBody(ZmqSocket& socket) = 0;
  virtual void sendBody(ZmqSocket& socket) = 0;
  bool sendWhole(ZmqSocket& socket, WhenFull whenFull);

  const std::int32_t expectedType_;  // of the class; the header may come to hold another
  MessageHeader header_;
};

}  // namespace tessel

#endif
