#include "transport/zmq_event.h"

#include <zmq.h>

#include <atomic>
#include <cstdint>

namespace tessel {
namespace {

std::atomic<std::uint64_t> nextEvent{0};

}  // namespace

ZmqEvent::ZmqEvent() : sender_(ZMQ_PAIR), receiver_(ZMQ_PAIR) {
  const std::string endpoint = "inproc://zmqevent" + std::to_string(nextEvent.fetch_add(1));
  sender_.bind(endpoint);
  receiver_.connect(endpoint);
  receiver_.waitThroughSignals();
}

void ZmqEvent::signal() {
  ZmqFrame empty;
  sender_.send(empty, 0);
}

void ZmqEvent::consume() {
  ZmqFrame taken;
  receiver_.receive(taken, 0);
}

}  // namespace tessel
