#include <gtest/gtest.h>
#include <tessel/message_dispatcher.h>
#include <unistd.h>
#include <zmq.h>

#include <memory>
#include <string>
#include <vector>

#include "support/raw_broker.h"
#include "support/recorders.h"
#include "support/subscribers.h"
#include "support/threads.h"

namespace tessel::test {
namespace {

// The default ports are the machine's, so whoever else has them is waited for, and what others
// subscribe to meanwhile is passed over.
std::unique_ptr<RawPeer> boundOnceFree(const std::string& endpoint) {
  auto peer = std::make_unique<RawPeer>(ZMQ_XPUB);
  EXPECT_TRUE(eventually([&] { return zmq_bind(peer->handle(), endpoint.c_str()) == 0; }))
      << endpoint << ": " << zmq_strerror(zmq_errno());
  return peer;
}
bool awaitSubscription(RawPeer& peer, const std::string& key) {
  return eventually([&] { return peer.tryReceive(kPatience) == subscribed(key); });
}

TEST(DispatcherDefaultPorts, AreForLiveValuesAndCachedOnes) {
  const std::string topic = "process" + std::to_string(getpid());
  const std::string key = topic + ":default";
  const auto updates = boundOnceFree("tcp://127.0.0.1:9011");
  const auto cache = boundOnceFree("tcp://127.0.0.1:9012");
  const auto fresh = std::make_shared<RecordingSubscriber>(SubscriptionMode::NewValues, topic, "");
  const auto all = std::make_shared<RecordingSubscriber>(SubscriptionMode::AllValues, topic, "");
  MessageDispatcher dispatcher;
  dispatcher.start();
  dispatcher.registerSubscriber(fresh);
  dispatcher.registerSubscriber(all);
  EXPECT_TRUE(awaitSubscription(*updates, key));
  EXPECT_TRUE(awaitSubscription(*cache, key));
  updates->send(valueMessage(key, "1"));
  cache->send(valueMessage(key, "2"));
  EXPECT_EQ(fresh->journal.lines(1), std::vector<std::string>{"value 1"});
  EXPECT_EQ(all->journal.lines(1), std::vector<std::string>{"value 2"});
}

TEST(DispatcherDefaultPorts, AreEachReplacedByAnArgument) {
  const std::string topic = "process" + std::to_string(getpid());
  const std::string key = topic + ":default";
  const auto cache = boundOnceFree("tcp://127.0.0.1:9012");
  const std::string updatesEndpoint = uniqueInproc();
  RawPeer updates(ZMQ_XPUB);
  updates.bind(updatesEndpoint);
  const auto fresh = std::make_shared<RecordingSubscriber>(SubscriptionMode::NewValues, topic, "");
  const auto all = std::make_shared<RecordingSubscriber>(SubscriptionMode::AllValues, topic, "");
  MessageDispatcher dispatcher(updatesEndpoint);
  dispatcher.registerSubscriber(fresh);
  dispatcher.registerSubscriber(all);
  dispatcher.start();
  EXPECT_EQ(updates.receive(), subscribed(key));
  EXPECT_TRUE(awaitSubscription(*cache, key));
}

TEST(DispatcherDefaults, AreFourWorkers) {
  RawBroker broker;
  MessageDispatcher dispatcher(broker.updatesEndpoint, broker.cacheEndpoint);
  const int threads = threadCount();
  dispatcher.start();
  EXPECT_EQ(threadCount(), threads + 1 + 4);
  std::vector<std::shared_ptr<HeldSubscriber>> waiting;
  for (int i = 0; i < 4; ++i) {
    waiting.push_back(std::make_shared<HeldSubscriber>(SubscriptionMode::AllValues, "t", "g"));
    dispatcher.registerSubscriber(waiting.back());
    EXPECT_EQ(broker.cache.receive(), subscribed("t:g"));
  }
  broker.cache.send(valueMessage("t:g", "1"));
  for (const auto& each : waiting) EXPECT_TRUE(each->journal.waitFor(1));  // all at once
  for (const auto& each : waiting) each->gate.open();
  dispatcher.stop();
}

}  // namespace
}  // namespace tessel::test
