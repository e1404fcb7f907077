#ifndef TESSEL_SRC_RPC_RPC_REQUEST_IMPL_H
#define TESSEL_SRC_RPC_RPC_REQUEST_IMPL_H

#include <memory>
#include <optional>
#include <string>

#include "messages/message_reply.h"
#include "messages/message_request.h"
#include "rpc/observer_data.h"
#include "rpc/service_call.h"
#include "tessel/rpc_dispatcher.h"
#include "tessel/service.h"

namespace tessel {

/// One accepted call and the reply to it. It owns neither service nor observers, so a request that
/// waits in a dispatcher keeps nothing alive.
class RpcRequestImpl : public RpcRequest {
 public:
  RpcRequestImpl(std::weak_ptr<ObserverData> observers, std::weak_ptr<Service> service,
                 std::shared_ptr<MessageRequest> request, const std::string& replyEndpoint);

  std::string getServiceName() const override;
  std::string getInstanceName() const override;
  std::string getMethodName() const override;
  void execute() override;

  /// Whether the calling thread is executing a request of the broker with these observers: it is in
  /// a service of that broker, or in an observer of the call.
  static bool runsOnThisThread(const std::shared_ptr<ObserverData>& observers);

 private:
  void answer(std::optional<MessageReply>& reply) const;
  void callService(Service& service, const ServiceCall& call,
                   std::optional<MessageReply>& reply) const;

  const std::weak_ptr<ObserverData> observers_;
  const std::weak_ptr<Service> service_;
  const std::shared_ptr<MessageRequest> request_;
  const std::string replyEndpoint_;
};

}  // namespace tessel

#endif
