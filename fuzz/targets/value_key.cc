#include "messages/value_key.h"

#include "target.h"

namespace tessel::fuzz {
namespace {

TESSEL_FUZZ_TARGET(value_key) {
  for (const std::string& key : messages.front()) {
    const TopicAndTag parts = splitKey(key);
    require(parts.topic.find(':') == std::string::npos, "a topic has no colon");
    if (key.find(':') == std::string::npos) {
      require(parts.topic == key && parts.tag.empty(), "a key without colon is all topic");
    } else {
      require(joinKey(parts.topic, parts.tag) == key, "the parts make the key");
    }
  }
  const std::string& topic = messages.front().front();
  const std::string& tag = messages.front().back();
  if (topic.find(':') != std::string::npos) return;
  const TopicAndTag parts = splitKey(joinKey(topic, tag));
  require(parts.topic == topic && parts.tag == tag, "a key is split where it was joined");
}

}  // namespace
}  // namespace tessel::fuzz
