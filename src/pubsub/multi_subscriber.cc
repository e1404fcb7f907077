#include "messages/value_key.h"
#include "pubsub/multi_subscriber_impl.h"

namespace tessel {

MultiSubscriberImpl::MultiSubscriberImpl(const std::string& prefix) : prefix_(prefix) {}

void MultiSubscriberImpl::deliverValue(MultiSubscriber& subscriber, const std::string& key,
                                       const void* data, std::size_t size) {
  const TopicAndTag parts = splitKey(key);
  subscriber.onValue(parts.topic, parts.tag, data, size);
}

void MultiSubscriberImpl::deliverDeletion(MultiSubscriber& subscriber, const std::string& key) {
  const TopicAndTag parts = splitKey(key);
  subscriber.onDeletion(parts.topic, parts.tag);
}

MultiSubscriber::MultiSubscriber(const std::string& prefix)
    : impl_(std::make_unique<MultiSubscriberImpl>(prefix)) {}

// An empty tag stays empty here: the prefix then covers every tag of the topic.
MultiSubscriber::MultiSubscriber(const std::string& topic, const std::string& tag)
    : MultiSubscriber(joinKey(topic, tag)) {}

MultiSubscriber::~MultiSubscriber() = default;

void MultiSubscriber::onValue(const std::string& /*topic*/, const std::string& /*tag*/,
                              const void* /*data*/, std::size_t /*size*/) {}

void MultiSubscriber::onDeletion(const std::string& /*topic*/, const std::string& /*tag*/) {}

}  // namespace tessel
