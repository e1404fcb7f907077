// Dispatchers of brokers in the process that come and go, or never come.

#include <gtest/gtest.h>
#include <tessel/message_broker.h>
#include <tessel/publisher.h>
#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "pubsub/dispatcher_fixture.h"
#include "support/endpoints.h"
#include "support/publishing.h"
#include "support/raw_broker.h"
#include "support/recorders.h"
#include "support/socket_budget.h"
#include "support/subscribers.h"
#include "support/threads.h"

namespace tessel::test {
namespace {

// A dispatcher whose raw broker comes and goes.
class DispatcherAndBrokers : public ::testing::Test {
 protected:
  void makeBroker() { broker = std::make_unique<RawBroker>(updatesEndpoint, cacheEndpoint); }
  void remakeBroker() {
    broker.reset();
    makeBroker();
  }
  // What each of them gets, other than that of before.
  void expectDelivery(const std::string& value) {
    broker->updates.send(valueMessage("t:default", value));
    broker->cache.send(valueMessage("t:default", value));
    for (const auto& each : {fresh, all}) {
      EXPECT_TRUE(eventually([&] {
        const Lines lines = each->journal.lines();
        return !lines.empty() && lines.back() == "value " + value;
      }));
    }
  }

  const std::string updatesEndpoint = uniqueInproc();
  const std::string cacheEndpoint = uniqueInproc();
  std::unique_ptr<RawBroker> broker;
  std::shared_ptr<RecordingSubscriber> fresh = recorder(SubscriptionMode::NewValues, "t", "");
  std::shared_ptr<RecordingSubscriber> all = recorder(SubscriptionMode::AllValues, "t", "");
  MessageDispatcher dispatcher{updatesEndpoint, cacheEndpoint};
};

TEST_F(DispatcherAndBrokers, SubscribesAtEachBrokerThatTakesTheNames) {
  dispatcher.registerSubscriber(fresh);
  dispatcher.registerSubscriber(all);
  dispatcher.start();
  for (int round = 0; round < 20; ++round) {
    makeBroker();
    EXPECT_EQ(broker->updates.receive(), subscribed("t:default"));
    EXPECT_EQ(broker->cache.receive(), subscribed("t:default"));
    expectDelivery(std::to_string(round));
    broker.reset();
  }
  EXPECT_EQ(all->journal.size(), 20U);
}

TEST_F(DispatcherAndBrokers, RegistersWhileThereIsNoBroker) {
  makeBroker();
  dispatcher.registerSubscriber(fresh);
  dispatcher.start();
  EXPECT_EQ(broker->updates.receive(), subscribed("t:default"));
  broker.reset();
  dispatcher.registerSubscriber(all);
  const auto gone = recorder(SubscriptionMode::AllValues, "gone", "");
  dispatcher.registerSubscriber(gone);
  dispatcher.unregisterSubscriber(gone);
  makeBroker();
  // The dispatcher may come to what was registered before the broker was there or after it.
  int goneSubscriptions = 0;
  const auto receiveOther = [&] {
    for (;;) {
      Frames message = broker->cache.receive();
      if (message == subscribed("gone:default")) {
        ++goneSubscriptions;
      } else if (message == unsubscribed("gone:default")) {
        --goneSubscriptions;
      } else {
        return message;
      }
    }
  };
  EXPECT_EQ(broker->updates.receive(), subscribed("t:default"));
  EXPECT_EQ(receiveOther(), subscribed("t:default"));
  expectDelivery("1");
  dispatcher.stop();
  EXPECT_EQ(broker->updates.receive(), unsubscribed("t:default"));
  EXPECT_EQ(receiveOther(), unsubscribed("t:default"));
  EXPECT_EQ(goneSubscriptions, 0);
}

TEST_F(DispatcherAndBrokers, FollowsEachOfItsTransportsByItself) {
  RawPeer updates(ZMQ_XPUB);
  updates.bind(updatesEndpoint);
  auto cache = std::make_unique<RawPeer>(ZMQ_XPUB);
  cache->bind(cacheEndpoint);
  dispatcher.registerSubscriber(fresh);
  dispatcher.registerSubscriber(all);
  dispatcher.start();
  EXPECT_EQ(updates.receive(), subscribed("t:default"));
  EXPECT_EQ(cache->receive(), subscribed("t:default"));
  cache = std::make_unique<RawPeer>(ZMQ_XPUB);
  cache->bind(cacheEndpoint);
  EXPECT_EQ(cache->receive(), subscribed("t:default"));
  cache->send(valueMessage("t:default", "1"));
  EXPECT_EQ(all->journal.lines(1), Lines{"value 1"});
  updates.send(valueMessage("t:default", "2"));
  EXPECT_EQ(fresh->journal.lines(1), Lines{"value 2"});
  dispatcher.stop();
  EXPECT_EQ(updates.receive(), unsubscribed("t:default"));  // which it heard of once only
}

TEST_F(DispatcherAndBrokers, SubscribesAtABrokerThatWasMadeWhileItWasStopped) {
  makeBroker();
  remakeBroker();  // even before the first start
  dispatcher.registerSubscriber(fresh);
  dispatcher.registerSubscriber(all);
  for (int round = 0; round < 5; ++round) {
    dispatcher.start();
    EXPECT_EQ(broker->updates.receive(), subscribed("t:default"));
    EXPECT_EQ(broker->cache.receive(), subscribed("t:default"));
    expectDelivery(std::to_string(round));
    dispatcher.stop();
    remakeBroker();
    remakeBroker();
  }
}

TEST_F(DispatcherAndBrokers, DeliversWhatABrokerHadSentBeforeItWent) {
  const auto held = std::make_shared<HeldSubscriber>(SubscriptionMode::AllValues, "t", "");
  makeBroker();
  dispatcher.registerSubscriber(held);
  dispatcher.start();
  EXPECT_EQ(broker->cache.receive(), subscribed("t:default"));
  for (int i = 0; i < 5; ++i) {
    broker->cache.send(valueMessage("t:default", std::to_string(i)));
  }
  ASSERT_TRUE(held->journal.waitFor(1));
  remakeBroker();
  held->gate.open();
  EXPECT_EQ(broker->cache.receive(), subscribed("t:default"));
  broker->cache.send(valueMessage("t:default", "from the next"));
  EXPECT_TRUE(held->journal.waitFor(6));
  Lines lines = held->journal.lines();
  // Of two connections, either may come first.
  lines.erase(std::find(lines.begin(), lines.end(), "value from the next"));
  EXPECT_EQ(lines, (Lines{"value 0", "value 1", "value 2", "value 3", "value 4"}));
}

TEST(DispatcherWithoutABroker, UsesNoSocketsUp) {
  const OpenSockets sockets;
  for (int i = 0; i < 700; ++i) {  // with two connections each, more than a process can have
    MessageDispatcher dispatcher("inproc://nobody-u", "inproc://nobody-c", 0);
    if (i % 100 == 0) {
      dispatcher.registerSubscriber(recorder(SubscriptionMode::AllValues, "t", ""));
      dispatcher.start();
    }
  }
  EXPECT_TRUE(sockets.become(0));
}

TEST(DispatcherWhoseBrokerHasGone, UsesNoSocketsUp) {
  const std::string updates = uniqueInproc();
  const std::string cache = uniqueInproc();
  const OpenSockets sockets;
  for (int i = 0; i < 300; ++i) {
    auto broker = std::make_unique<MessageBroker>(Lines{}, Lines{updates}, Lines{cache});
    MessageDispatcher dispatcher(updates, cache, 1);
    if (i % 2 == 0) dispatcher.start();
    broker.reset();
    if (i % 3 == 0) dispatcher.stop();
  }
  EXPECT_TRUE(sockets.become(0));
}

// Brokers and dispatchers that meet in every state of the other.
TEST(DispatchersAndBrokers, ComeAndGoTogether) {
  const std::string updates = uniqueInproc();
  const std::string cache = uniqueInproc();
  std::atomic<bool> done{false};
  MessageDispatcher staying(updates, cache, 1);
  staying.start();
  {
    ScopedThread brokers([&] {
      for (int i = 0; i < 200; ++i) {
        MessageBroker broker({}, {updates}, {cache});
        if (i % 2 == 0) broker.start();
        publish(Publisher(broker, "t", ""), std::to_string(i));
      }
      done = true;
    });
    ScopedThread restarts([&] {
      while (!done) {
        staying.stop();
        staying.start();
      }
    });
    while (!done) {
      MessageDispatcher dispatcher(updates, cache, 1);
      dispatcher.registerSubscriber(recorder(SubscriptionMode::AllValues, "t", ""));
      dispatcher.start();
      dispatcher.registerSubscriber(std::make_shared<RecordingMultiSubscriber>("t"));
    }
  }
  const auto all = recorder(SubscriptionMode::AllValues, "t", "");
  staying.registerSubscriber(all);
  MessageBroker broker({}, {updates}, {cache});
  broker.start();
  publish(Publisher(broker, "t", ""), "last");
  EXPECT_EQ(all->journal.lines(1), Lines{"value last"});
}

}  // namespace
}  // namespace tessel::test
