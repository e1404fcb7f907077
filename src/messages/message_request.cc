#include "messages/message_request.h"

#include <utility>

namespace tessel {

MessageRequest::MessageRequest() : MessageBase(kMessageRequest) {}

MessageRequest::MessageRequest(MessageHeader&& header)
    : MessageBase(kMessageRequest, std::move(header)) {}

MessageRequest::MessageRequest(const std::vector<std::uint8_t>& reserved,
                               const std::string& serviceName, const std::string& instanceName,
                               const std::string& methodName, const void* data, std::size_t size)
    : MessageBase(kMessageRequest),
      reservedFrame_(reserved),
      serviceFrame_(serviceName),
      instanceFrame_(instanceName),
      methodFrame_(methodName),
      payloadFrame_(data, size),
      serviceName_(serviceName),
      instanceName_(instanceName),
      methodName_(methodName) {}

bool MessageRequest::receiveBody(ZmqSocket& socket) {
  if (!receiveFrames(socket, {&reservedFrame_, &serviceFrame_, &instanceFrame_, &methodFrame_,
                              &payloadFrame_})) {
    return false;
  }
  serviceName_ = serviceFrame_.toString();
  instanceName_ = instanceFrame_.toString();
  methodName_ = methodFrame_.toString();
  return true;
}

void MessageRequest::sendBody(ZmqSocket& socket) {
  sendFrames(socket,
             {&reservedFrame_, &serviceFrame_, &instanceFrame_, &methodFrame_, &payloadFrame_});
}

}  // namespace tessel
