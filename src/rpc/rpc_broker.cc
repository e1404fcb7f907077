#include "tessel/rpc_broker.h"

#include <stdexcept>
#include <utility>

#include "rpc/rpc_broker_impl.h"

namespace tessel {
namespace {

const std::shared_ptr<Service>& notNull(const std::shared_ptr<Service>& service) {
  if (service == nullptr) throw std::invalid_argument("Service must not be null!");
  return service;
}

}  // namespace

RpcBroker::RpcBroker(bool master, const std::vector<std::string>& transports,
                     std::shared_ptr<RpcDispatcher> dispatcher)
    : impl_(std::make_unique<RpcBrokerImpl>(master, transports, std::move(dispatcher))) {}

RpcBroker::~RpcBroker() = default;

void RpcBroker::registerService(const std::shared_ptr<Service>& service) {
  impl_->registerService(notNull(service));
}

void RpcBroker::unregisterService(const std::shared_ptr<Service>& service) {
  impl_->unregisterService(notNull(service));
}

void RpcBroker::attach(const std::shared_ptr<RpcBrokerObserver>& observer) {
  impl_->attach(observer);
}

void RpcBroker::detach(const std::shared_ptr<RpcBrokerObserver>& observer) {
  impl_->detach(observer);
}

void RpcBroker::start() { impl_->start(); }

void RpcBroker::stop(bool clearServices, bool clearObservers) {
  impl_->stop(clearServices, clearObservers);
}

RpcBrokerObserver::~RpcBrokerObserver() = default;

}  // namespace tessel
