#include "tessel/message_broker.h"

#include "pubsub/message_broker_impl.h"

namespace tessel {

MessageBroker::MessageBroker(const std::vector<std::string>& pullTransports,
                             const std::vector<std::string>& updatesTransports,
                             const std::vector<std::string>& cacheTransports)
    : impl_(std::make_unique<MessageBrokerImpl>(pullTransports, updatesTransports,
                                                cacheTransports)) {}

MessageBroker::~MessageBroker() = default;

void MessageBroker::start() { impl_->start(); }

void MessageBroker::stop(bool clearCache, bool clearObservers) {
  impl_->stop(clearCache, clearObservers);
}

std::string MessageBroker::getInprocPullTransport() const { return impl_->inprocEndpoint(); }

void MessageBroker::attach(const std::shared_ptr<MessageBrokerObserver>& observer) {
  impl_->attach(observer);
}

void MessageBroker::detach(const std::shared_ptr<MessageBrokerObserver>& observer) {
  impl_->detach(observer);
}

MessageBrokerObserver::~MessageBrokerObserver() = default;

}  // namespace tessel
