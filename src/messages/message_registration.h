#ifndef TESSEL_SRC_MESSAGES_MESSAGE_REGISTRATION_H
#define TESSEL_SRC_MESSAGES_MESSAGE_REGISTRATION_H

#include <string>

#include "messages/message_base.h"

namespace tessel {

/// A slave's word to its master that it offers a service, or no longer does.
class MessageRegistration : public MessageBase {
 public:
  /// For receiving.
  MessageRegistration();
  explicit MessageRegistration(MessageHeader&& header);
  /// For sending.
  MessageRegistration(bool registered, const std::string& serviceName,
                      const std::string& instanceName);

  /// False: the service is withdrawn.
  bool registered() const { return registered_; }
  const std::string& serviceName() const { return serviceName_; }
  const std::string& instanceName() const { return instanceName_; }

 private:
  bool receiveBody(ZmqSocket& socket) override;
  void sendBody(ZmqSocket& socket) override;

  ZmqFrame registeredFrame_;
  ZmqFrame serviceFrame_;
  ZmqFrame instanceFrame_;
  bool registered_ = false;
  std::string serviceName_;
  std::string instanceName_;
};

}  // namespace tessel

#endif
