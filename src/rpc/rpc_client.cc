#include "tessel/rpc_client.h"

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <vector>

#include "messages/message_reply.h"
#include "messages/message_request.h"
#include "rpc/rpc_broker_impl.h"
#include "rpc/rpc_error_impl.h"
#include "rpc/service_call.h"
#include "tessel/rpc_broker.h"
#include "tessel/rpc_error.h"
#include "transport/broker_number.h"
#include "transport/thread_socket_cache.h"

namespace tessel {

// ZeroMQ takes no time below -1. The least of them all must not become a good one when it is cut to
// the 32 bits that ZeroMQ knows.
constexpr std::int64_t kRefused = -2;  // milliseconds

class RpcClientImpl {
 public:
  RpcClientImpl(const std::string& transport, std::chrono::milliseconds timeout)
      : endpoint_(transport), receiveTimeout_(timeout.count()) {}
  RpcClientImpl(const std::shared_ptr<RpcBroker>& broker, std::chrono::milliseconds timeout)
      : broker_(broker),
        localRoad_(implOf(broker).localRoad()),
        endpoint_(implOf(broker).clientEndpoint()),
        receiveTimeout_(timeout.count()) {}

  std::int64_t receiveTimeout() const { return receiveTimeout_; }
  void setReceiveTimeout(std::int64_t milliseconds) { receiveTimeout_ = milliseconds; }

  /// False when no running broker of this process has the service.
  bool callLocally(const std::string& service, const std::string& instance,
                   const std::string& method, const void* data, std::size_t size,
                   std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) const {
    if (broker_.expired()) return false;
    std::shared_ptr<ObserverData> observerData;
    const std::shared_ptr<Service> target = localRoad_->find(service, instance, observerData);
    if (target == nullptr) return false;
    const ObserverSnapshot observers = observerData->snapshot();
    const ServiceCall call{service, instance, method, data, size, observers};
    call.run(*target, out, outSize, [] {});
    return true;
  }

  void callRemotely(MessageRequest& request, std::unique_ptr<std::uint8_t[]>& out,
                    std::size_t& outSize) const {
    ZmqSocket& socket = ThreadSockets::ofThisThread().clients.socketFor(endpoint_);
    socket.setReceiveTimeout(std::max<std::int64_t>(receiveTimeout_, kRefused));
    request.send(socket);
    MessageReply reply;
    if (!reply.receive(socket)) {
      renew(socket);
      throw rpc_timeout();
    }
    finish(reply, out, outSize);
  }

 private:
  static const RpcBrokerImpl& implOf(const std::shared_ptr<RpcBroker>& broker) {
    if (broker == nullptr) throw std::invalid_argument("RPC broker must not be null!");
    return *broker->impl_;
  }

  // A request socket that has lost its reply cannot send again. None is kept for a broker of this
  // process that has gone.
  void renew(ZmqSocket& socket) const {
    if (BrokerNumber::isRetired(endpoint_)) {
      ThreadSockets::ofThisThread().clients.close(endpoint_);
    } else {
      socket.reconnect();
    }
  }

  static void finish(MessageReply& reply, std::unique_ptr<std::uint8_t[]>& out,
                     std::size_t& outSize) {
    switch (reply.status()) {
      case kReplySuccess:
        reply.copyPayload(out, outSize);
        return;
      case kReplyServiceError:
        throw rpc_service_error(reply.payloadText());
      case kReplyBrokerError:
        throw rpc_broker_error(reply.payloadText());
      case kReplyCustomError:
        throw rpc_custom_error(std::make_unique<rpc_custom_error_impl>(reply.payloadFrame()));
      default:
        throw rpc_broker_error("unknown response type");
    }
  }

  const std::weak_ptr<RpcBroker> broker_;       // of none when made on an endpoint
  const std::shared_ptr<LocalRoad> localRoad_;  // null then
  const std::string endpoint_;
  std::atomic<std::int64_t> receiveTimeout_;  // milliseconds
};

RpcClient::RpcClient(const std::string& transport, std::chrono::milliseconds receiveTimeout)
    : impl_(std::make_unique<RpcClientImpl>(transport, receiveTimeout)) {}

RpcClient::RpcClient(const std::shared_ptr<RpcBroker>& broker,
                     std::chrono::milliseconds receiveTimeout)
    : impl_(std::make_unique<RpcClientImpl>(broker, receiveTimeout)) {}

RpcClient::~RpcClient() = default;

void RpcClient::CallMethod(const std::string& service, const std::string& instance,
                           const std::string& method, const void* data, std::size_t size,
                           std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) {
  if (impl_->callLocally(service, instance, method, data, size, out, outSize)) return;
  static const std::vector<std::uint8_t>& reserved = *new std::vector<std::uint8_t>{0};
  MessageRequest request(reserved, service, instance, method, data, size);
  impl_->callRemotely(request, out, outSize);
}

std::chrono::milliseconds RpcClient::receiveTimeout() const {
  return std::chrono::milliseconds(impl_->receiveTimeout());
}

void RpcClient::setReceiveTimeout(const std::chrono::milliseconds& timeout) {
  impl_->setReceiveTimeout(timeout.count());
}

}  // namespace tessel
