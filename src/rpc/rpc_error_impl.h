#ifndef TESSEL_SRC_RPC_RPC_ERROR_IMPL_H
#define TESSEL_SRC_RPC_RPC_ERROR_IMPL_H

#include <utility>

#include "tessel/rpc_error.h"
#include "transport/zmq_frame.h"

namespace tessel {

// Empty so far: they keep the layout of the exported classes fixed while the classes can grow.
class rpc_error_impl {};
class rpc_broker_error_impl {};
class rpc_timeout_impl {};
class rpc_service_error_impl {};

/// The payload as one frame: as it came from the wire, or ready to go there.
class rpc_custom_error_impl {
 public:
  explicit rpc_custom_error_impl(ZmqFrame payloadFrame) : payload(std::move(payloadFrame)) {}

  ZmqFrame payload;
};

}  // namespace tessel

#endif
