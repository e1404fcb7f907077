#include <zmq.h>

#include "messages/value_key.h"
#include "pubsub/message_broker_impl.h"
#include "target.h"

namespace tessel::fuzz {
namespace {

class Counter : public MessageBrokerObserver {
 public:
  void onSubscribe(const std::string& topic, const std::string& tag) override {
    last = joinKey(topic, tag);
  }
  void onUnsubscribe(const std::string& topic, const std::string& tag) override {
    last = joinKey(topic, tag);
  }
  void onPublish(const std::string& /*topic*/, const std::string& /*tag*/, bool /*cached*/,
                 bool /*stored*/, bool /*suppressed*/) override {}
  void onUnpublish(const std::string& /*topic*/, const std::string& /*tag*/, bool /*remove*/,
                   bool /*erased*/, bool /*suppressed*/) override {}
  std::string last;
};

// Every frame is a subscription, the end of one, or nothing. The cache holds "a:b".
TESSEL_FUZZ_TARGET(broker_subscriptions) {
  const auto heard = std::make_shared<Counter>();
  MessageBrokerImpl broker({}, {}, {});
  broker.attach(heard);
  wire().feed(ZMQ_PULL, {{"", "RS02", "\x03", "a", "b", "v", std::string("\x01", 1)}});
  broker.serveOnce();
  for (const std::string& frame : messages.front()) {
    wire().feed(ZMQ_XPUB, {{frame}});
    wire().sent.clear();
    heard->last = "nothing";
    broker.serveOnce();
    require(!wire().pending(), "a frame is read");
    const bool hears = !frame.empty() && (frame[0] == 0 || frame[0] == 1);
    const std::string key = frame.empty() ? "" : frame.substr(1);
    const std::string whole = key.find(':') == std::string::npos ? key + ":" : key;
    require(heard->last == (hears ? whole : "nothing"), "observers hear of subscriptions only");
    const bool replays = frame == std::string("\x01") + "a:b";
    require(wire().sent.size() == (replays ? 1U : 0U), "only the cached key is replayed");
    broker.serveOnce();  // finds nothing, and waits at the next pass
  }
}

}  // namespace
}  // namespace tessel::fuzz
