#include "messages/message_reply.h"

#include <cstring>
#include <utility>

#include "tessel/rpc_error.h"

namespace tessel {
namespace {

constexpr std::size_t kTakeOverFrom = 4096;  // bytes

ZmqFrame frameOf(std::unique_ptr<std::uint8_t[]>&& data, std::size_t size) {
  if (data == nullptr) return ZmqFrame();
  return size < kTakeOverFrom ? ZmqFrame(data.get(), size) : ZmqFrame(std::move(data), size);
}

}  // namespace

MessageReply::MessageReply() : MessageBase(kMessageReply) {}

MessageReply::MessageReply(MessageHeader&& header)
    : MessageBase(kMessageReply, std::move(header)) {}

MessageReply::MessageReply(MessageRequest& request, std::int32_t status, ZmqFrame payload)
    : MessageBase(kMessageReply),
      reservedFrame_(ZmqFrame::copyOf(request.reservedFrame())),
      statusFrame_(static_cast<std::uint8_t>(status)),
      payloadFrame_(std::move(payload)),
      status_(status) {
  envelope().swap(request.envelope());
}

MessageReply::MessageReply(MessageRequest& request, const void* data, std::size_t size)
    : MessageReply(request, kReplySuccess, ZmqFrame(data, size)) {}

MessageReply::MessageReply(MessageRequest& request, std::unique_ptr<std::uint8_t[]>&& data,
                           std::size_t size)
    : MessageReply(request, kReplySuccess, frameOf(std::move(data), size)) {}

MessageReply::MessageReply(MessageRequest& request, const rpc_custom_error& error)
    : MessageReply(request, kReplyCustomError, ZmqFrame(error.data(), error.size())) {}

MessageReply::MessageReply(MessageRequest& request, std::int32_t status, std::string message)
    : MessageReply(request, status, ZmqFrame(std::move(message))) {}

void MessageReply::copyPayload(std::unique_ptr<std::uint8_t[]>& data, std::size_t& size) const {
  const std::size_t payloadBytes = payloadSize();
  std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[payloadBytes]);
  if (payloadBytes != 0) std::memcpy(copy.get(), payload(), payloadBytes);
  data = std::move(copy);
  size = payloadBytes;
}

bool MessageReply::receiveBody(ZmqSocket& socket) {
  if (!receiveFrames(socket, {&reservedFrame_, &statusFrame_, &payloadFrame_})) return false;
  status_ = statusFrame_.firstByte();
  return true;
}

void MessageReply::sendBody(ZmqSocket& socket) {
  sendFrames(socket, {&reservedFrame_, &statusFrame_, &payloadFrame_});
}

}  // namespace tessel
