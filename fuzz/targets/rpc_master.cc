#include <tessel/rpc_dispatcher.h>
#include <zmq.h>

#include <stdexcept>

#include "rpc/rpc_broker_impl.h"
#include "target.h"

namespace tessel::fuzz {
namespace {

class NoDispatcher : public RpcDispatcher {
 public:
  void start() override {}
  void stop() override {}
  void submit(std::shared_ptr<RpcRequest> /*request*/) override {}
};

// The place of the type frame, when the message has a header; 0 when not.
std::size_t typePlace(const Frames& frames) {
  std::size_t place = 0;
  while (place < frames.size() && !frames[place].empty()) ++place;
  place += 2;
  const bool is =
      place + 1 < frames.size() && frames[place - 1] == "RS02" && frames[place].size() == 1;
  return is ? place : 0;
}

// Whatever a peer sends to a master, at most one message goes out for it, and the next request is
// answered. What is no business of a master throws, which would end its process.
TESSEL_FUZZ_TARGET(rpc_master) {
  const Frames good = {"peer", "", "RS02", std::string(1, '\0'), "r", "no such", "i", "m", "p"};
  RpcBrokerImpl broker(true, {}, std::make_shared<NoDispatcher>());
  for (Frames frames : messages) {
    frames.insert(frames.begin(), "peer");  // as the socket does
    const std::size_t type = typePlace(frames);
    const bool ends = type != 0 && static_cast<unsigned char>(frames[type][0]) > 2;
    wire().feed(ZMQ_ROUTER, {frames});
    wire().sent.clear();
    bool ended = false;
    try {
      broker.serveOnce();
    } catch (const std::logic_error&) {
      ended = true;
    }
    require(ended == ends, "it ends of what is not its business, and only of that");
    require(wire().sent.size() <= 1, "at most one message goes out");
    require(ended || !wire().pending(), "a message is read to its end");
    require(ended || wire().sent.empty() || type != 0, "only for one that has a header");
    wire().feed(ZMQ_ROUTER, {good});
    wire().sent.clear();
    broker.serveOnce();
    require(wire().sent.size() == 1, "the next request is answered");
  }
}

}  // namespace
}  // namespace tessel::fuzz
