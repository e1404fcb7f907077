#ifndef TESSEL_SRC_TRANSPORT_ZMQ_CONTEXT_H
#define TESSEL_SRC_TRANSPORT_ZMQ_CONTEXT_H

namespace tessel {

/// The one ZeroMQ context of the process, made on first use and never terminated: threads that
/// still run, and objects that are still destroyed, while the process exits keep valid sockets.
class ZmqContext {
 public:
  static void* handle();
  ZmqContext(const ZmqContext&) = delete;
  ZmqContext& operator=(const ZmqContext&) = delete;

 private:
  ZmqContext();
  void* handle_;
};

}  // namespace tessel

#endif
