// What becomes of values that are under way when a dispatcher stops. In a program of its own, since
// it stands in for the system's function that waits for threads, to know how far the stop has come.

#include <gtest/gtest.h>
#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "pubsub/dispatcher_fixture.h"
#include "support/calling_allocator.h"
#include "support/no_hang.h"
#include "support/subscribers.h"
#include "support/threads.h"
#include "support/watchdog.h"
#include "support/watched_joins.h"

namespace tessel {
namespace {

using namespace test;

class DispatcherWithOneWorker : public DispatcherTest {
 protected:
  DispatcherWithOneWorker() : DispatcherTest(1) {}

  // Stops it on another thread; returns when the first `count` of its threads are waited for: its
  // own first, then, when they have been told that this is the end, the workers.
  std::unique_ptr<ScopedThread> stopUntilJoins(int count, bool clearSubscriptions = false) {
    const int before = joinsBegun;
    auto stopping = std::make_unique<ScopedThread>(
        [this, clearSubscriptions] { dispatcher.stop(clearSubscriptions); });
    EXPECT_TRUE(waitForJoins(before, count));
    return stopping;
  }
};

TEST_F(DispatcherWithOneWorker, DropsTheCallsThatAreQueuedWhenItStops) {
  const auto held = std::make_shared<HeldSubscriber>(SubscriptionMode::AllValues, "t", "");
  dispatcher.start();
  for (int i = 0; i < 10; ++i) subscribe(broker.cache, held, "t:default");
  broker.cache.send(valueMessage("t:default", "1"));
  ASSERT_TRUE(held->journal.waitFor(1));
  const auto stopping = stopUntilJoins(2);
  held->gate.open();
  stopping->join();
  EXPECT_EQ(held->journal.lines(), Lines{"value 1"});
  EXPECT_EQ(held.use_count(), 1);
}

// Of what has come to its sockets it drops the one value, if any, that is in hand: that waits for
// the callbacks of the one before.
TEST_F(DispatcherWithOneWorker, KeepsTheValuesOfBothSocketsOverAStop) {
  const auto fresh = std::make_shared<HeldSubscriber>(SubscriptionMode::NewValues, "t", "");
  const auto all = recorder(SubscriptionMode::AllValues, "t", "");
  const std::set<int> others = threadNumbers();
  start();
  std::set<int> threads = threadNumbers();
  for (const int other : others) threads.erase(other);
  subscribe(broker.updates, fresh, "t:default");
  subscribe(broker.cache, all, "t:default");
  broker.updates.send(valueMessage("t:default", "held"));
  ASSERT_TRUE(fresh->journal.waitFor(1));
  Lines sent;
  for (int i = 0; i < 5; ++i) {
    const std::string value = std::to_string(i);
    broker.updates.send(valueMessage("t:default", value));
    broker.cache.send(valueMessage("t:default", value));
    sent.push_back("value " + value);
  }
  for (const int thread : threads) waitUntilAsleep(thread);  // its own has one in hand by now
  const auto stopping = stopUntilJoins(1);
  fresh->gate.open();
  stopping->join();
  EXPECT_EQ(fresh->journal.size() + all->journal.size(), 1U);
  dispatcher.start();
  for (RawPeer* peer : {&broker.updates, &broker.cache}) {
    EXPECT_EQ(sortedFrames(*peer, 4),
              (Frames{unsubscribed("t:default").front(), unsubscribed(kMarker).front(),
                      subscribed("t:default").front(), subscribed(kMarker).front()}));
  }
  settle();
  Lines updates = fresh->journal.lines();
  updates.erase(updates.begin());  // the one that was held
  Lines cached = all->journal.lines();
  EXPECT_GE(updates.size() + cached.size(), 2 * sent.size() - 1);
  for (const Lines& values : {updates, cached}) {
    EXPECT_TRUE(std::equal(values.rbegin(), values.rend(), sent.rbegin())) << values.size();
  }
}

// A frame that knows when everybody has let go of it.
class WatchedFrame {
 public:
  explicit WatchedFrame(std::string bytes) : state_(std::make_shared<State>(std::move(bytes))) {}

  void send(RawPeer& socket) {
    std::string& bytes = state_->bytes;
    zmq_msg_t frame;
    ASSERT_EQ(zmq_msg_init_data(&frame, bytes.data(), bytes.size(), release,
                                new std::shared_ptr<State>(state_)),
              0);
    ASSERT_EQ(zmq_msg_send(&frame, socket.handle(), ZMQ_SNDMORE), static_cast<int>(bytes.size()));
  }
  bool released() const { return state_->released; }

 private:
  struct State {
    explicit State(std::string taken) : bytes(std::move(taken)) {}
    std::string bytes;
    std::atomic<bool> released{false};
  };
  static void release(void*, void* hint) {
    const std::unique_ptr<std::shared_ptr<State>> state(static_cast<std::shared_ptr<State>*>(hint));
    (*state)->released = true;
  }

  std::shared_ptr<State> state_;
};

// Sends a value and returns when the dispatcher has it in hand: ZeroMQ has let go of the key's
// frame by then. Returns the frame of the value.
WatchedFrame sendUntilRead(RawPeer& socket, const std::string& key, const std::string& value,
                           unsigned long long flags = kLiveFlag) {
  WatchedFrame keyFrame(key);
  WatchedFrame valueFrame(value);
  keyFrame.send(socket);
  valueFrame.send(socket);
  socket.send({word(flags)});
  EXPECT_TRUE(eventually([&] { return keyFrame.released(); }));
  return valueFrame;
}

class DispatcherThatIsBehind : public DispatcherWithOneWorker {
 protected:
  // Leaves its worker in a callback; its thread will wait for that with the next value in hand.
  void hold() {
    subscribe(broker.cache, held_, "held:default");
    broker.cache.send(valueMessage("held:default", "1"));
    ASSERT_TRUE(held_->journal.waitFor(1));
  }
  // From then on what is sent waits in the sockets. Returns the value that it has in hand.
  WatchedFrame getBehind() {
    hold();
    return sendUntilRead(broker.cache, "held:default", "2");
  }
  // Lets the callback return when nobody waits for that any more to go on with other values.
  void stop() {
    const auto stopping = stopUntilJoins(1);
    held_->gate.open();
    stopping->join();
  }
  // Returns when it has everything subscribed again: of each socket so many frames.
  void startAgain(std::size_t updates, std::size_t cache) {
    dispatcher.start();
    EXPECT_EQ(sortedFrames(broker.updates, updates).size(), updates);
    EXPECT_EQ(sortedFrames(broker.cache, cache).size(), cache);
  }

 private:
  std::shared_ptr<HeldSubscriber> held_ =
      std::make_shared<HeldSubscriber>(SubscriptionMode::AllValues, "held", "");
};

TEST_F(DispatcherThatIsBehind, AppliesWhatWasQueuedWhileStoppedBeforeTheValuesThatWaited) {
  const auto staying = recorder(SubscriptionMode::NewValues, "t", "");
  const auto leaving = recorder(SubscriptionMode::NewValues, "t", "");
  const auto joining = recorder(SubscriptionMode::NewValues, "t", "");
  start();
  subscribe(broker.updates, staying, "t:default");
  subscribe(broker.updates, leaving, "t:default");
  getBehind();
  for (const char* value : {"1", "2"}) broker.updates.send(valueMessage("t:default", value));
  stop();
  dispatcher.unregisterSubscriber(leaving);
  dispatcher.registerSubscriber(joining);
  startAgain(2 + 4, 2 + 2);
  settle();
  EXPECT_EQ(staying->journal.lines(), (Lines{"value 1", "value 2"}));
  EXPECT_EQ(leaving->journal.lines(), Lines{});
  EXPECT_EQ(joining->journal.lines(), (Lines{"value 1", "value 2"}));
}

TEST_F(DispatcherThatIsBehind, LetsGoOfTheValueThatItDropsWhenItStops) {
  start();
  const WatchedFrame inHand = getBehind();
  EXPECT_FALSE(inHand.released());
  stop();
  EXPECT_TRUE(inHand.released());
}

TEST_F(DispatcherThatIsBehind, TakesTheUpdatesSocketFirstInEachPass) {
  Journal journal;
  const auto noting = [&](SubscriptionMode mode, const std::string& name) {
    return std::make_shared<CallingSubscriber>(
        mode, "t", [&journal, name](const void*, std::size_t) { journal.add(name); });
  };
  const auto fresh = noting(SubscriptionMode::NewValues, "updates");
  const auto all = noting(SubscriptionMode::AllValues, "cache");
  start();
  subscribe(broker.updates, fresh, "t:default");
  subscribe(broker.cache, all, "t:default");
  getBehind();
  for (RawPeer* socket : {&broker.cache, &broker.updates}) {
    for (int i = 0; i < 2; ++i) socket->send(valueMessage("t:default", "1"));
  }
  stop();
  startAgain(2 + 2, 3 + 3);
  settle();
  EXPECT_EQ(journal.lines(), (Lines{"updates", "cache", "updates", "cache"}));
}

TEST_F(DispatcherThatIsBehind, DoesNotCountAReplayAsHadThatItDropsWhenItStops) {
  const auto all = recorder(SubscriptionMode::AllValues, "t", "");
  start();
  subscribe(broker.cache, all, "t:default");
  hold();
  sendUntilRead(broker.cache, "t:default", "1", kReplayFlag);
  stop();
  startAgain(1 + 1, 3 + 3);
  broker.cache.send(valueMessage("t:default", "2", kReplayFlag));
  settle();
  EXPECT_EQ(all->journal.lines(), Lines{"value 2"});
}

class DispatcherWithoutWorkers : public DispatcherTest {
 protected:
  DispatcherWithoutWorkers() : DispatcherTest(0) {}
};

TEST_F(DispatcherWithoutWorkers, KeepsWhoWaitsForAValueThatItDropsWhenItStops) {
  const auto first = recorder(SubscriptionMode::Once, "first", "");
  const auto second = recorder(SubscriptionMode::Once, "second", "");
  dispatcher.start();
  subscribe(broker.cache, first, "first:default");
  subscribe(broker.cache, second, "second:default");
  broker.cache.send(valueMessage("first:default", "1"));
  EXPECT_EQ(broker.cache.receive(), unsubscribed("first:default"));  // so it was dispatched
  sendUntilRead(broker.cache, "second:default", "2");
  withoutHanging("stopping without workers", [&] { dispatcher.stop(); });
  EXPECT_EQ(broker.cache.receive(), unsubscribed("second:default"));
  dispatcher.start();
  EXPECT_EQ(broker.cache.receive(), subscribed("second:default"));
  expectNothingMoreOnTheWire();
}

// What is freed with the last weak reference to a subscriber is foreign code, which must not meet
// the lock that a stop holds. Here the stop finds that reference itself.
class DispatcherThatStops : public DispatcherWithOneWorker {
 protected:
  std::shared_ptr<CallingSubscriber> subscriber(SubscriptionMode mode,
                                                CallingSubscriber::Call call) {
    return callingWhenFreed<CallingSubscriber>(stopIt_, mode, "t", std::move(call));
  }
  void stopWhenOneThatItCallsNoMoreHasGone(SubscriptionMode mode, RawPeer& socket) {
    const auto held = std::make_shared<HeldSubscriber>(mode, "t", "");
    auto going = subscriber(mode, [this](const void*, std::size_t) { journal.add("called"); });
    dispatcher.start();
    subscribe(socket, held, "t:default");
    subscribe(socket, going, "t:default");
    socket.send(valueMessage("t:default", "1"));
    ASSERT_TRUE(held->journal.waitFor(1));
    going.reset();
    const auto stopping = stopUntilJoins(2);
    EXPECT_EQ(journal.lines(), Lines{});  // a worker may still look at it
    held->gate.open();
    stopping->join();
    EXPECT_EQ(journal.lines(), Lines{"freed"});
  }

  Journal journal;
  Gate gate;
  const Watchdog watchdog{"stopping while a subscriber's memory is freed", kPatience};

 private:
  const std::function<void()> stopIt_ = [this] {
    dispatcher.stop();  // it has stopped
    journal.add("freed");
  };
};

TEST_F(DispatcherThatStops, MayBeStoppedByWhatIsFreedWithASubscriberThatItForgets) {
  auto going = subscriber(SubscriptionMode::AllValues, [this](const void*, std::size_t) {
    journal.add("called");
    gate.pass();
  });
  dispatcher.start();
  subscribe(broker.cache, going, "t:default");
  broker.cache.send(valueMessage("t:default", "1"));
  ASSERT_TRUE(journal.waitFor(1));
  const auto stopping = stopUntilJoins(2, true);  // by now it has unsubscribed those who are alive
  going.reset();
  gate.open();
  stopping->join();
  EXPECT_EQ(journal.lines(), (Lines{"called", "freed"}));
}

TEST_F(DispatcherThatStops, MayBeStoppedByWhatIsFreedWithASubscriberThatItCallsNoMore) {
  stopWhenOneThatItCallsNoMoreHasGone(SubscriptionMode::AllValues, broker.cache);
}

TEST_F(DispatcherThatStops, MayBeStoppedByWhatIsFreedWithOneOfNewValuesThatItCallsNoMore) {
  stopWhenOneThatItCallsNoMoreHasGone(SubscriptionMode::NewValues, broker.updates);
}

}  // namespace
}  // namespace tessel
