#include "messages/value_key.h"

namespace tessel {

const char* const kDefaultTag = "default";

std::string joinKey(const std::string& topic, const std::string& tag) {
  std::string key;
  key.reserve(topic.size() + 1 + tag.size());
  assignKey(key, topic, tag);
  return key;
}

void assignKey(std::string& key, const std::string& topic, const std::string& tag) {
  key.assign(topic).append(1, ':').append(tag);
}

TopicAndTag splitKey(const std::string& key) {
  const std::size_t colon = key.find(':');
  if (colon == std::string::npos) return {key, std::string()};
  return {key.substr(0, colon), key.substr(colon + 1)};
}

}  // namespace tessel
