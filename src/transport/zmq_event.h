#ifndef TESSEL_SRC_TRANSPORT_ZMQ_EVENT_H
#define TESSEL_SRC_TRANSPORT_ZMQ_EVENT_H

#include <string>

#include "transport/zmq_socket.h"

namespace tessel {

/// The wake-up that a loop polls beside its sockets: a connected pair in the process.
///
/// Signals are counted, each needs one consume(). The sending end is a socket: whoever signals from
/// several threads holds one lock to do so, and keeps few signals outstanding, since the pair holds
/// 2000 and then blocks.
class ZmqEvent {
 public:
  ZmqEvent();

  void signal();
  /// Waits for a signal and takes it; no signal handler ends the wait.
  void consume();
  void* pollHandle() const { return receiver_.handle(); }
  const std::string& endpoint() const { return receiver_.endpoint(); }

 private:
  ZmqSocket sender_;
  ZmqSocket receiver_;
};

}  // namespace tessel

#endif
