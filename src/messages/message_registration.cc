#include "messages/message_registration.h"

#include <utility>

namespace tessel {

MessageRegistration::MessageRegistration() : MessageBase(kMessageRegistration) {}

MessageRegistration::MessageRegistration(MessageHeader&& header)
    : MessageBase(kMessageRegistration, std::move(header)) {}

MessageRegistration::MessageRegistration(bool registered, const std::string& serviceName,
                                         const std::string& instanceName)
    : MessageBase(kMessageRegistration),
      registeredFrame_(registered),
      serviceFrame_(serviceName),
      instanceFrame_(instanceName),
      registered_(registered),
      serviceName_(serviceName),
      instanceName_(instanceName) {}

bool MessageRegistration::receiveBody(ZmqSocket& socket) {
  if (!receiveFrames(socket, {&registeredFrame_, &serviceFrame_, &instanceFrame_})) return false;
  registered_ = registeredFrame_.firstByteAsBool();
  serviceName_ = serviceFrame_.toString();
  instanceName_ = instanceFrame_.toString();
  return true;
}

void MessageRegistration::sendBody(ZmqSocket& socket) {
  sendFrames(socket, {&registeredFrame_, &serviceFrame_, &instanceFrame_});
}

}  // namespace tessel
