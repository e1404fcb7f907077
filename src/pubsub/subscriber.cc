#include "messages/value_key.h"
#include "pubsub/subscriber_impl.h"

namespace tessel {

SubscriberImpl::SubscriberImpl(Subscriber& owner, SubscriptionMode mode, const std::string& topic,
                               const std::string& tag)
    : owner_(owner),
      mode_(mode),
      topic_(topic),
      tag_(tag.empty() ? kDefaultTag : tag),
      key_(joinKey(topic_, tag_)) {}

void SubscriberImpl::deliverValue(const std::string& /*key*/, const void* data,
                                  std::size_t size) const {
  owner_.onValue(data, size);
}

void SubscriberImpl::deliverDeletion(const std::string& /*key*/) const { owner_.onDeletion(); }

Subscriber::Subscriber(SubscriptionMode mode, const std::string& topic, const std::string& tag)
    : impl_(std::make_unique<SubscriberImpl>(*this, mode, topic, tag)) {}

Subscriber::~Subscriber() = default;

SubscriptionMode Subscriber::getMode() const { return impl_->mode(); }

const std::string& Subscriber::getTopic() const { return impl_->topic(); }

const std::string& Subscriber::getTag() const { return impl_->tag(); }

void Subscriber::onValue(const void* /*data*/, std::size_t /*size*/) {}

void Subscriber::onDeletion() {}

}  // namespace tessel
