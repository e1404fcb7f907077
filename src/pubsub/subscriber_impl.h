#ifndef TESSEL_SRC_PUBSUB_SUBSCRIBER_IMPL_H
#define TESSEL_SRC_PUBSUB_SUBSCRIBER_IMPL_H

#include <cstddef>
#include <string>

#include "tessel/message_dispatcher.h"

namespace tessel {

/// What a Subscriber was made with; unchanged from then on, so any thread may read it.
class SubscriberImpl {
 public:
  SubscriberImpl(SubscriptionMode mode, const std::string& topic, const std::string& tag);

  static const SubscriberImpl& of(const Subscriber& subscriber) { return *subscriber.impl_; }

  SubscriptionMode mode() const { return mode_; }
  const std::string& topic() const { return topic_; }
  const std::string& tag() const { return tag_; }
  const std::string& key() const { return key_; }

  static void deliverValue(Subscriber& subscriber, const std::string& /*key*/, const void* data,
                           std::size_t size) {
    subscriber.onValue(data, size);
  }
  static void deliverDeletion(Subscriber& subscriber, const std::string& /*key*/) {
    subscriber.onDeletion();
  }

 private:
  const SubscriptionMode mode_;
  const std::string topic_;
  const std::string tag_;
  const std::string key_;
};

}  // namespace tessel

#endif
