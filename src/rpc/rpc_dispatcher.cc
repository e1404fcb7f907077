#include "tessel/rpc_dispatcher.h"

namespace tessel {

RpcRequest::~RpcRequest() = default;

RpcDispatcher::~RpcDispatcher() = default;

}  // namespace tessel
