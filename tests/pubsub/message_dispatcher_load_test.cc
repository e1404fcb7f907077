#include <gtest/gtest.h>
#include <tessel/message_broker.h>
#include <tessel/publisher.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "pubsub/dispatcher_fixture.h"
#include "support/subscribers.h"

namespace tessel {
namespace {

using namespace test;

constexpr int kBurst = 20000;

// Where each is called and how often is all that counts here.
class CountingSubscriber : public Subscriber {
 public:
  CountingSubscriber(SubscriptionMode mode, const std::string& topic, const std::string& tag,
                     std::atomic<int>& total)
      : Subscriber(mode, topic, tag), total_(total) {}
  int calls() const { return calls_; }

 protected:
  void onValue(const void* data, std::size_t size) override {
    if (std::string(static_cast<const char*>(data), size) == getTag()) ++calls_;
    ++total_;
  }

 private:
  std::atomic<int> calls_{0};
  std::atomic<int>& total_;
};

class DispatcherUnderLoad : public ::testing::TestWithParam<const char*> {
 protected:
  static std::string endpoint() {
    return GetParam() == std::string("tcp") ? freeTcp() : uniqueInproc();
  }
  RawBroker broker{endpoint(), endpoint()};
};

// Nobody reads at the broker until all are made: what does not fit into a queue would be lost.
TEST_P(DispatcherUnderLoad, BurstsOfSubscriptionsAllReachTheBroker) {
  if (GetParam() == std::string("tcp")) {
    for (RawPeer* socket : {&broker.updates, &broker.cache}) socket->set(ZMQ_RCVHWM, 0);
  }
  struct Side {
    SubscriptionMode mode;
    RawPeer& socket;
  };
  const Side sides[] = {{SubscriptionMode::NewValues, broker.updates},
                        {SubscriptionMode::AllValues, broker.cache}};
  MessageDispatcher dispatcher(broker.updatesEndpoint, broker.cacheEndpoint, 1);
  dispatcher.start();
  std::vector<std::shared_ptr<Subscriber>> subscribers;
  for (const Side& side : sides) {
    const Side& other = side.mode == sides[0].mode ? sides[1] : sides[0];
    for (int i = 0; i < kBurst; ++i) {
      subscribers.push_back(std::make_shared<Subscriber>(side.mode, "t", std::to_string(i)));
      dispatcher.registerSubscriber(subscribers.back());
    }
    // They are made in the order of registration, so these have been made when this one is seen.
    subscribers.push_back(std::make_shared<Subscriber>(other.mode, "last", ""));
    dispatcher.registerSubscriber(subscribers.back());
    Frames frame = other.socket.receive();
    while (!frame.empty() && frame != subscribed("last:default")) frame = other.socket.receive();
    ASSERT_EQ(frame, subscribed("last:default"));
    for (int i = 0; i < kBurst; ++i) {
      ASSERT_EQ(side.socket.receive(), subscribed("t:" + std::to_string(i)));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Over, DispatcherUnderLoad, ::testing::Values("tcp", "inproc"),
                         [](const auto& parameter) { return std::string(parameter.param); });

// They may take their time on a busy machine.
void awaitAsLongAsSomeCome(const std::atomic<int>& total, int expected) {
  for (int before = -1; total < expected && total != before;) {
    before = total;
    eventually([&] { return total != before; });
  }
}

// The broker's side has the usual limit of 1000, so nearly all have to wait at the dispatcher's.
TEST(DispatcherBehind, KeepsManyReplaysThatWait) {
  RawBroker broker;
  MessageDispatcher dispatcher(broker.updatesEndpoint, broker.cacheEndpoint, 1);
  std::atomic<int> total{0};
  const auto waiting = std::make_shared<HeldSubscriber>(SubscriptionMode::AllValues, "w", "");
  const auto counting =
      std::make_shared<CountingSubscriber>(SubscriptionMode::AllValues, "t", "g", total);
  dispatcher.start();
  dispatcher.registerSubscriber(waiting);
  dispatcher.registerSubscriber(counting);
  broker.cache.receive();
  broker.cache.receive();
  broker.cache.send(valueMessage("w:default", "1"));
  ASSERT_TRUE(waiting->journal.waitFor(1));
  for (int i = 0; i < kBurst; ++i) broker.cache.send(valueMessage("t:g", "g"));
  waiting->gate.open();
  awaitAsLongAsSomeCome(total, kBurst);
  EXPECT_EQ(counting->calls(), kBurst);
}

// Each subscription is answered by a replay, all in one burst.
TEST(DispatcherOfManyCachedKeys, GetsEachOfThemWhenItSubscribesToAllAtOnce) {
  constexpr int kKeys = 100000;
  const std::string updates = freeTcp();
  const std::string cache = freeTcp();
  MessageBroker broker({}, {updates}, {cache});
  broker.start();
  for (int i = 0; i < kKeys; ++i) {
    const std::string tag = std::to_string(i);
    Publisher(broker, "t", tag).publish(tag.data(), tag.size());
  }
  std::atomic<int> total{0};
  std::vector<std::shared_ptr<CountingSubscriber>> subscribers;
  MessageDispatcher dispatcher(updates, cache);
  for (int i = 0; i < kKeys; ++i) {
    subscribers.push_back(std::make_shared<CountingSubscriber>(SubscriptionMode::AllValues, "t",
                                                               std::to_string(i), total));
    dispatcher.registerSubscriber(subscribers.back());
  }
  dispatcher.start();
  awaitAsLongAsSomeCome(total, kKeys);
  dispatcher.stop();
  EXPECT_EQ(total, kKeys);
  for (const auto& subscriber : subscribers) ASSERT_EQ(subscriber->calls(), 1);
}

}  // namespace
}  // namespace tessel
