#include <zmq.h>

#include "pubsub/message_broker_impl.h"
#include "target.h"

namespace tessel::fuzz {
namespace {

// Whatever is pushed to a broker, it sends each notification twice, as three frames, and serves
// what comes next.
TESSEL_FUZZ_TARGET(broker_inbound) {
  const Frames good = {
      "", "RS02", "\x03", "good", "one", "v", std::string("\x02\0\0\0\0\0\0\0", 8)};
  MessageBrokerImpl broker({}, {}, {});
  for (const Frames& frames : messages) {
    wire().feed(ZMQ_PULL, {frames, good});
    wire().sent.clear();
    while (wire().pending()) require(broker.serveOnce(), "it goes on");
    const std::vector<Frames>& sent = wire().sent;
    require(sent.size() == 2 || sent.size() == 4, "of each at most one notification, twice");
    for (std::size_t i = 0; i < sent.size(); i += 2) {
      require(sent[i] == sent[i + 1], "both sockets send the same");
      require(sent[i].size() == 3 && sent[i][2].size() == 8, "a notification has its shape");
      require(sent[i][2][0] == 0 || (sent[i][2][0] == 2 && sent[i][1].empty()), "and its flags");
    }
    require(sent.back()[0] == "good:one" && sent.back()[1] == "v", "the next one is served");
  }
}

}  // namespace
}  // namespace tessel::fuzz
