#include "messages/value_key.h"
#include "pubsub/subscriber_impl.h"

namespace tessel {

SubscriberImpl::SubscriberImpl(SubscriptionMode mode, const std::string& topic,
                               const std::string& tag)
    : mode_(mode),
      topic_(topic),
      tag_(tag.empty() ? kDefaultTag : tag),
      key_(joinKey(topic_, tag_)) {}

Subscriber::Subscriber(SubscriptionMode mode, const std::string& topic, const std::string& tag)
    : impl_(std::make_unique<SubscriberImpl>(mode, topic, tag)) {}

Subscriber::~Subscriber() = default;

SubscriptionMode Subscriber::getMode() const { return impl_->mode(); }

const std::string& Subscriber::getTopic() const { return impl_->topic(); }

const std::string& Subscriber::getTag() const { return impl_->tag(); }

void Subscriber::onValue(const void* /*data*/, std::size_t /*size*/) {}

void Subscriber::onDeletion() {}

}  // namespace tessel
