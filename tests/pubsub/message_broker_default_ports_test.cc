#include <gtest/gtest.h>
#include <tessel/message_broker.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "support/broker_peers.h"

namespace tessel::test {
namespace {

// The default ports are the machine's, so whoever else has them is waited for.
template <typename... Arguments>
std::unique_ptr<MessageBroker> madeOnceFree(const Arguments&... arguments) {
  std::unique_ptr<MessageBroker> broker;
  EXPECT_TRUE(eventually([&] {
    try {
      broker = std::make_unique<MessageBroker>(arguments...);
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), zmq_strerror(EADDRINUSE));
    }
    return broker != nullptr;
  }));
  return broker;
}

void publishTo(const std::string& endpoint) {
  RawPeer in(ZMQ_PUSH);
  in.connect(endpoint);
  in.send(publication("t", "g", "1", 1));
  in.set(ZMQ_LINGER, -1);
}

TEST(BrokerDefaultPorts, AreForPublishersLiveValuesAndCachedOnes) {
  const std::unique_ptr<MessageBroker> broker = madeOnceFree();
  ASSERT_NE(broker, nullptr);
  const auto observer = std::make_shared<RecordingBrokerObserver>();
  broker->attach(observer);
  broker->start();
  publishTo("tcp://localhost:9010");
  EXPECT_EQ(observer->journal.lines(1), Lines{"publish t g 1 1 0"});
  RawPeer cached(ZMQ_SUB);
  cached.connect("tcp://localhost:9012").subscribe("t:g");
  EXPECT_EQ(cached.receive(), notification("t:g", "1", 1));
  RawPeer live(ZMQ_SUB);
  live.connect("tcp://localhost:9011").subscribe("t:g");
  RawPeer in(ZMQ_PUSH);
  in.connect(broker->getInprocPullTransport());
  EXPECT_TRUE(eventually([&] {  // the subscription takes its time to arrive
    in.send(publication("t", "g", "2", 0));
    return live.readable();
  }));
  EXPECT_EQ(live.receive(), notification("t:g", "2", 0));
  EXPECT_EQ(observer->journal.lines().at(1), "subscribe t g");  // and no other: 9011 is live only
}

TEST(BrokerDefaultPorts, AreEachReplacedByAListOfItsOwn) {
  const std::vector<std::string> none;
  const std::unique_ptr<MessageBroker> broker = madeOnceFree(none);
  ASSERT_NE(broker, nullptr);
  RawPeer pull(ZMQ_PULL);
  EXPECT_TRUE(eventually([&] { return zmq_bind(pull.handle(), "tcp://*:9010") == 0; }));
  RawPeer sub(ZMQ_SUB);
  EXPECT_NE(zmq_bind(sub.handle(), "tcp://*:9011"), 0);
  EXPECT_NE(zmq_bind(sub.handle(), "tcp://*:9012"), 0);
}

}  // namespace
}  // namespace tessel::test
