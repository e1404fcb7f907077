#ifndef TESSEL_SRC_MESSAGES_MESSAGE_PUBLISH_H
#define TESSEL_SRC_MESSAGES_MESSAGE_PUBLISH_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "messages/message_base.h"

namespace tessel {

/// Bits of a publication's options; others are carried and ignored.
enum PublishOption : std::uint64_t {
  kKeepInCache = 1,     // the broker keeps the value as the key's last one
  kPublishIfEqual = 2,  // and passes it on even if it equals the one it keeps
};

/// A value on its way to the broker.
class MessagePublish : public MessageBase {
 public:
  /// For receiving.
  MessagePublish();
  explicit MessagePublish(MessageHeader&& header);
  /// For sending; the value is copied.
  MessagePublish(const std::string& topic, const std::string& tag, const void* data,
                 std::size_t size, std::uint64_t options);

  const std::string& topic() const { return topic_; }
  const std::string& tag() const { return tag_; }
  std::uint64_t options() const { return options_; }
  bool hasOption(std::uint64_t mask) const { return (options_ & mask) != 0; }
  const void* data() const { return valueFrame_.data(); }
  std::size_t size() const { return valueFrame_.size(); }
  std::vector<std::uint8_t> value() const { return valueFrame_.toBytes(); }
  /// A second frame over the value's bytes.
  ZmqFrame valueFrame() { return valueFrame_.share(); }

 private:
  bool receiveBody(ZmqSocket& socket) override;
  void sendBody(ZmqSocket& socket) override;

  ZmqFrame topicFrame_;
  ZmqFrame tagFrame_;
  ZmqFrame valueFrame_;
  ZmqFrame optionsFrame_;
  std::string topic_;
  std::string tag_;
  std::uint64_t options_ = 0;
};

}  // namespace tessel

#endif
