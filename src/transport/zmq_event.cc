#include "transport/zmq_event.h"

#include <zmq.h>

#include <atomic>
#include <cstdint>

#include "transport/poll_set.h"

namespace tessel {
namespace {

std::atomic<std::uint64_t> nextEvent{0};

}  // namespace

ZmqEvent::ZmqEvent() : sender_(ZMQ_PAIR), receiver_(ZMQ_PAIR) {
  const std::string endpoint = "inproc://zmqevent" + std::to_string(nextEvent.fetch_add(1));
  sender_.bind(endpoint);
  receiver_.connect(endpoint);
}

void ZmqEvent::signal() {
  ZmqFrame empty;
  sender_.send(empty, 0);
}

void ZmqEvent::consume() {
  ZmqFrame taken;
  // Not a receive that waits: a signal handler would end it, and the loop with it.
  while (!receiver_.receive(taken, ZMQ_DONTWAIT)) PollSet{receiver_.handle()}.wait();
}

}  // namespace tessel
