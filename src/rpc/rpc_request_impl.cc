#include "rpc/rpc_request_impl.h"

#include <functional>
#include <utility>

#include "tessel/rpc_error.h"
#include "transport/inproc_endpoints.h"
#include "transport/thread_socket_cache.h"

namespace tessel {
namespace {

// A reply sent to an endpoint of this process that nobody has bound would wait there for ever.
bool brokerHasGone(const std::string& replyEndpoint) {
  return InprocEndpoints::isInproc(replyEndpoint) &&
         !InprocEndpoints::instance().isBound(replyEndpoint);
}

// The requests that a thread is executing: a service may execute others.
class Execution {
 public:
  explicit Execution(const std::weak_ptr<ObserverData>& observers)
      : observers_(observers), outer_(innermost) {
    innermost = this;
  }
  ~Execution() { innermost = outer_; }
  Execution(const Execution&) = delete;
  Execution& operator=(const Execution&) = delete;

  static bool isUnderWay(const std::shared_ptr<ObserverData>& observers) {
    for (const Execution* each = innermost; each != nullptr; each = each->outer_) {
      if (!each->observers_.owner_before(observers) && !observers.owner_before(each->observers_)) {
        return true;
      }
    }
    return false;
  }

 private:
  static thread_local const Execution* innermost;

  const std::weak_ptr<ObserverData>& observers_;
  const Execution* const outer_;
};

thread_local const Execution* Execution::innermost = nullptr;

}  // namespace

RpcRequestImpl::RpcRequestImpl(std::weak_ptr<ObserverData> observers,
                               std::weak_ptr<Service> service,
                               std::shared_ptr<MessageRequest> request,
                               const std::string& replyEndpoint)
    : observers_(std::move(observers)),
      service_(std::move(service)),
      request_(std::move(request)),
      replyEndpoint_(replyEndpoint) {}

std::string RpcRequestImpl::getServiceName() const { return request_->serviceName(); }

std::string RpcRequestImpl::getInstanceName() const { return request_->instanceName(); }

std::string RpcRequestImpl::getMethodName() const { return request_->methodName(); }

bool RpcRequestImpl::runsOnThisThread(const std::shared_ptr<ObserverData>& observers) {
  return Execution::isUnderWay(observers);
}

void RpcRequestImpl::execute() {
  const Execution execution(observers_);
  ThreadSocketCache& sockets = ThreadSockets::ofThisThread().replies;
  // Made before the service runs: a call that could not be answered is not begun.
  if (!brokerHasGone(replyEndpoint_)) sockets.socketFor(replyEndpoint_);
  std::optional<MessageReply> reply;
  answer(reply);
  // Looked up again: a service may execute other requests, which may tidy the sockets up.
  if (!brokerHasGone(replyEndpoint_)) reply->send(sockets.socketFor(replyEndpoint_));
}

void RpcRequestImpl::answer(std::optional<MessageReply>& reply) const {
  ObserverSnapshot observers;
  if (const std::shared_ptr<ObserverData> data = observers_.lock()) observers = data->snapshot();
  const MessageRequest& request = *request_;
  const ServiceCall call{request.serviceName(), request.instanceName(), request.methodName(),
                         request.payload(),     request.payloadSize(),  observers};
  if (const std::shared_ptr<Service> service = service_.lock()) {
    callService(*service, call, reply);
    return;
  }
  call.tellNotFound();
  reply.emplace(*request_, kReplyBrokerError,
                serviceNotFoundText(request.serviceName(), request.instanceName()));
}

void RpcRequestImpl::callService(Service& service, const ServiceCall& call,
                                 std::optional<MessageReply>& reply) const {
  std::unique_ptr<std::uint8_t[]> out;
  std::size_t outSize = 0;
  const auto finish = [&] { reply.emplace(*request_, std::move(out), outSize); };
  try {
    call.run(service, out, outSize, std::ref(finish));
  } catch (const rpc_custom_error& error) {
    reply.emplace(*request_, error);
  } catch (const rpc_service_error& error) {
    reply.emplace(*request_, kReplyServiceError, std::string(error.what()));
  }
}

}  // namespace tessel
