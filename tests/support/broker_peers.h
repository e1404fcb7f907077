#ifndef TESSEL_TESTS_SUPPORT_BROKER_PEERS_H
#define TESSEL_TESTS_SUPPORT_BROKER_PEERS_H

#include <gtest/gtest.h>
#include <zmq.h>

#include <memory>
#include <string>

#include "pubsub/message_broker_impl.h"
#include "support/endpoints.h"
#include "support/raw_peer.h"
#include "support/recorders.h"

namespace tessel::test {

/// What a publisher sends, and what a broker sends on, as they stand on the wire.
inline Frames publication(const std::string& topic, const std::string& tag,
                          const std::string& value, unsigned long long options) {
  return {"", "RS02", "\x03", topic, tag, value, word(options)};
}
inline Frames withdrawal(const std::string& topic, const std::string& tag,
                         unsigned long long options) {
  return {"", "RS02", "\x04", topic, tag, word(options)};
}
inline Frames notification(const std::string& key, const std::string& value,
                           unsigned long long flags) {
  return {key, value, word(flags)};
}

/// A broker that the test serves by hand, on its own thread, between raw peers in the same process:
/// nothing happens unless a pass is made, and what a pass has sent can be read at once. A pass
/// without anything to serve waits for ever.
class HandServedBroker {
 public:
  HandServedBroker() {
    in.connect(broker.inprocEndpoint());
    live.connect(updatesEndpoint).subscribe("");
    cached.connect(cacheEndpoint).subscribe("marker:m");
    pass();
    broker.attach(observer);
  }

  void pass(int count = 1) {
    for (int i = 0; i < count; ++i) ASSERT_TRUE(broker.serveOnce());
  }
  void publish(const std::string& topic, const std::string& tag, const std::string& value,
               unsigned long long options) {
    in.send(publication(topic, tag, value, options));
    pass();
  }
  void withdraw(const std::string& topic, const std::string& tag, unsigned long long options) {
    in.send(withdrawal(topic, tag, options));
    pass();
  }
  void subscribe(const std::string& subscription) { subscribe(cached, subscription); }
  void subscribe(RawPeer& peer, const std::string& subscription) {
    peer.subscribe(subscription);
    pass();
  }
  void unsubscribe(const std::string& subscription) {
    cached.unsubscribe(subscription);
    pass();
  }

  /// That nothing is on its way to either side: a marker sent now arrives first. The observer does
  /// not keep what it hears of the marker.
  void expectNothingSent() {
    const auto heard = observer->journal.lines();
    publish("marker", "m", "", 0);
    EXPECT_EQ(live.receive(), notification("marker:m", "", 0));
    EXPECT_EQ(cached.receive(), notification("marker:m", "", 0));
    observer->journal.clear();
    for (const std::string& line : heard) observer->journal.add(line);
  }
  /// What the observer has heard since the last time.
  std::vector<std::string> heard() {
    const auto lines = observer->journal.lines();
    observer->journal.clear();
    return lines;
  }

  const std::string updatesEndpoint = uniqueInproc();
  const std::string cacheEndpoint = uniqueInproc();
  MessageBrokerImpl broker{{}, {updatesEndpoint}, {cacheEndpoint}};
  RawPeer in{ZMQ_PUSH};
  RawPeer live{ZMQ_SUB};
  RawPeer cached{ZMQ_SUB};  // subscribed to the marker only, at first
  const std::shared_ptr<RecordingBrokerObserver> observer =
      std::make_shared<RecordingBrokerObserver>();
};

using Lines = std::vector<std::string>;

}  // namespace tessel::test

#endif
