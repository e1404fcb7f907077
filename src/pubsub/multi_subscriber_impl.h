#ifndef TESSEL_SRC_PUBSUB_MULTI_SUBSCRIBER_IMPL_H
#define TESSEL_SRC_PUBSUB_MULTI_SUBSCRIBER_IMPL_H

#include <cstddef>
#include <string>

#include "tessel/message_dispatcher.h"

namespace tessel {

/// What a MultiSubscriber was made with; unchanged from then on, so any thread may read it.
class MultiSubscriberImpl {
 public:
  explicit MultiSubscriberImpl(const std::string& prefix);

  static const MultiSubscriberImpl& of(const MultiSubscriber& subscriber) {
    return *subscriber.impl_;
  }

  static SubscriptionMode mode() { return SubscriptionMode::NewValues; }
  const std::string& key() const { return prefix_; }

  static void deliverValue(MultiSubscriber& subscriber, const std::string& key, const void* data,
                           std::size_t size);
  static void deliverDeletion(MultiSubscriber& subscriber, const std::string& key);

 private:
  const std::string prefix_;
};

}  // namespace tessel

#endif
