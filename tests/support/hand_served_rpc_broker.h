#ifndef TESSEL_TESTS_SUPPORT_HAND_SERVED_RPC_BROKER_H
#define TESSEL_TESTS_SUPPORT_HAND_SERVED_RPC_BROKER_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "rpc/rpc_broker_impl.h"
#include "support/endpoints.h"
#include "support/raw_peer.h"
#include "support/rpc_peers.h"

namespace tessel::test {

/// A bare DEALER with a name that a ROUTER then knows it by, and no limit to what it holds.
class NamedDealer : public RawPeer {
 public:
  NamedDealer(const std::string& name, const std::string& endpoint) : RawPeer(ZMQ_DEALER) {
    set(ZMQ_ROUTING_ID, name).set(ZMQ_RCVHWM, 0).set(ZMQ_SNDHWM, 0);
    connect(endpoint);
  }
};

/// A call of a DEALER, and what comes back.
inline Frames ask(const std::string& service, const std::string& instance,
                  const std::string& payload = "payload") {
  return enveloped({}, requestFrames(service, instance, "method", payload));
}
inline Frames answer(int status, const std::string& payload) {
  return enveloped({}, replyFrames(status, payload));
}

/// A master that the test serves by hand, on its own thread, between raw peers in the same process:
/// nothing happens unless a pass is made, and what a pass has sent can be read at once. A pass
/// without anything to serve waits for ever.
class HandServedMaster {
 public:
  HandServedMaster() { broker.attach(observer); }

  void pass(int count = 1) {
    for (int i = 0; i < count; ++i) ASSERT_TRUE(broker.serveOnce());
  }
  void serve(RawPeer& from, const Frames& frames) {
    from.send(frames);
    pass();
  }
  /// Runs the oldest request and routes its reply.
  void run() {
    dispatcher->runOne();
    pass();
  }
  void registerFrom(RawPeer& slave, const std::string& service, const std::string& instance) {
    serve(slave, enveloped({}, registrationFrames(true, service, instance)));
  }
  void withdrawFrom(RawPeer& slave, const std::string& service, const std::string& instance) {
    serve(slave, enveloped({}, registrationFrames(false, service, instance)));
  }

  /// That nothing is on its way to `peer`: the answer to what it asks now comes first.
  void expectNothingSentTo(RawPeer& peer) {
    const Lines before = heard();
    serve(peer, enveloped({}, requestFrames("no such", "marker", "m", "")));
    EXPECT_EQ(peer.receive(), enveloped({}, replyFrames(2, "service not found: no such - marker")));
    heard();
    for (const std::string& line : before) observer->journal.add(line);
  }
  /// What the observer has heard since the last time.
  Lines heard() {
    const Lines lines = observer->journal.lines();
    observer->journal.clear();
    return lines;
  }

  const std::string endpoint = uniqueInproc();
  const std::shared_ptr<KeepingDispatcher> dispatcher = std::make_shared<KeepingDispatcher>();
  RpcBrokerImpl broker{true, {endpoint}, dispatcher};
  const std::shared_ptr<RecordingRpcObserver> observer = std::make_shared<RecordingRpcObserver>();
  NamedDealer client{"client", endpoint};
};

/// A slave that the test serves by hand, with a raw master and a raw registrar. It has offered one
/// service, which it does not have.
struct HandServedSlave {
  HandServedSlave() {
    // The number that the next broker takes follows that of this one.
    const RpcBrokerImpl probe(true, {}, anyDispatcher());
    const int number = std::stoi(probe.clientEndpoint().substr(22)) + 1;
    master.bind(endpoint);
    broker =
        std::make_unique<RpcBrokerImpl>(false, std::vector<std::string>{endpoint}, anyDispatcher());
    registrar.connect("inproc://rpc_broker_internal_" + std::to_string(number));
    registrar.send(enveloped({}, registrationFrames(true, "s", "i")));
    broker->serveOnce();
    identity = master.receive().front();
  }
  /// What a peer says or hears, as it stands at the master.
  Frames atMaster(const Frames& frames) const {
    Frames named = frames;
    named.insert(named.begin(), identity);
    return named;
  }

  const std::string endpoint = uniqueInproc();
  RawPeer master{ZMQ_ROUTER};
  RawPeer registrar{ZMQ_PUSH};
  std::unique_ptr<RpcBrokerImpl> broker;
  std::string identity;
};

}  // namespace tessel::test

#endif
