#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "pubsub/dispatcher_fixture.h"
#include "support/no_hang.h"
#include "support/subscribers.h"

namespace tessel {
namespace {

using namespace test;

class DispatcherRegistration : public DispatcherTest {};

TEST_F(DispatcherRegistration, SubscribesEachModeOnItsTransport) {
  const auto once = recorder(SubscriptionMode::Once, "once", "");
  const auto fresh = recorder(SubscriptionMode::NewValues, "new", "a");
  const auto all = recorder(SubscriptionMode::AllValues, "all", "b");
  const auto multi = std::make_shared<RecordingMultiSubscriber>("multi", "");
  start();
  subscribe(broker.cache, once, "once:default");
  subscribe(broker.updates, fresh, "new:a");
  subscribe(broker.cache, all, "all:b");
  subscribe(broker.updates, multi, "multi:");
  expectNothingMoreOnTheWire();
}

TEST_F(DispatcherRegistration, TakesModesWithoutANameForAllValues) {
  std::vector<std::shared_ptr<RecordingSubscriber>> subscribers;
  start();
  for (const int mode : {3, -1, 0x7FFFFFFF}) {
    const std::string topic = "t" + std::to_string(mode);
    const std::string key = topic + ":default";
    subscribers.push_back(recorder(static_cast<SubscriptionMode>(mode), topic, ""));
    subscribe(broker.cache, subscribers.back(), key);
    broker.cache.send(valueMessage(key, "1", kReplayFlag));
    broker.cache.send(valueMessage(key, "2", kReplayFlag));
    broker.cache.send(valueMessage(key, "3"));
    broker.cache.send(valueMessage(key, "4"));
    settle();
    EXPECT_EQ(subscribers.back()->journal.lines(), (Lines{"value 1", "value 3", "value 4"}));
    expectNothingMoreOnTheWire();
  }
}

TEST_F(DispatcherRegistration, OfTheSameSubscriberTwiceGivesTwoCallbacks) {
  const auto subscriber = recorder(SubscriptionMode::AllValues, "t", "");
  start();
  subscribe(broker.cache, subscriber, "t:default");
  subscribe(broker.cache, subscriber, "t:default");
  broker.cache.send(valueMessage("t:default", "1"));
  settle();
  EXPECT_EQ(subscriber->journal.lines(), (Lines{"value 1", "value 1"}));

  dispatcher.unregisterSubscriber(subscriber);
  expectNothingMoreOnTheWire();  // one entry still holds the key
  broker.cache.send(valueMessage("t:default", "2"));
  settle();
  EXPECT_EQ(subscriber->journal.lines(), (Lines{"value 1", "value 1", "value 2"}));

  dispatcher.unregisterSubscriber(subscriber);
  EXPECT_EQ(broker.cache.receive(), unsubscribed("t:default"));
  broker.cache.send(valueMessage("t:default", "3"));
  settle();
  EXPECT_EQ(subscriber->journal.size(), 3U);
}

TEST_F(DispatcherRegistration, OfTheSameMultiSubscriberTwiceGivesTwoCallbacks) {
  const auto multi = std::make_shared<RecordingMultiSubscriber>("t");
  start();
  subscribe(broker.updates, multi, "t");
  subscribe(broker.updates, multi, "t");
  broker.updates.send(valueMessage("t:a", "1"));
  settle();
  EXPECT_EQ(multi->journal.lines(), (Lines{"value t a 1", "value t a 1"}));
  dispatcher.unregisterSubscriber(multi);
  expectNothingMoreOnTheWire();
  broker.updates.send(valueMessage("t:a", "2"));
  settle();
  EXPECT_EQ(multi->journal.size(), 3U);
  dispatcher.unregisterSubscriber(multi);
  EXPECT_EQ(broker.updates.receive(), unsubscribed("t"));
}

TEST_F(DispatcherRegistration, IsTakenBackForTheObjectMeantOnly) {
  const auto one = recorder(SubscriptionMode::AllValues, "t", "");
  const auto other = recorder(SubscriptionMode::AllValues, "t", "");
  const auto newOnly = recorder(SubscriptionMode::NewValues, "t", "");
  start();
  subscribe(broker.cache, one, "t:default");
  subscribe(broker.cache, other, "t:default");
  subscribe(broker.updates, newOnly, "t:default");
  dispatcher.unregisterSubscriber(other);
  expectNothingMoreOnTheWire();
  broker.cache.send(valueMessage("t:default", "1"));
  broker.updates.send(valueMessage("t:default", "2"));
  settle();
  EXPECT_EQ(one->journal.lines(), Lines{"value 1"});
  EXPECT_EQ(other->journal.lines(), Lines{});
  EXPECT_EQ(newOnly->journal.lines(), Lines{"value 2"});
  dispatcher.unregisterSubscriber(newOnly);
  EXPECT_EQ(broker.updates.receive(), unsubscribed("t:default"));
  expectNothingMoreOnTheWire();
}

// Its prefix is the key of the other half, and both are on the updates socket.
class Both : public RecordingSubscriber, public RecordingMultiSubscriber {
 public:
  Both()
      : RecordingSubscriber(SubscriptionMode::NewValues, "t", "u"),
        RecordingMultiSubscriber("t:u") {}
};

TEST_F(DispatcherRegistration, IsTakenBackForTheKindOfSubscriberMeantOnly) {
  const auto both = std::make_shared<Both>();
  const std::shared_ptr<Subscriber> single = both;
  const std::shared_ptr<MultiSubscriber> multi = both;
  start();
  subscribe(broker.updates, single, "t:u");
  subscribe(broker.updates, multi, "t:u");
  dispatcher.unregisterSubscriber(multi);
  expectNothingMoreOnTheWire();
  broker.updates.send(valueMessage("t:u", "1"));
  settle();
  EXPECT_EQ(both->RecordingSubscriber::journal.lines(), Lines{"value 1"});
  EXPECT_EQ(both->RecordingMultiSubscriber::journal.lines(), Lines{});
  dispatcher.unregisterSubscriber(multi);
  expectNothingMoreOnTheWire();
  dispatcher.unregisterSubscriber(single);
  EXPECT_EQ(broker.updates.receive(), unsubscribed("t:u"));
}

TEST_F(DispatcherRegistration, ThatIsNotThereIsTakenBackWithoutEffect) {
  const auto subscriber = recorder(SubscriptionMode::AllValues, "t", "");
  start();
  dispatcher.unregisterSubscriber(recorder(SubscriptionMode::AllValues, "t", ""));
  dispatcher.unregisterSubscriber(recorder(SubscriptionMode::NewValues, "t", ""));
  dispatcher.unregisterSubscriber(std::make_shared<RecordingMultiSubscriber>("t"));
  expectNothingMoreOnTheWire();
  dispatcher.unregisterSubscriber(subscriber);
  expectNothingMoreOnTheWire();
  subscribe(broker.cache, subscriber, "t:default");
  broker.cache.send(valueMessage("t:default", "1"));
  settle();
  EXPECT_EQ(subscriber->journal.lines(), Lines{"value 1"});
}

TEST_F(DispatcherRegistration, CanBeMadeAgainAfterItWasTakenBack) {
  const auto subscriber = recorder(SubscriptionMode::AllValues, "t", "");
  start();
  for (int round = 0; round < 3; ++round) {
    subscribe(broker.cache, subscriber, "t:default");
    broker.cache.send(valueMessage("t:default", std::to_string(round), kReplayFlag));
    settle();
    dispatcher.unregisterSubscriber(subscriber);
    EXPECT_EQ(broker.cache.receive(), unsubscribed("t:default"));
  }
  EXPECT_EQ(subscriber->journal.lines(), (Lines{"value 0", "value 1", "value 2"}));
}

TEST_F(DispatcherRegistration, OfNullIsRefused) {
  const std::shared_ptr<Subscriber> subscriber;
  const std::shared_ptr<MultiSubscriber> multi;
  const auto expectRefused = [](const auto& call) {
    try {
      call();
      ADD_FAILURE() << "accepted";
    } catch (const std::invalid_argument& error) {
      EXPECT_STREQ(error.what(), "Subscriber must not be null!");
    }
  };
  expectRefused([&] { dispatcher.registerSubscriber(subscriber); });
  expectRefused([&] { dispatcher.registerSubscriber(multi); });
  expectRefused([&] { dispatcher.unregisterSubscriber(subscriber); });
  expectRefused([&] { dispatcher.unregisterSubscriber(multi); });
  start();
  expectNothingMoreOnTheWire();
}

TEST_F(DispatcherRegistration, ReachesTheBrokerInTheOrderMade) {
  start();
  std::vector<std::shared_ptr<RecordingSubscriber>> subscribers;
  for (int i = 0; i < 50; ++i) {
    subscribers.push_back(recorder(SubscriptionMode::AllValues, std::to_string(i), ""));
    dispatcher.registerSubscriber(subscribers.back());
  }
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(broker.cache.receive(), subscribed(std::to_string(i) + ":default"));
  }
}

TEST_F(DispatcherRegistration, WhileStoppedTakesEffectAtTheNextStart) {
  const auto all = recorder(SubscriptionMode::AllValues, "all", "");
  const auto fresh = recorder(SubscriptionMode::NewValues, "new", "");
  const auto multi = std::make_shared<RecordingMultiSubscriber>("m");
  dispatcher.registerSubscriber(all);
  dispatcher.registerSubscriber(fresh);
  dispatcher.registerSubscriber(multi);
  EXPECT_FALSE(broker.updates.readable());
  EXPECT_FALSE(broker.cache.readable());
  dispatcher.start();  // and nothing else: what was queued has to wake the thread by itself
  EXPECT_EQ(broker.cache.receive(), subscribed("all:default"));
  EXPECT_EQ(broker.updates.receive(), subscribed("new:default"));
  EXPECT_EQ(broker.updates.receive(), subscribed("m"));
  broker.cache.send(valueMessage("all:default", "1"));
  EXPECT_TRUE(all->journal.waitFor(1));
}

TEST_F(DispatcherRegistration, WhileStoppedIsTakenBackAtTheNextStart) {
  const auto subscriber = recorder(SubscriptionMode::AllValues, "t", "");
  start();
  subscribe(broker.cache, subscriber, "t:default");
  dispatcher.stop();
  EXPECT_EQ(sortedFrames(broker.cache, 2).size(), 2U);
  EXPECT_EQ(broker.updates.receive(), unsubscribed(kMarker));
  dispatcher.unregisterSubscriber(subscriber);
  dispatcher.start();
  EXPECT_EQ(sortedFrames(broker.cache, 2),
            (Frames{subscribed("t:default").front(), subscribed(kMarker).front()}));
  EXPECT_EQ(broker.updates.receive(), subscribed(kMarker));
  EXPECT_EQ(broker.cache.receive(), unsubscribed("t:default"));
  broker.cache.send(valueMessage("t:default", "1"));
  settle();
  EXPECT_EQ(subscriber->journal.lines(), Lines{});
}

TEST_F(DispatcherRegistration, IsMadeBeforeAnythingIsTakenBackOrDropped) {
  const auto subscriber = recorder(SubscriptionMode::AllValues, "t", "");
  auto goingCached = recorder(SubscriptionMode::AllValues, "gone", "");
  auto goingNew = recorder(SubscriptionMode::NewValues, "gone", "");
  const auto newcomer = recorder(SubscriptionMode::NewValues, "t", "");
  start();
  subscribe(broker.cache, goingCached, "gone:default");
  subscribe(broker.updates, goingNew, "gone:default");
  dispatcher.stop();
  EXPECT_EQ(sortedFrames(broker.cache, 2).size(), 2U);
  EXPECT_EQ(sortedFrames(broker.updates, 2).size(), 2U);
  // Taken back before it is made, and still nothing stays.
  dispatcher.unregisterSubscriber(subscriber);
  dispatcher.registerSubscriber(subscriber);
  dispatcher.unregisterSubscriber(newcomer);
  dispatcher.registerSubscriber(newcomer);
  dispatcher.start();
  EXPECT_EQ(sortedFrames(broker.cache, 2).size(), 2U);
  EXPECT_EQ(sortedFrames(broker.updates, 2).size(), 2U);
  EXPECT_EQ(broker.cache.receive(), subscribed("t:default"));
  EXPECT_EQ(broker.cache.receive(), unsubscribed("t:default"));
  EXPECT_EQ(broker.updates.receive(), subscribed("t:default"));
  EXPECT_EQ(broker.updates.receive(), unsubscribed("t:default"));
  expectNothingMoreOnTheWire();
}

// One wake-up does three things, in this order: the broker sees it on either socket.
TEST_F(DispatcherRegistration, OfOneWakeUpComesFirstThenRemovalsThenThoseWhoHaveGone) {
  for (const SubscriptionMode mode : {SubscriptionMode::AllValues, SubscriptionMode::NewValues}) {
    RawBroker peer;
    MessageDispatcher other(peer.updatesEndpoint, peer.cacheEndpoint, 1);
    RawPeer& socket = mode == SubscriptionMode::AllValues ? peer.cache : peer.updates;
    // A callback that waits holds the dispatcher's thread at the next message, and what is queued
    // meanwhile is seen in one wake-up.
    const auto waiting = std::make_shared<HeldSubscriber>(mode, "waiting", "");
    const auto removed = recorder(mode, "removed", "");
    const auto added = recorder(mode, "added", "");
    auto gone = recorder(mode, "gone", "");
    other.start();
    for (const auto& each :
         {std::static_pointer_cast<RecordingSubscriber>(waiting), removed, gone}) {
      other.registerSubscriber(each);
      socket.receive();
    }
    socket.send(valueMessage("waiting:default", "1"));
    socket.send(valueMessage("waiting:default", "2"));
    EXPECT_TRUE(waiting->journal.waitFor(1));
    gone.reset();
    other.unregisterSubscriber(removed);
    other.registerSubscriber(added);
    waiting->gate.open();
    std::vector<Frames> frames = {socket.receive(), socket.receive()};
    if (frames[0] != subscribed("added:default")) {
      // The thread looked between two calls, so the removal came in a wake-up of its own.
      EXPECT_EQ(std::count(frames.begin(), frames.end(), unsubscribed("removed:default")), 1);
      EXPECT_EQ(std::count(frames.begin(), frames.end(), unsubscribed("gone:default")), 1);
      EXPECT_EQ(socket.receive(), subscribed("added:default"));
    } else {
      EXPECT_EQ(frames[1], unsubscribed("removed:default"));
      EXPECT_EQ(socket.receive(), unsubscribed("gone:default"));
    }
  }
}

TEST_F(DispatcherRegistration, OfASubscriberThatHasGoneMeanwhileIsSkipped) {
  for (const SubscriptionMode mode :
       {SubscriptionMode::AllValues, SubscriptionMode::NewValues, SubscriptionMode::Once}) {
    dispatcher.registerSubscriber(recorder(mode, "gone", ""));
  }
  dispatcher.registerSubscriber(std::make_shared<RecordingMultiSubscriber>("gone"));
  dispatcher.start();
  expectNothingMoreOnTheWire();
}

TEST_F(DispatcherRegistration, DoesNotKeepASubscriberAlive) {
  auto subscriber = recorder(SubscriptionMode::AllValues, "t", "");
  const std::weak_ptr<RecordingSubscriber> watch = subscriber;
  dispatcher.registerSubscriber(subscriber);
  EXPECT_EQ(watch.use_count(), 1);
  dispatcher.start();
  EXPECT_EQ(broker.cache.receive(), subscribed("t:default"));
  EXPECT_EQ(watch.use_count(), 1);
  subscriber.reset();
  EXPECT_TRUE(watch.expired());
}

TEST_F(DispatcherRegistration, OfASubscriberThatHasGoneIsTakenBackAtTheNextWakeUp) {
  auto all = recorder(SubscriptionMode::AllValues, "all", "");
  auto once = recorder(SubscriptionMode::Once, "once", "");
  auto fresh = recorder(SubscriptionMode::NewValues, "new", "");
  auto multi = std::make_shared<RecordingMultiSubscriber>("multi");
  start();
  subscribe(broker.cache, all, "all:default");
  subscribe(broker.cache, once, "once:default");
  subscribe(broker.updates, fresh, "new:default");
  subscribe(broker.updates, multi, "multi");
  settle();  // the wake-up that made the last one is over
  all.reset();
  once.reset();
  fresh.reset();
  multi.reset();
  settle();  // values alone do not make it look
  EXPECT_FALSE(broker.cache.readable());
  EXPECT_FALSE(broker.updates.readable());
  const auto another = recorder(SubscriptionMode::NewValues, "another", "");
  subscribe(broker.updates, another, "another:default");
  EXPECT_EQ(sortedFrames(broker.cache, 2),
            (Frames{unsubscribed("all:default").front(), unsubscribed("once:default").front()}));
  EXPECT_EQ(sortedFrames(broker.updates, 2),
            (Frames{unsubscribed("multi").front(), unsubscribed("new:default").front()}));
  expectNothingMoreOnTheWire();
}

TEST_F(DispatcherRegistration, OfASubscriberThatHasGoneWhileStoppedIsNotRestored) {
  auto gone = recorder(SubscriptionMode::AllValues, "gone", "");
  auto goneNew = recorder(SubscriptionMode::NewValues, "gone", "");
  start();
  subscribe(broker.cache, gone, "gone:default");
  subscribe(broker.updates, goneNew, "gone:default");
  dispatcher.stop();
  EXPECT_EQ(sortedFrames(broker.cache, 2).size(), 2U);
  EXPECT_EQ(sortedFrames(broker.updates, 2).size(), 2U);
  gone.reset();
  goneNew.reset();
  dispatcher.start();
  EXPECT_EQ(broker.cache.receive(), subscribed(kMarker));
  EXPECT_EQ(broker.updates.receive(), subscribed(kMarker));
  expectNothingMoreOnTheWire();
}

TEST_F(DispatcherRegistration, FromManyThreadsAllArrive) {
  start();
  constexpr int kThreads = 8;
  constexpr int kEach = 50;
  std::vector<std::vector<std::shared_ptr<RecordingSubscriber>>> subscribers(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        const std::string topic = std::to_string(t) + "-" + std::to_string(i);
        const auto mode = i % 2 == 0 ? SubscriptionMode::AllValues : SubscriptionMode::NewValues;
        subscribers[static_cast<std::size_t>(t)].push_back(recorder(mode, topic, ""));
        dispatcher.registerSubscriber(subscribers[static_cast<std::size_t>(t)].back());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const auto expectEach = [](const std::vector<std::string>& frames) {
    EXPECT_EQ(frames.size(), std::size_t{kThreads * kEach / 2});
    EXPECT_EQ(std::adjacent_find(frames.begin(), frames.end()), frames.end());
  };
  expectEach(sortedFrames(broker.cache, kThreads * kEach / 2));
  expectEach(sortedFrames(broker.updates, kThreads * kEach / 2));
  expectNothingMoreOnTheWire();
}

// The pair behind the wake-up holds 2000 signals: with one for each of these the caller would wait
// for ever, and everybody else with it.
TEST_F(DispatcherRegistration, WhileStoppedNeverBlocks) {
  constexpr int kMany = 2500;
  const auto subscriber = recorder(SubscriptionMode::AllValues, "t", "");
  withoutHanging("registering while stopped", [&] {
    for (int i = 0; i < kMany; ++i) dispatcher.registerSubscriber(subscriber);
    for (int i = 0; i < kMany - 1; ++i) dispatcher.unregisterSubscriber(subscriber);
  });
  dispatcher.start();
  EXPECT_EQ(sortedFrames(broker.cache, kMany), Frames(kMany, subscribed("t:default").front()));
  addMarkers();
  broker.cache.send(valueMessage("t:default", "1"));
  settle();
  EXPECT_EQ(subscriber->journal.lines(), Lines{"value 1"});  // one is left
}

// Of two that share a key one goes while the dispatcher is stopped: what is left is one
// subscription of ZeroMQ's, whichever of them was made first.
TEST_F(DispatcherRegistration, OfAKeyOutlivesAnotherThatGoesWhileStopped) {
  for (const SubscriptionMode mode : {SubscriptionMode::AllValues, SubscriptionMode::NewValues}) {
    RawPeer& socket = mode == SubscriptionMode::NewValues ? broker.updates : broker.cache;
    for (const bool livingFirst : {true, false}) {
      const auto living = recorder(mode, "t", "");
      auto going = recorder(mode, "t", "");
      dispatcher.start();
      subscribe(socket, livingFirst ? living : going, "t:default");
      subscribe(socket, livingFirst ? going : living, "t:default");
      dispatcher.stop();
      EXPECT_EQ(socket.receive(), unsubscribed("t:default"));
      going.reset();
      dispatcher.start();
      EXPECT_EQ(socket.receive(), subscribed("t:default"));
      socket.send(valueMessage("t:default", "1"));
      EXPECT_EQ(living->journal.lines(1), Lines{"value 1"});
      dispatcher.unregisterSubscriber(living);
      EXPECT_EQ(socket.receive(), unsubscribed("t:default"));
      expectNothingMoreOnTheWire();
      dispatcher.stop(true);
      broker.updates.receive();  // of the fence
      broker.cache.receive();
    }
  }
}

// Such a pointer counts no owners, so nobody could tell when what it points to goes.
TEST_F(DispatcherRegistration, OfAPointerWithoutAnOwnerIsSkipped) {
  RecordingSubscriber all(SubscriptionMode::AllValues, "all", "");
  RecordingSubscriber fresh(SubscriptionMode::NewValues, "new", "");
  RecordingMultiSubscriber multi("multi");
  const auto unowned = [](auto& object) {
    return std::shared_ptr<std::remove_reference_t<decltype(object)>>(std::shared_ptr<void>(),
                                                                      &object);
  };
  dispatcher.start();
  dispatcher.registerSubscriber(unowned(all));
  dispatcher.registerSubscriber(unowned(fresh));
  dispatcher.registerSubscriber(unowned(multi));
  dispatcher.unregisterSubscriber(unowned(all));
  expectNothingMoreOnTheWire();
}

}  // namespace
}  // namespace tessel
