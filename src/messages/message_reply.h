#ifndef TESSEL_SRC_MESSAGES_MESSAGE_REPLY_H
#define TESSEL_SRC_MESSAGES_MESSAGE_REPLY_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "messages/message_base.h"
#include "messages/message_request.h"

namespace tessel {

class rpc_custom_error;

/// How a call ended, as it stands in a reply.
enum ReplyStatus : std::int32_t {
  kReplySuccess = 0,       // the payload is the result
  kReplyServiceError = 1,  // a text
  kReplyBrokerError = 2,   // a text
  kReplyCustomError = 3,   // the bytes of the service's own error
};

/// The answer to a request. Those built for sending take the request's envelope, which is the way
/// back to the caller, and leave it empty there.
class MessageReply : public MessageBase {
 public:
  /// For receiving.
  MessageReply();
  explicit MessageReply(MessageHeader&& header);
  /// A success, with a copy of the result.
  MessageReply(MessageRequest& request, const void* data, std::size_t size);
  /// A success that takes over a large result and copies a small one, which costs less. Without a
  /// buffer the result is empty, whatever its size is said to be.
  MessageReply(MessageRequest& request, std::unique_ptr<std::uint8_t[]>&& data, std::size_t size);
  /// The service's own error, with a copy of its bytes.
  MessageReply(MessageRequest& request, const rpc_custom_error& error);
  /// Any other end; the text is not copied.
  MessageReply(MessageRequest& request, std::int32_t status, std::string message);

  std::int32_t status() const { return status_; }
  /// Read from the frames, which sending empties: ask before.
  std::vector<std::uint8_t> reserved() const { return reservedFrame_.toBytes(); }
  const void* payload() const { return payloadFrame_.data(); }
  std::size_t payloadSize() const { return payloadFrame_.size(); }
  std::string payloadText() const { return payloadFrame_.toString(); }
  /// A second frame over the payload's bytes.
  ZmqFrame payloadFrame() { return payloadFrame_.share(); }
  /// A copy of the payload in an array of its own.
  void copyPayload(std::unique_ptr<std::uint8_t[]>& data, std::size_t& size) const;

 private:
  MessageReply(MessageRequest& request, std::int32_t status, ZmqFrame payload);
  bool receiveBody(ZmqSocket& socket) override;
  void sendBody(ZmqSocket& socket) override;

  ZmqFrame reservedFrame_;
  ZmqFrame statusFrame_;
  ZmqFrame payloadFrame_;
  std::int32_t status_ = kReplySuccess;
};

}  // namespace tessel

#endif
