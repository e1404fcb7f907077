#include "tessel/message_dispatcher.h"

#include <stdexcept>

#include "pubsub/message_dispatcher_impl.h"

namespace tessel {
namespace {

template <typename T>
std::shared_ptr<SubscriptionBase> subscriptionOf(const std::shared_ptr<T>& subscriber) {
  if (subscriber == nullptr) throw std::invalid_argument("Subscriber must not be null!");
  return std::make_shared<Subscription<T>>(subscriber);
}

}  // namespace

MessageDispatcher::MessageDispatcher(const std::string& updatesTransport,
                                     const std::string& cacheTransport, std::size_t workerCount)
    : impl_(
          std::make_unique<MessageDispatcherImpl>(updatesTransport, cacheTransport, workerCount)) {}

MessageDispatcher::~MessageDispatcher() = default;

void MessageDispatcher::registerSubscriber(const std::shared_ptr<Subscriber>& subscriber) {
  impl_->registerSubscription(subscriptionOf(subscriber));
}

void MessageDispatcher::registerSubscriber(const std::shared_ptr<MultiSubscriber>& subscriber) {
  impl_->registerSubscription(subscriptionOf(subscriber));
}

void MessageDispatcher::unregisterSubscriber(const std::shared_ptr<Subscriber>& subscriber) {
  impl_->unregisterSubscription(subscriptionOf(subscriber));
}

void MessageDispatcher::unregisterSubscriber(const std::shared_ptr<MultiSubscriber>& subscriber) {
  impl_->unregisterSubscription(subscriptionOf(subscriber));
}

void MessageDispatcher::start() { impl_->start(); }

void MessageDispatcher::stop(bool clearSubscriptions) { impl_->stop(clearSubscriptions); }

}  // namespace tessel
