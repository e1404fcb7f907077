#include "messages/message_publish.h"

#include <utility>

namespace tessel {

MessagePublish::MessagePublish() : MessageBase(kMessagePublish) {}

MessagePublish::MessagePublish(MessageHeader&& header)
    : MessageBase(kMessagePublish, std::move(header)) {}

MessagePublish::MessagePublish(const std::string& topic, const std::string& tag, const void* data,
                               std::size_t size, std::uint64_t options)
    : MessageBase(kMessagePublish),
      topicFrame_(topic),
      tagFrame_(tag),
      valueFrame_(data, size),
      optionsFrame_(ZmqFrame::ofLittleEndian64(options)),
      topic_(topic),
      tag_(tag),
      options_(options) {}

bool MessagePublish::receiveBody(ZmqSocket& socket) {
  if (!receiveFrames(socket, {&topicFrame_, &tagFrame_, &valueFrame_, &optionsFrame_})) {
    return false;
  }
  topic_ = topicFrame_.toString();
  tag_ = tagFrame_.toString();
  options_ = optionsFrame_.littleEndian64();
  return true;
}

void MessagePublish::sendBody(ZmqSocket& socket) {
  sendFrames(socket, {&topicFrame_, &tagFrame_, &valueFrame_, &optionsFrame_});
}

}  // namespace tessel
