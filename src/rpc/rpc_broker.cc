#include "tessel/rpc_broker.h"

#include <stdexcept>
#include <utility>

#include "rpc/rpc_broker_impl.h"

namespace tessel {
namespace {

template <typename Pointer>
Pointer&& notNull(Pointer&& pointer, const char* text) {
  if (pointer == nullptr) throw std::invalid_argument(text);
  return std::forward<Pointer>(pointer);
}

const char* const kNullService = "Service must not be null!";

}  // namespace

RpcBroker::RpcBroker(bool master, const std::vector<std::string>& transports,
                     std::shared_ptr<RpcDispatcher> dispatcher)
    : impl_(std::make_unique<RpcBrokerImpl>(
          master, transports, notNull(std::move(dispatcher), "RPC dispatcher must not be null!"))) {
}

RpcBroker::~RpcBroker() = default;

void RpcBroker::registerService(const std::shared_ptr<Service>& service) {
  impl_->registerService(notNull(service, kNullService));
}

void RpcBroker::unregisterService(const std::shared_ptr<Service>& service) {
  impl_->unregisterService(notNull(service, kNullService));
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
