#ifndef TESSEL_SRC_MESSAGES_VALUE_KEY_H
#define TESSEL_SRC_MESSAGES_VALUE_KEY_H

#include <string>

namespace tessel {

/// The tag that publishers and subscribers take for an empty one.
extern const char* const kDefaultTag;

/// The key of a value: topic and tag joined by ":". It is the cache key of the broker, the first
/// frame of every notification and what dispatchers subscribe to.
std::string joinKey(const std::string& topic, const std::string& tag);
/// The same into a string whose memory is there already.
void assignKey(std::string& key, const std::string& topic, const std::string& tag);

struct TopicAndTag {
  std::string topic;
  std::string tag;
};

/// Cuts at the first ":"; a key without one is all topic.
TopicAndTag splitKey(const std::string& key);

}  // namespace tessel

#endif
