#include "transport/zmq_context.h"

#include <zmq.h>

#include "transport/zmq_error.h"

namespace tessel {

ZmqContext::ZmqContext() : handle_(zmq_ctx_new()) {
  if (handle_ == nullptr) throwZmqError();
}

void* ZmqContext::handle() {
  static const ZmqContext& context = *new ZmqContext;
  return context.handle_;
}

}  // namespace tessel
