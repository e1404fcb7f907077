#include <gtest/gtest.h>
#include <tessel/message_broker.h>

#include <cerrno>
#include <string>
#include <unordered_set>

#include "support/broker_peers.h"
#include "support/resources.h"

namespace tessel::test {
namespace {

constexpr unsigned long long kCached = 1;

std::string tagOf(int number) { return std::to_string(number); }

// Publishes t:0 to t:count-1, cached, and waits until the broker has them.
void fill(MessageBroker& broker, int count) {
  const auto observer = std::make_shared<RecordingBrokerObserver>();
  broker.attach(observer);
  broker.start();
  RawPeer in(ZMQ_PUSH);
  in.connect(broker.getInprocPullTransport());
  for (int i = 0; i < count; ++i) in.send(publication("t", tagOf(i), tagOf(i), kCached));
  ASSERT_TRUE(observer->journal.waitFor(static_cast<std::size_t>(count)));
  broker.detach(observer);
}

// Over TCP, where a subscriber that does not keep up makes the broker's own queue grow.
TEST(BrokerUnderLoad, ASubscriberOf100000CachedKeysAtOnceGetsThemAll) {
  const int keys = 100000;
  const std::string cache = freeTcp();
  MessageBroker broker({}, {}, {cache});
  fill(broker, keys);
  RawPeer subscriber(ZMQ_SUB);
  subscriber.set(ZMQ_SNDHWM, 0).set(ZMQ_RCVHWM, 0).connect(cache);
  for (int i = 0; i < keys; ++i) subscriber.subscribe("t:" + tagOf(i));
  std::unordered_set<std::string> received;
  while (received.size() < static_cast<std::size_t>(keys)) {
    const std::optional<Frames> frames = subscriber.tryReceive(kPatience);
    ASSERT_TRUE(frames.has_value()) << "after " << received.size();
    const std::string& value = frames->at(1);
    ASSERT_EQ(*frames, notification("t:" + value, value, 1));
    ASSERT_TRUE(received.insert(value).second) << value;
  }
}

// A subscriber that reads nothing yet: what is sent to it waits in the queues.
TEST(BrokerUnderLoad, ASubscriberThatReadsLateHasLostNothingOfTheCacheSide) {
  const int keys = 20000;
  const std::string cache = uniqueInproc();
  MessageBroker broker({}, {}, {cache});
  fill(broker, keys);
  const auto observer = std::make_shared<RecordingBrokerObserver>();
  broker.attach(observer);
  RawPeer subscriber(ZMQ_SUB);
  subscriber.set(ZMQ_SNDHWM, 0).connect(cache);
  for (int i = 0; i < keys; ++i) subscriber.subscribe("t:" + tagOf(i));
  ASSERT_TRUE(observer->journal.waitFor(keys));
  for (int i = 0; i < keys; ++i) {
    ASSERT_EQ(subscriber.receive(), notification("t:" + tagOf(i), tagOf(i), 1));
  }
}

// The default high-water mark is 1000 on each side, and subscriptions beyond it would be lost
// without a word.
TEST(BrokerUnderLoad, SubscriptionsWithoutNumberWaitForAStoppedBroker) {
  const int keys = 10000;
  const std::string updates = uniqueInproc();
  const std::string cache = uniqueInproc();
  MessageBroker broker({}, {updates}, {cache});
  RawPeer live(ZMQ_SUB);
  RawPeer cached(ZMQ_SUB);
  live.connect(updates);
  cached.connect(cache);
  for (int i = 0; i < keys; ++i) {
    live.subscribe("t:" + tagOf(i));
    cached.subscribe("t:" + tagOf(i));
  }
  const auto observer = std::make_shared<RecordingBrokerObserver>();
  broker.attach(observer);
  broker.start();
  ASSERT_TRUE(observer->journal.waitFor(keys));
  const Lines heard = observer->journal.lines();
  for (std::size_t i = 0; i < heard.size(); ++i) {
    ASSERT_EQ(heard[i], "subscribe t " + tagOf(static_cast<int>(i)));
  }
  RawPeer in(ZMQ_PUSH);
  in.connect(broker.getInprocPullTransport());
  for (int i = 0; i < keys; ++i) {
    const std::string key = "t:" + tagOf(i);
    in.send(publication("t", tagOf(i), "", 0));
    ASSERT_EQ(live.receive(), notification(key, "", 0));
    ASSERT_EQ(cached.receive(), notification(key, "", 0));
  }
}

// Values keep ZeroMQ's default of 1000 on both sides, so that a publisher waits for a broker that
// is stopped or slow instead of filling the memory.
TEST(BrokerUnderLoad, ValuesWaitForAStoppedBrokerUpToTheHighWaterMark) {
  const std::string pull = uniqueInproc();
  MessageBroker broker({pull}, {}, {});
  RawPeer in(ZMQ_PUSH);
  in.connect(pull);
  int sent = 0;
  const Frames frames = publication("t", "g", "", 0);
  while (zmq_send(in.handle(), "", 0, ZMQ_SNDMORE | ZMQ_DONTWAIT) == 0) {
    in.send(Frames(frames.begin() + 1, frames.end()));
    ++sent;
    ASSERT_LE(sent, 3000);
  }
  EXPECT_EQ(zmq_errno(), EAGAIN);
  EXPECT_EQ(sent, 2000);
  const auto observer = std::make_shared<RecordingBrokerObserver>();
  broker.attach(observer);
  broker.start();
  EXPECT_TRUE(observer->journal.waitFor(2000));
}

// A socket that has gone keeps its place among the 1023 of a process, and its memory, until the
// broker's side has taken notice.
void expectSubscribersComeAndGo(const std::string& endpoint) {
  for (int i = 0; i < 2000; ++i) {
    void* socket = nullptr;
    ASSERT_TRUE(eventually([&] {
      socket = zmq_socket(ZmqContext::handle(), ZMQ_SUB);
      return socket != nullptr || zmq_errno() != EMFILE;
    })) << "after "
        << i;
    const int linger = 0;
    ASSERT_EQ(zmq_setsockopt(socket, ZMQ_LINGER, &linger, sizeof linger), 0);
    ASSERT_EQ(zmq_connect(socket, endpoint.c_str()), 0);
    ASSERT_EQ(zmq_setsockopt(socket, ZMQ_SUBSCRIBE, "t:g", 3), 0);
    ASSERT_EQ(zmq_close(socket), 0);
  }
}

TEST(BrokerThatIsQuiet, LetsGoOfLiveSubscribersThatHaveGone) {
  const std::string updates = uniqueInproc();
  MessageBroker broker({}, {updates}, {});
  broker.start();
  expectSubscribersComeAndGo(updates);
}

TEST(BrokerThatIsQuiet, LetsGoOfCacheSubscribersThatHaveGone) {
  const std::string cache = uniqueInproc();
  MessageBroker broker({}, {}, {cache});
  broker.start();
  expectSubscribersComeAndGo(cache);
}

// It polls now and then also while messages wait, as they do here all the time: otherwise its PUB
// socket, on which these repeats are not passed on, would not hear of who has gone.
TEST(BrokerThatIsBusy, LetsGoOfLiveSubscribersThatHaveGone) {
  HandServedBroker at;
  at.broker.detach(at.observer);
  at.publish("t", "g", "", kCached);
  at.in.send(publication("t", "g", "", kCached));
  const int before = openDescriptors();
  RawPeer(ZMQ_SUB).connect(at.updatesEndpoint).subscribe("t:g");
  EXPECT_TRUE(eventually([&] {
    for (int i = 0; i < 300; ++i) at.publish("t", "g", "", kCached);
    return openDescriptors() == before;
  }));
}

// A PUB that sends looks for subscriptions, but not again within a millisecond or so: between two
// values the broker learns of one only if it listens to all its sockets.
TEST(BrokerThatIsQuiet, KnowsANewLiveSubscriberBeforeTheNextValue) {
  HandServedBroker at;
  for (int round = 0; round < 20; ++round) {
    RawPeer live(ZMQ_SUB);
    live.connect(at.updatesEndpoint);
    at.publish("t", "before", "", 0);
    at.pass();  // finds nothing, so that the next one polls
    live.subscribe("t:");
    at.publish("t", "g", "1", 0);
    ASSERT_EQ(live.receive(), notification("t:g", "1", 0));
  }
}

// A subscriber of live values that does not read misses those that do not fit into the two queues
// of 1000, instead of filling the memory. One on the cache's side would miss none so soon.
TEST(BrokerUnderLoad, LiveValuesForOneThatDoesNotReadWaitUpToTheHighWaterMark) {
  const int values = 3000;
  HandServedBroker at;
  at.subscribe("t:g");
  for (int i = 0; i < values; ++i) at.publish("t", "g", std::to_string(i), 0);
  int kept = 0;
  for (; at.live.readable(); ++kept) {
    ASSERT_EQ(at.live.receive(), notification("t:g", std::to_string(kept), 0));
  }
  EXPECT_EQ(kept, 2000);
}

}  // namespace
}  // namespace tessel::test
