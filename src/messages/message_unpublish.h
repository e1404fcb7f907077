#ifndef TESSEL_SRC_MESSAGES_MESSAGE_UNPUBLISH_H
#define TESSEL_SRC_MESSAGES_MESSAGE_UNPUBLISH_H

#include <cstdint>
#include <string>

#include "messages/message_base.h"

namespace tessel {

/// Bits of a withdrawal's options; others are carried and ignored.
enum UnpublishOption : std::uint64_t {
  kRemoveFromCache = 1,  // the broker forgets the key's last value as well
};

/// The withdrawal of a value, on its way to the broker.
class MessageUnpublish : public MessageBase {
 public:
  /// For receiving.
  MessageUnpublish();
  explicit MessageUnpublish(MessageHeader&& header);
  /// For sending.
  MessageUnpublish(const std::string& topic, const std::string& tag, std::uint64_t options);

  const std::string& topic() const { return topic_; }
  const std::string& tag() const { return tag_; }
  std::uint64_t options() const { return options_; }
  bool hasOption(std::uint64_t mask) const { return (options_ & mask) != 0; }

 private:
  bool receiveBody(ZmqSocket& socket) override;
  void sendBody(ZmqSocket& socket) override;

  ZmqFrame topicFrame_;
  ZmqFrame tagFrame_;
  ZmqFrame optionsFrame_;
  std::string topic_;
  std::string tag_;
  std::uint64_t options_ = 0;
};

}  // namespace tessel

#endif
