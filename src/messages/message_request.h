#ifndef TESSEL_SRC_MESSAGES_MESSAGE_REQUEST_H
#define TESSEL_SRC_MESSAGES_MESSAGE_REQUEST_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "messages/message_base.h"

namespace tessel {

/// A call of a service's method.
class MessageRequest : public MessageBase {
 public:
  /// For receiving.
  MessageRequest();
  explicit MessageRequest(MessageHeader&& header);
  /// For sending; everything is copied. Nobody interprets `reserved`; the reply brings it back.
  MessageRequest(const std::vector<std::uint8_t>& reserved, const std::string& serviceName,
                 const std::string& instanceName, const std::string& methodName, const void* data,
                 std::size_t size);

  const std::string& serviceName() const { return serviceName_; }
  const std::string& instanceName() const { return instanceName_; }
  const std::string& methodName() const { return methodName_; }
  /// Read from the frames, which sending empties: ask before.
  const ZmqFrame& reservedFrame() const { return reservedFrame_; }
  std::vector<std::uint8_t> reserved() const { return reservedFrame_.toBytes(); }
  const void* payload() const { return payloadFrame_.data(); }
  std::size_t payloadSize() const { return payloadFrame_.size(); }

 private:
  bool receiveBody(ZmqSocket& socket) override;
  void sendBody(ZmqSocket& socket) override;

  ZmqFrame reservedFrame_;
  ZmqFrame serviceFrame_;
  ZmqFrame instanceFrame_;
  ZmqFrame methodFrame_;
  ZmqFrame payloadFrame_;
  std::string serviceName_;
  std::string instanceName_;
  std::string methodName_;
};

}  // namespace tessel

#endif
