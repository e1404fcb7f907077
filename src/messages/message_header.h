#ifndef TESSEL_SRC_MESSAGES_MESSAGE_HEADER_H
#define TESSEL_SRC_MESSAGES_MESSAGE_HEADER_H

#include <cstdint>
#include <string_view>
#include <vector>

#include "transport/zmq_frame.h"
#include "transport/zmq_socket.h"

namespace tessel {

/// The text in front of every message, by which the two ends know each other's protocol.
inline constexpr std::string_view kProtocolSignature = "RS02";

/// The type code on the wire of each message class.
enum MessageType : std::int32_t {
  kMessageRequest = 0,
  kMessageReply = 1,
  kMessageRegistration = 2,
  kMessagePublish = 3,
  kMessageUnpublish = 4,
};

/// What comes before the body of every message: routing frames, an empty delimiter, the signature
/// and the type code.
struct MessageHeader {
  /// For receiving: everything empty until readMessageHeader() fills it in.
  MessageHeader() = default;
  /// For sending.
  explicit MessageHeader(std::int32_t messageType)
      : type(messageType), typeFrame(static_cast<std::uint8_t>(messageType)) {}
  MessageHeader(MessageHeader&&) = default;
  MessageHeader& operator=(MessageHeader&&) = default;
  MessageHeader(const MessageHeader&) = delete;
  MessageHeader& operator=(const MessageHeader&) = delete;

  bool received = false;
  /// The frames before the delimiter as they came; sent back in the same order.
  std::vector<ZmqFrame> envelope;
  std::int32_t type = 0;
  ZmqFrame typeFrame;
};

enum class HeaderRead {
  kRead,       // the body frames follow
  kMalformed,  // the message is gone, to its last frame
  kNothing,    // no message was there
};

/// Reads a header. `flags` apply to the first frame: with ZMQ_DONTWAIT, or after the socket's
/// receive time-out, the answer may be kNothing. The rest of a message is there with its first
/// frame, and is never waited for.
HeaderRead readMessageHeader(ZmqSocket& socket, MessageHeader& header, int flags = 0);

}  // namespace tessel

#endif
