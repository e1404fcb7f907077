// What the broker and the dispatcher ask of their sockets that shows at the other end only at great
// length, or not at all. In a program of its own, since it stands in for functions of libzmq to
// note how they are called.

#include <gtest/gtest.h>
#include <tessel/message_dispatcher.h>
#include <zmq.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "support/broker_peers.h"
#include "support/deadline.h"
#include "support/raw_broker.h"
#include "support/recorders.h"
#include "support/stand_in.h"
#include "support/subscribers.h"
#include "support/threads.h"

namespace {

using tessel::test::real;

// How many messages a socket is to queue for each peer.
struct Marks {
  int sending = -1;
  int receiving = -1;
};

// At the time when each endpoint was bound or connected: later settings would not count for it.
thread_local std::map<std::string, Marks> marks;

thread_local std::vector<int> sentOn;  // the types of the sockets, for each frame

thread_local std::function<void()> afterSignal;  // when this thread has sent one

std::atomic<int> receivedNothing{0};  // how often, on all threads

int optionOf(void* socket, int option) {
  int value = -1;
  size_t size = sizeof value;
  zmq_getsockopt(socket, option, &value, &size);
  return value;
}

void note(void* socket, const std::string& endpoint) {
  marks[endpoint] = {optionOf(socket, ZMQ_SNDHWM), optionOf(socket, ZMQ_RCVHWM)};
}

}  // namespace

extern "C" {

int zmq_bind(void* socket, const char* endpoint) {
  note(socket, endpoint);
  return real("zmq_bind", &zmq_bind)(socket, endpoint);
}
int zmq_connect(void* socket, const char* endpoint) {
  note(socket, endpoint);
  return real("zmq_connect", &zmq_connect)(socket, endpoint);
}
int zmq_msg_send(zmq_msg_t* message, void* socket, int flags) {
  const int type = optionOf(socket, ZMQ_TYPE);
  sentOn.push_back(type);
  const int result = real("zmq_msg_send", &zmq_msg_send)(message, socket, flags);
  if (type == ZMQ_PAIR && afterSignal) afterSignal();
  return result;
}
int zmq_msg_recv(zmq_msg_t* message, void* socket, int flags) {
  const int result = real("zmq_msg_recv", &zmq_msg_recv)(message, socket, flags);
  if (result < 0) ++receivedNothing;
  return result;
}

}  // extern "C"

namespace tessel::test {
namespace {

constexpr int kDefault = 1000;  // ZeroMQ's own
constexpr int kReplays = 1000000;
constexpr int kUnlimited = 0;

void expectMarks(const std::string& endpoint, const Marks& expected) {
  ASSERT_EQ(marks.count(endpoint), 1U) << endpoint;
  EXPECT_EQ(marks[endpoint].sending, expected.sending) << endpoint;
  EXPECT_EQ(marks[endpoint].receiving, expected.receiving) << endpoint;
}

// Without a limit where only subscriptions travel, high for replays, and otherwise the usual: a
// subscriber that does not keep up with live values must not fill the memory, nor a publisher.
TEST(HighWaterMarks, OfABroker) {
  const std::string pull = uniqueInproc();
  const std::string updates = uniqueInproc();
  const std::string cache = uniqueInproc();
  const MessageBrokerImpl broker({pull}, {updates}, {cache});
  expectMarks(broker.inprocEndpoint(), {kDefault, kDefault});
  expectMarks(pull, {kDefault, kDefault});
  expectMarks(updates, {kDefault, kUnlimited});
  expectMarks(cache, {kReplays, kUnlimited});
}

TEST(HighWaterMarks, OfADispatcher) {
  const RawBroker broker;
  marks.clear();  // those of the other end
  const MessageDispatcher dispatcher(broker.updatesEndpoint, broker.cacheEndpoint);
  expectMarks(broker.updatesEndpoint, {kUnlimited, kDefault});
  expectMarks(broker.cacheEndpoint, {kUnlimited, kReplays});
}

TEST(BrokerSends, ToTheUpdatesSideFirst) {
  HandServedBroker at;
  const std::vector<int> both = {ZMQ_PUB, ZMQ_PUB, ZMQ_PUB, ZMQ_XPUB, ZMQ_XPUB, ZMQ_XPUB};
  for (const unsigned long long options : {0ULL, 1ULL}) {
    sentOn.clear();
    at.publish("t", "g", "1", options);
    EXPECT_EQ(sentOn, both);
    sentOn.clear();
    at.withdraw("t", "g", options);
    EXPECT_EQ(sentOn, both);
  }
}

// The thread that registers may be held up between its signal and what the signal is about.
TEST(DispatcherThatIsSignalled, SleepsUntilItHearsWhatFor) {
  RawBroker broker;
  MessageDispatcher dispatcher(broker.updatesEndpoint, broker.cacheEndpoint, 1);
  const std::set<int> before = threadNumbers();
  dispatcher.start();
  std::set<int> own;
  for (const int thread : threadNumbers()) {
    if (before.count(thread) == 0) own.insert(thread);
  }
  EXPECT_EQ(own.size(), 2U);
  bool held = false;
  afterSignal = [&] {
    held = true;
    for (const int thread : own) EXPECT_TRUE(waitUntilAsleep(thread));
  };
  dispatcher.registerSubscriber(
      std::make_shared<RecordingSubscriber>(SubscriptionMode::AllValues, "gone", ""));
  const auto subscriber =
      std::make_shared<RecordingSubscriber>(SubscriptionMode::AllValues, "t", "");
  dispatcher.registerSubscriber(subscriber);
  afterSignal = nullptr;
  EXPECT_TRUE(held);
  Frames message = broker.cache.receive();
  if (message == subscribed("gone:default")) message = broker.cache.receive();
  EXPECT_EQ(message == unsubscribed("gone:default") ? broker.cache.receive() : message,
            subscribed("t:default"));
  dispatcher.stop();
}

// Each time would be two system calls more for a value.
TEST(DispatcherInAStream, DoesNotAskTheSocketThatNobodySubscribesTo) {
  constexpr int kValues = 500;
  for (const SubscriptionMode mode : {SubscriptionMode::NewValues, SubscriptionMode::AllValues}) {
    RawBroker broker;
    RawPeer& side = mode == SubscriptionMode::NewValues ? broker.updates : broker.cache;
    MessageDispatcher dispatcher(broker.updatesEndpoint, broker.cacheEndpoint, 1);
    dispatcher.start();
    Gate allSent;
    std::atomic<int> values{0};
    const auto count = [&](const void*, std::size_t) {
      allSent.pass();
      ++values;
    };
    const auto subscriber = std::make_shared<CallingSubscriber>(mode, "t", count);
    dispatcher.registerSubscriber(subscriber);
    ASSERT_EQ(side.receive(), subscribed("t:default"));
    for (int i = 0; i < kValues; ++i) side.send(valueMessage("t:default", "1"));
    receivedNothing = 0;
    allSent.open();
    EXPECT_TRUE(eventually([&] { return values == kValues; }));
    EXPECT_LT(receivedNothing, kValues / 2);
    dispatcher.stop();
  }
}

// Nor keeps what came there for those who have gone, or the sender from sending more of it.
TEST(DispatcherInAStream, DropsWhatHasComeForThoseWhoHaveGone) {
  constexpr int kValues = 5000;
  static std::atomic<int> values;
  static std::atomic<int> valuesBefore;  // it was dropped
  values = 0;
  valuesBefore = -1;
  RawBroker broker;
  MessageDispatcher dispatcher(broker.updatesEndpoint, broker.cacheEndpoint, 1);
  dispatcher.start();
  Gate allSent;
  const auto count = [&](const void*, std::size_t) {
    ++values;
    allSent.pass();
  };
  const auto going = std::make_shared<RecordingSubscriber>(SubscriptionMode::NewValues, "t", "");
  const auto staying = std::make_shared<CallingSubscriber>(SubscriptionMode::AllValues, "t", count);
  dispatcher.registerSubscriber(going);
  dispatcher.registerSubscriber(staying);
  ASSERT_EQ(broker.updates.receive(), subscribed("t:default"));
  ASSERT_EQ(broker.cache.receive(), subscribed("t:default"));
  broker.cache.send(valueMessage("t:default", "1"));
  ASSERT_TRUE(eventually([] { return values == 1; }));
  // This one the dispatcher may have in hand, until the callback returns; the next one waits.
  broker.updates.send(valueMessage("t:default", "1"));
  zmq_msg_t tooLate;
  char bytes[1000] = {};
  const auto note = [](void*, void*) { valuesBefore = values.load(); };
  ASSERT_EQ(zmq_msg_init_data(&tooLate, bytes, sizeof bytes, note, nullptr), 0);
  ASSERT_GE(zmq_send(broker.updates.handle(), "t:default", 9, ZMQ_SNDMORE), 0);
  ASSERT_GE(zmq_msg_send(&tooLate, broker.updates.handle(), 0), 0);
  dispatcher.unregisterSubscriber(going);
  for (int i = 1; i < kValues; ++i) broker.cache.send(valueMessage("t:default", "1"));
  allSent.open();
  EXPECT_TRUE(eventually([] { return values == kValues; }));
  EXPECT_GE(valuesBefore, 0);
  EXPECT_LT(valuesBefore, kValues / 2);
  dispatcher.stop();
}

}  // namespace
}  // namespace tessel::test
