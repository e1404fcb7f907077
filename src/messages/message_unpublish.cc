#include "messages/message_unpublish.h"

#include <utility>

namespace tessel {

MessageUnpublish::MessageUnpublish() : MessageBase(kMessageUnpublish) {}

MessageUnpublish::MessageUnpublish(MessageHeader&& header)
    : MessageBase(kMessageUnpublish, std::move(header)) {}

MessageUnpublish::MessageUnpublish(const std::string& topic, const std::string& tag,
                                   std::uint64_t options)
    : MessageBase(kMessageUnpublish),
      topicFrame_(topic),
      tagFrame_(tag),
      optionsFrame_(ZmqFrame::ofLittleEndian64(options)),
      topic_(topic),
      tag_(tag),
      options_(options) {}

bool MessageUnpublish::receiveBody(ZmqSocket& socket) {
  if (!receiveFrames(socket, {&topicFrame_, &tagFrame_, &optionsFrame_})) return false;
  topic_ = topicFrame_.toString();
  tag_ = tagFrame_.toString();
  options_ = optionsFrame_.littleEndian64();
  return true;
}

void MessageUnpublish::sendBody(ZmqSocket& socket) {
  sendFrames(socket, {&topicFrame_, &tagFrame_, &optionsFrame_});
}

}  // namespace tessel
