#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <zmq.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include "pubsub/dispatcher_fixture.h"
#include "support/calling_allocator.h"
#include "support/no_hang.h"
#include "support/sleeping_thread.h"
#include "support/subscribers.h"
#include "support/system_errors.h"
#include "support/threads.h"

namespace tessel {
namespace {

using namespace test;

class DispatcherLife : public DispatcherTest {
 protected:
  // After a stop: the markers and `more` others of each socket were unsubscribed.
  void expectUnsubscribed(std::size_t updates, std::size_t cache) {
    for (const std::string& frame : sortedFrames(broker.updates, updates + 1)) {
      EXPECT_EQ(frame.front(), '\0');
    }
    for (const std::string& frame : sortedFrames(broker.cache, cache + 1)) {
      EXPECT_EQ(frame.front(), '\0');
    }
  }
  // The subscriber goes, and the dispatcher's thread, woken, finds that out.
  void leave(std::shared_ptr<Subscriber> subscriber) {
    subscribe(broker.cache, subscriber, "freed:default");
    settle();
    subscriber.reset();
    dispatcher.registerSubscriber(another_);
  }

 private:
  const std::shared_ptr<Subscriber> another_ = recorder(SubscriptionMode::AllValues, "another", "");
};

// Says when it may go on, too.
class WaitingSubscriber : public HeldSubscriber {
 public:
  using HeldSubscriber::HeldSubscriber;

 protected:
  void onValue(const void* data, std::size_t size) override {
    HeldSubscriber::onValue(data, size);
    journal.add("returns");
  }
};

// ---- construction ----

TEST_F(DispatcherLife, ConnectsWhenItIsMade) {
  const auto watched = [](RawPeer& peer, const std::string& name) {
    EXPECT_EQ(zmq_socket_monitor(peer.handle(), name.c_str(), ZMQ_EVENT_ACCEPTED), 0);
    auto monitor = std::make_unique<RawPeer>(ZMQ_PAIR);
    monitor->connect(name);
    return monitor;
  };
  RawBroker peer(freeTcp(), freeTcp());
  const auto updates = watched(peer.updates, uniqueInproc());
  const auto cache = watched(peer.cache, uniqueInproc());
  const MessageDispatcher other(peer.updatesEndpoint, peer.cacheEndpoint);
  EXPECT_EQ(updates->receive().size(), 2U);
  EXPECT_EQ(cache->receive().size(), 2U);
  zmq_socket_monitor(peer.updates.handle(), nullptr, 0);
  zmq_socket_monitor(peer.cache.handle(), nullptr, 0);
}

TEST_F(DispatcherLife, TakesItsFirstEndpointForUpdatesAndItsSecondForTheCache) {
  start();
  const auto fresh = recorder(SubscriptionMode::NewValues, "t", "");
  const auto all = recorder(SubscriptionMode::AllValues, "t", "");
  subscribe(broker.updates, fresh, "t:default");
  subscribe(broker.cache, all, "t:default");
}

TEST_F(DispatcherLife, NeedsNobodyAtTheOtherEnd) {
  const std::string updatesEndpoint = freeTcp();
  const std::string cacheEndpoint = freeTcp();
  MessageDispatcher other(updatesEndpoint, cacheEndpoint);
  const auto all = recorder(SubscriptionMode::AllValues, "t", "");
  other.registerSubscriber(all);
  other.start();
  RawBroker late(updatesEndpoint, cacheEndpoint);
  EXPECT_EQ(late.cache.receive(), subscribed("t:default"));
  late.cache.send(valueMessage("t:default", "1"));
  EXPECT_TRUE(all->journal.waitFor(1));
}

std::string connectError(const std::string& endpoint) {
  RawPeer peer(ZMQ_SUB);
  EXPECT_NE(zmq_connect(peer.handle(), endpoint.c_str()), 0) << endpoint;
  return zmq_strerror(zmq_errno());
}

std::ptrdiff_t openFiles() {
  const std::filesystem::directory_iterator files("/proc/self/fd");
  return std::distance(begin(files), end(files));
}

TEST_F(DispatcherLife, RefusesEndpointsThatCannotBeConnected) {
  for (const char* bad : {"nonsense", "", "tcp://", "tcp://127.0.0.1", "tcp://127.0.0.1:port",
                          "unheard://of", "inproc://"}) {
    const std::string text = connectError(bad);
    const std::string good = uniqueInproc();
    for (const auto& [updates, cache] :
         {std::pair{std::string(bad), good}, std::pair{good, std::string(bad)}}) {
      try {
        const MessageDispatcher other(updates, cache, 1);
        ADD_FAILURE() << "accepted " << bad;
      } catch (const std::runtime_error& error) {
        EXPECT_EQ(error.what(), text) << bad;
      }
    }
  }
}

TEST_F(DispatcherLife, LeavesNothingBehindWhenItCannotConnect) {
  const std::ptrdiff_t before = openFiles();
  for (int i = 0; i < 20; ++i) {
    EXPECT_THROW(MessageDispatcher(broker.updatesEndpoint, "nonsense"), std::runtime_error);
  }
  // ZeroMQ closes in the background, and an in-process peer has to take notice.
  EXPECT_TRUE(eventually([&] { return !broker.updates.readable() && openFiles() <= before; }));
}

TEST_F(DispatcherLife, HasAsManyThreadsAsAskedForWhileItRuns) {
  const int before = threadCount();
  for (const int workers : {0, 1, 7}) {
    MessageDispatcher other(uniqueInproc(), uniqueInproc(), static_cast<std::size_t>(workers));
    EXPECT_EQ(threadCount(), before);
    other.start();
    EXPECT_EQ(threadCount(), before + 1 + workers);
    other.stop();
    EXPECT_TRUE(eventually([&] { return threadCount() == before; }));
  }
}

// ---- start and stop ----

TEST_F(DispatcherLife, StartsOnce) {
  start();
  const int threads = threadCount();
  dispatcher.start();
  dispatcher.start();
  EXPECT_EQ(threadCount(), threads);
  expectNothingMoreOnTheWire();  // in particular no second subscription of the markers
  dispatcher.stop();             // once is enough
  EXPECT_TRUE(eventually([&] { return threadCount() == threads - 5; }));
}

TEST_F(DispatcherLife, MayBeStoppedOrDestroyedWithoutAStart) {
  dispatcher.stop();
  dispatcher.stop(true);
  start();
  settle();
  dispatcher.stop();
  dispatcher.stop();
  const MessageDispatcher neverStarted(broker.updatesEndpoint, broker.cacheEndpoint);
}

TEST_F(DispatcherLife, ResumesWithTheSameSubscribers) {
  const auto all = recorder(SubscriptionMode::AllValues, "all", "");
  const auto once = recorder(SubscriptionMode::Once, "once", "");
  const auto fresh = recorder(SubscriptionMode::NewValues, "new", "");
  const auto multi = std::make_shared<RecordingMultiSubscriber>("m");
  start();
  subscribe(broker.cache, all, "all:default");
  subscribe(broker.cache, all, "all:default");
  subscribe(broker.cache, once, "once:default");
  subscribe(broker.updates, fresh, "new:default");
  subscribe(broker.updates, multi, "m");
  for (int round = 0; round < 3; ++round) {
    dispatcher.stop();
    // ZeroMQ passes on the last of equal ones.
    EXPECT_EQ(sortedFrames(broker.cache, 3),
              (Frames{unsubscribed("all:default").front(), unsubscribed("once:default").front(),
                      unsubscribed(kMarker).front()}));
    EXPECT_EQ(sortedFrames(broker.updates, 3),
              (Frames{unsubscribed("m").front(), unsubscribed("new:default").front(),
                      unsubscribed(kMarker).front()}));
    dispatcher.start();
    EXPECT_EQ(sortedFrames(broker.cache, 4),
              (Frames{subscribed("all:default").front(), subscribed("all:default").front(),
                      subscribed("once:default").front(), subscribed(kMarker).front()}));
    EXPECT_EQ(sortedFrames(broker.updates, 3),
              (Frames{subscribed("m").front(), subscribed("new:default").front(),
                      subscribed(kMarker).front()}));
    expectNothingMoreOnTheWire();
    for (const auto& fence : fences) dispatcher.unregisterSubscriber(fence);
    EXPECT_EQ(broker.cache.receive().size(), 1U);
    EXPECT_EQ(broker.updates.receive().size(), 1U);
    fences.clear();
    broker.cache.send(valueMessage("all:default", "1"));
    broker.updates.send(valueMessage("new:default", "2"));
    broker.updates.send(valueMessage("m:x", "3"));
    settle();
    EXPECT_EQ(all->journal.lines(), (Lines{"value 1", "value 1"}));
    EXPECT_EQ(fresh->journal.lines(), Lines{"value 2"});
    EXPECT_EQ(multi->journal.lines(), Lines{"value m x 3"});
    all->journal.clear();
    fresh->journal.clear();
    multi->journal.clear();
  }
  broker.cache.send(valueMessage("once:default", "4"));
  settle();
  EXPECT_EQ(once->journal.lines(), Lines{"value 4"});
}

TEST_F(DispatcherLife, ForgetsItsSubscribersWhenToldTo) {
  const auto all = recorder(SubscriptionMode::AllValues, "all", "");
  const auto multi = std::make_shared<RecordingMultiSubscriber>("");
  start();
  subscribe(broker.cache, all, "all:default");
  subscribe(broker.updates, multi, "");
  dispatcher.stop(true);
  expectUnsubscribed(1, 1);
  dispatcher.start();
  addMarkers();  // the first thing that the broker hears
  broker.cache.send(valueMessage("all:default", "1"));
  broker.updates.send(valueMessage("all:default", "1"));
  settle();
  EXPECT_EQ(all->journal.lines(), Lines{});
  EXPECT_EQ(multi->journal.lines(), Lines{});
  subscribe(broker.cache, all, "all:default");
  broker.cache.send(valueMessage("all:default", "2"));
  settle();
  EXPECT_EQ(all->journal.lines(), Lines{"value 2"});
}

TEST_F(DispatcherLife, IgnoresTheFlagOfAStopWhileStopped) {
  const auto all = recorder(SubscriptionMode::AllValues, "all", "");
  start();
  subscribe(broker.cache, all, "all:default");
  dispatcher.stop(false);
  dispatcher.stop(true);
  expectUnsubscribed(0, 1);
  dispatcher.start();
  EXPECT_EQ(sortedFrames(broker.cache, 2),
            (Frames{subscribed("all:default").front(), subscribed(kMarker).front()}));
  EXPECT_EQ(broker.updates.receive(), subscribed(kMarker));
  broker.cache.send(valueMessage("all:default", "1"));
  settle();
  EXPECT_EQ(all->journal.lines(), Lines{"value 1"});
}

TEST_F(DispatcherLife, KeepsWhatWasQueuedWhileStopped) {
  const auto staying = recorder(SubscriptionMode::AllValues, "staying", "");
  const auto queued = recorder(SubscriptionMode::AllValues, "queued", "");
  start();
  subscribe(broker.cache, staying, "staying:default");
  dispatcher.stop(true);
  dispatcher.registerSubscriber(queued);
  dispatcher.stop(true);
  dispatcher.stop(false);
  expectUnsubscribed(0, 1);
  dispatcher.start();
  EXPECT_EQ(broker.cache.receive(), subscribed("queued:default"));
}

// The dispatcher's thread waits for a callback and sees what is queued only after the next start.
TEST_F(DispatcherLife, KeepsWhatWasQueuedWhenItIsToldToForget) {
  const auto waiting = std::make_shared<WaitingSubscriber>(SubscriptionMode::AllValues, "w", "");
  const auto queued = recorder(SubscriptionMode::NewValues, "queued", "");
  start();
  subscribe(broker.cache, waiting, "w:default");
  broker.cache.send(valueMessage("w:default", "1"));
  broker.cache.send(valueMessage("w:default", "2"));
  ASSERT_TRUE(waiting->journal.waitFor(1));
  const auto stopping = runUntilAsleep([&] { dispatcher.stop(true); });
  dispatcher.registerSubscriber(queued);
  waiting->gate.open();
  stopping->join();
  expectUnsubscribed(0, 1);
  dispatcher.start();
  EXPECT_EQ(broker.updates.receive(), subscribed("queued:default"));
}

TEST_F(DispatcherLife, WaitsForARunningCallbackWhenItStops) {
  const auto waiting = std::make_shared<WaitingSubscriber>(SubscriptionMode::AllValues, "w", "");
  start();
  subscribe(broker.cache, waiting, "w:default");
  broker.cache.send(valueMessage("w:default", "1"));
  ASSERT_TRUE(waiting->journal.waitFor(1));
  const auto stopping = runUntilAsleep([&] {
    dispatcher.stop();
    waiting->journal.add("stopped");
  });
  waiting->gate.open();
  stopping->join();
  EXPECT_EQ(waiting->journal.lines(), (Lines{"value 1", "returns", "stopped"}));
  expectUnsubscribed(0, 1);
  dispatcher.start();
  EXPECT_EQ(sortedFrames(broker.cache, 2).size(), 2U);
  EXPECT_EQ(broker.updates.receive(), subscribed(kMarker));
  broker.cache.send(valueMessage("w:default", "2"));
  settle();
  EXPECT_EQ(waiting->journal.lines().back(), "returns");
  EXPECT_EQ(waiting->journal.size(), 5U);
}

TEST_F(DispatcherLife, WaitsForARunningCallbackWhenItIsDestroyed) {
  const auto waiting = std::make_shared<WaitingSubscriber>(SubscriptionMode::AllValues, "w", "");
  auto other = std::make_unique<MessageDispatcher>(broker.updatesEndpoint, broker.cacheEndpoint, 1);
  other->start();
  other->registerSubscriber(waiting);
  EXPECT_EQ(broker.cache.receive(), subscribed("w:default"));
  broker.cache.send(valueMessage("w:default", "1"));
  ASSERT_TRUE(waiting->journal.waitFor(1));
  const auto destroying = runUntilAsleep([&] {
    other.reset();
    waiting->journal.add("destroyed");
  });
  waiting->gate.open();
  destroying->join();
  EXPECT_EQ(waiting->journal.lines(), (Lines{"value 1", "returns", "destroyed"}));
  EXPECT_EQ(broker.cache.receive(), unsubscribed("w:default"));
}

TEST_F(DispatcherLife, StartFromACallbackDoesNothing) {
  Journal journal;
  const auto starter = std::make_shared<CallingSubscriber>([&] {
    dispatcher.start();
    journal.add("started");
  });
  start();
  subscribe(broker.cache, starter, "t:default");
  const int threads = threadCount();
  broker.cache.send(valueMessage("t:default", "1"));
  ASSERT_TRUE(journal.waitFor(1));
  EXPECT_EQ(threadCount(), threads);
  expectNothingMoreOnTheWire();
}

TEST_F(DispatcherLife, StartFromACallbackDoesNotWaitForAnotherThreadThatStops) {
  std::atomic<int> stopper{0};
  Journal journal;
  const auto starter = std::make_shared<CallingSubscriber>([&] {
    journal.add("called");
    EXPECT_TRUE(eventually([&] { return stopper != 0; }));
    waitUntilAsleep(stopper);
    dispatcher.start();
    journal.add("started");
  });
  start();
  subscribe(broker.cache, starter, "t:default");
  broker.cache.send(valueMessage("t:default", "1"));
  ASSERT_TRUE(journal.waitFor(1));
  withoutHanging("stopping while a callback starts", [&] {
    stopper = thisThread();
    dispatcher.stop();
  });
  EXPECT_EQ(journal.size(), 2U);
  expectUnsubscribed(0, 1);  // stopped it is
  dispatcher.start();
  EXPECT_EQ(sortedFrames(broker.cache, 2),
            (Frames{subscribed("t:default").front(), subscribed(kMarker).front()}));
}

TEST_F(DispatcherLife, RefusesToBeStoppedByACallback) {
  std::error_code error;
  const auto stopper = std::make_shared<CallingSubscriber>(
      [&] { error = systemErrorOf([&] { dispatcher.stop(); }); });
  start();
  subscribe(broker.cache, stopper, "t:default");
  broker.cache.send(valueMessage("t:default", "1"));
  settle();
  EXPECT_EQ(error, std::errc::resource_deadlock_would_occur);
  expectNothingMoreOnTheWire();  // it goes on
}

TEST_F(DispatcherLife, RefusesToBeStoppedByACallbackWhileAnotherThreadStopsOrDestroysIt) {
  for (const bool destroys : {false, true}) {
    auto other =
        std::make_unique<MessageDispatcher>(broker.updatesEndpoint, broker.cacheEndpoint, 1);
    MessageDispatcher& same = *other;
    std::atomic<int> ender{0};
    std::error_code error;
    Journal journal;
    const auto stopper = std::make_shared<CallingSubscriber>([&] {
      journal.add("called");
      EXPECT_TRUE(eventually([&] { return ender != 0; }));
      waitUntilAsleep(ender);
      error = systemErrorOf([&] { same.stop(); });
    });
    other->start();
    other->registerSubscriber(stopper);
    EXPECT_EQ(broker.cache.receive(), subscribed("t:default"));
    broker.cache.send(valueMessage("t:default", "1"));
    ASSERT_TRUE(journal.waitFor(1));
    withoutHanging("ending while a callback stops", [&] {
      ender = thisThread();
      if (destroys) {
        other.reset();
      } else {
        other->stop();
      }
    });
    EXPECT_EQ(error, std::errc::resource_deadlock_would_occur);
    EXPECT_EQ(broker.cache.receive(), unsubscribed("t:default"));
  }
}

// A worker of one is any other thread to another.
TEST_F(DispatcherLife, StartFromACallbackOfAnotherDispatcherIsAStart) {
  MessageDispatcher other(broker.updatesEndpoint, broker.cacheEndpoint, 1);
  const auto fresh = recorder(SubscriptionMode::NewValues, "other", "");
  other.registerSubscriber(fresh);
  const auto starter = std::make_shared<CallingSubscriber>([&] { other.start(); });
  start();
  subscribe(broker.cache, starter, "t:default");
  broker.cache.send(valueMessage("t:default", "1"));
  EXPECT_EQ(broker.updates.receive(), subscribed("other:default"));
}

TEST_F(DispatcherLife, StartsAndStopsFromManyThreads) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 25; ++i) {
        dispatcher.start();
        dispatcher.stop();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  start();
  settle();
}

// ---- no workers ----

class DispatcherWithoutWorkers : public DispatcherTest {
 protected:
  DispatcherWithoutWorkers() : DispatcherTest(0) {}

  // Sends values until the dispatcher's thread waits for a callback that never runs: it then takes
  // no registrations any more.
  bool isStuck() {
    std::vector<std::shared_ptr<RecordingSubscriber>> probes;
    for (int i = 0; i < 20; ++i) {
      broker.cache.send(valueMessage("t:default", "1"));
      const std::string topic = "probe" + std::to_string(i);
      probes.push_back(recorder(SubscriptionMode::NewValues, topic, ""));
      dispatcher.registerSubscriber(probes.back());
      if (!broker.updates.tryReceive(std::chrono::milliseconds(500))) return true;
    }
    return false;
  }
};

TEST_F(DispatcherWithoutWorkers, CallsNobodyWaitsAtTheSecondValueAndStillStops) {
  const auto subscriber = recorder(SubscriptionMode::AllValues, "t", "");
  dispatcher.start();
  subscribe(broker.cache, subscriber, "t:default");
  EXPECT_TRUE(isStuck());
  withoutHanging("stopping without workers", [&] { dispatcher.stop(); });
  EXPECT_EQ(broker.cache.receive(), unsubscribed("t:default"));
  EXPECT_EQ(subscriber->journal.lines(), Lines{});

  // And once more, now by the destructor.
  dispatcher.start();
  EXPECT_EQ(broker.cache.receive(), subscribed("t:default"));
  while (broker.updates.tryReceive(std::chrono::milliseconds(100))) {
  }
  EXPECT_TRUE(isStuck());
  EXPECT_EQ(subscriber->journal.lines(), Lines{});
}

TEST_F(DispatcherWithoutWorkers, TakesTheFirstValueAndGoesOnWithRegistrations) {
  const auto subscriber = recorder(SubscriptionMode::Once, "t", "");
  dispatcher.start();
  subscribe(broker.cache, subscriber, "t:default");
  broker.cache.send(valueMessage("t:default", "1"));
  EXPECT_EQ(broker.cache.receive(), unsubscribed("t:default"));  // dispatched, if never delivered
  const auto another = recorder(SubscriptionMode::AllValues, "u", "");
  subscribe(broker.cache, another, "u:default");
  dispatcher.stop();
  EXPECT_EQ(subscriber->journal.lines(), Lines{});
}

TEST_F(DispatcherWithoutWorkers, IsNotHeldUpByAValueForThoseWhoHaveGone) {
  auto gone = recorder(SubscriptionMode::AllValues, "t", "");
  const auto once = recorder(SubscriptionMode::Once, "u", "");
  // Has gone before it can be subscribed. The dispatcher lets go of it behind its look for those
  // who have gone, and looks no more before it is woken again.
  Journal journal;
  const std::function<void()> note = [&] { journal.add("looked"); };
  auto never = callingWhenFreed<Subscriber>(note, SubscriptionMode::AllValues, "never", "");
  dispatcher.registerSubscriber(gone);
  dispatcher.registerSubscriber(once);
  dispatcher.registerSubscriber(never);
  never.reset();
  dispatcher.start();
  EXPECT_EQ(broker.cache.receive(), subscribed("t:default"));
  EXPECT_EQ(broker.cache.receive(), subscribed("u:default"));
  ASSERT_TRUE(journal.waitFor(1));
  gone.reset();
  broker.cache.send(valueMessage("t:default", "1"));
  broker.cache.send(valueMessage("t:default", "2"));
  broker.cache.send(valueMessage("u:default", "3"));
  EXPECT_EQ(broker.cache.receive(), unsubscribed("u:default"));  // so it was dispatched
}

// ---- on the dispatcher's own thread ----

// The dispatcher's thread lets go of the last weak reference, so it runs foreign code here.
std::shared_ptr<Subscriber> subscriberCallingWhenFreed(const std::function<void()>& call) {
  return callingWhenFreed<Subscriber>(call, SubscriptionMode::AllValues, "freed", "");
}

TEST_F(DispatcherLife, RefusesToBeStoppedByItsOwnThread) {
  std::thread::id thread;
  std::error_code error;
  Journal journal;
  const std::function<void()> stopIt = [&] {
    thread = std::this_thread::get_id();
    error = systemErrorOf([&] { dispatcher.stop(); });
    journal.add("refused");
  };
  start();
  leave(subscriberCallingWhenFreed(stopIt));
  ASSERT_TRUE(journal.waitFor(1));
  EXPECT_NE(thread, std::this_thread::get_id());
  EXPECT_EQ(error, std::errc::resource_deadlock_would_occur);

  // The thread ends all the same, and the stop from outside completes it.
  EXPECT_EQ(broker.updates.receive(), unsubscribed(kMarker));
  withoutHanging("stopping after a refused stop", [&] { dispatcher.stop(); });
  EXPECT_EQ(broker.cache.receive(), subscribed("another:default"));
  EXPECT_EQ(sortedFrames(broker.cache, 3).size(), 3U);
  dispatcher.start();
  EXPECT_EQ(sortedFrames(broker.cache, 2),
            (Frames{subscribed("another:default").front(), subscribed(kMarker).front()}));
  EXPECT_EQ(broker.updates.receive(), subscribed(kMarker));
  expectNothingMoreOnTheWire();
  settle();
}

// Of those who wait for each other, only one has a worker when the thread ends without a sleep.
TEST_F(DispatcherLife, LetsCallbacksMeetAlsoWhenItsOwnThreadEndsRightBehindTheirValue) {
  Journal journal;
  std::atomic<int> here{0};
  const auto meet = [&](const void*, std::size_t) {
    ++here;
    if (eventually([&] { return here == 2; })) journal.add("met");
  };
  const auto one = std::make_shared<CallingSubscriber>(SubscriptionMode::NewValues, "t", meet);
  const auto other = std::make_shared<CallingSubscriber>(SubscriptionMode::NewValues, "t", meet);
  Gate sent;
  const std::function<void()> stopIt = [&] {
    journal.add("held");
    sent.pass();
    EXPECT_TRUE(wouldWaitForItself([&] { dispatcher.stop(); }));
  };
  start();
  subscribe(broker.updates, one, "t:default");
  subscribe(broker.updates, other, "t:default");
  leave(subscriberCallingWhenFreed(stopIt));
  ASSERT_TRUE(journal.waitFor(1));
  broker.updates.send(valueMessage("t:default", "1"));
  sent.open();
  EXPECT_TRUE(journal.waitFor(3));
  EXPECT_EQ(journal.lines(), (Lines{"held", "met", "met"}));
  dispatcher.stop();
}

TEST_F(DispatcherLife, RefusesToBeStoppedByItsOwnThreadWhileAnotherStopsIt) {
  std::error_code error;
  std::atomic<int> stopper{0};
  Journal journal;
  const std::function<void()> stopIt = [&] {
    journal.add("called");
    EXPECT_TRUE(eventually([&] { return stopper != 0; }));
    waitUntilAsleep(stopper);
    error = systemErrorOf([&] { dispatcher.stop(); });
  };
  start();
  leave(subscriberCallingWhenFreed(stopIt));
  ASSERT_TRUE(journal.waitFor(1));
  withoutHanging("stopping while the dispatcher's thread stops, too", [&] {
    stopper = thisThread();
    dispatcher.stop();
  });
  EXPECT_EQ(error, std::errc::resource_deadlock_would_occur);
  EXPECT_EQ(broker.updates.receive(), unsubscribed(kMarker));
  dispatcher.start();
  EXPECT_EQ(broker.updates.receive(), subscribed(kMarker));
}

TEST_F(DispatcherLife, StartByItsOwnThreadDoesNotWaitForAnotherThreadThatStops) {
  std::atomic<int> stopper{0};
  Journal journal;
  const std::function<void()> startIt = [&] {
    journal.add("called");
    EXPECT_TRUE(eventually([&] { return stopper != 0; }));
    waitUntilAsleep(stopper);
    dispatcher.start();
    journal.add("started");
  };
  start();
  leave(subscriberCallingWhenFreed(startIt));
  ASSERT_TRUE(journal.waitFor(1));
  withoutHanging("stopping while the dispatcher's thread starts", [&] {
    stopper = thisThread();
    dispatcher.stop();
  });
  EXPECT_EQ(journal.size(), 2U);
}

// ---- threads that cannot be had, signals ----

// While it lives only `threads` more threads can be started, because their stacks are large and
// address space is short.
class FewThreads {
 public:
  explicit FewThreads(int threads) {
    EXPECT_EQ(getrlimit(RLIMIT_AS, &limit_), 0);
    EXPECT_EQ(pthread_getattr_default_np(&attributes_), 0);
    pthread_attr_t large;
    pthread_attr_init(&large);
    EXPECT_EQ(pthread_attr_setstacksize(&large, kStack), 0);
    EXPECT_EQ(pthread_setattr_default_np(&large), 0);
    pthread_attr_destroy(&large);
    std::size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit little = limit_;
    little.rlim_cur = pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) +
                      static_cast<std::size_t>(threads) * kStack + kStack / 2;
    EXPECT_EQ(setrlimit(RLIMIT_AS, &little), 0);
  }
  ~FewThreads() {
    setrlimit(RLIMIT_AS, &limit_);
    pthread_setattr_default_np(&attributes_);
    pthread_attr_destroy(&attributes_);
  }
  FewThreads(const FewThreads&) = delete;
  FewThreads& operator=(const FewThreads&) = delete;

 private:
  static constexpr std::size_t kStack = std::size_t{1} << 30;
  rlimit limit_{};
  pthread_attr_t attributes_{};
};

TEST_F(DispatcherLife, IsAsItWasWhenThereAreNoThreadsToBeHad) {
  const auto subscriber = recorder(SubscriptionMode::AllValues, "t", "");
  dispatcher.registerSubscriber(subscriber);
  const int before = threadCount();
  for (int threads = 0; threads < 5; ++threads) {  // it needs one more in each case
    const FewThreads few(threads);
    EXPECT_THROW(dispatcher.start(), std::system_error) << threads;
    EXPECT_TRUE(eventually([&] { return threadCount() == before; })) << threadCount();
    dispatcher.stop(true);  // does nothing, for it does not run
  }
  dispatcher.start();
  EXPECT_EQ(broker.cache.receive(), subscribed("t:default"));
  addMarkers();
  broker.cache.send(valueMessage("t:default", "1"));
  settle();
  EXPECT_EQ(subscriber->journal.lines(), Lines{"value 1"});
}

TEST_F(DispatcherLife, GoesOnWhenSignalsInterruptIt) {
  struct sigaction action = {};
  action.sa_handler = [](int) {};  // without SA_RESTART
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
  const auto fresh = recorder(SubscriptionMode::NewValues, "t", "");
  const auto all = recorder(SubscriptionMode::AllValues, "t", "");
  const std::set<int> others = threadNumbers();
  start();
  std::set<int> threads = threadNumbers();
  for (const int other : others) threads.erase(other);
  std::atomic<bool> done{false};
  ScopedThread signalling([&] {
    while (!done) {
      for (const int thread : threads) syscall(SYS_tgkill, getpid(), thread, SIGUSR1);
    }
  });
  subscribe(broker.updates, fresh, "t:default");
  subscribe(broker.cache, all, "t:default");
  Lines expected;
  for (int i = 0; i < 1000; ++i) {
    broker.updates.send(valueMessage("t:default", std::to_string(i)));
    broker.cache.send(valueMessage("t:default", std::to_string(i)));
    expected.push_back("value " + std::to_string(i));
    if (i % 100 == 99) {
      settle();
      expectNothingMoreOnTheWire();
    }
  }
  done = true;
  signalling.join();
  EXPECT_EQ(fresh->journal.lines(), expected);
  EXPECT_EQ(all->journal.lines(), expected);
}

// ---- what ends the process ----

class DispatcherDeathTest : public ::testing::Test {
 protected:
  DispatcherDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  // In the process that is to die: delivers a value, or a deletion, to a subscriber.
  template <typename Call>
  static void deliver(unsigned long long flags, const Call& call) {
    RawBroker broker;
    auto dispatcher =
        std::make_unique<MessageDispatcher>(broker.updatesEndpoint, broker.cacheEndpoint, 2);
    const auto subscriber = std::make_shared<CallingSubscriber>([&] { call(dispatcher); });
    dispatcher->start();
    dispatcher->registerSubscriber(subscriber);
    broker.cache.receive();
    broker.cache.send(valueMessage("t:default", "1", flags));
    eventually([] { return false; });  // it is over long before
  }
  using Owner = std::unique_ptr<MessageDispatcher>;
};

TEST_F(DispatcherDeathTest, AnExceptionThatLeavesACallbackEndsTheProcess) {
  for (const unsigned long long flags : {kLiveFlag, kDeletedFlag}) {
    EXPECT_EXIT(deliver(flags, [](Owner&) { throw std::runtime_error("left a callback"); }),
                ::testing::KilledBySignal(SIGABRT), "left a callback");
  }
}

TEST_F(DispatcherDeathTest, AStopFromACallbackEndsTheProcess) {
  EXPECT_EXIT(deliver(kLiveFlag, [](Owner& dispatcher) { dispatcher->stop(); }),
              ::testing::KilledBySignal(SIGABRT), "terminate called");
}

TEST_F(DispatcherDeathTest, DestructionFromACallbackEndsTheProcess) {
  EXPECT_EXIT(deliver(kLiveFlag, [](Owner& dispatcher) { dispatcher.reset(); }),
              ::testing::KilledBySignal(SIGABRT), "terminate called");
}

TEST_F(DispatcherDeathTest, DestructionOnTheDispatcherThreadEndsTheProcess) {
  const auto destroyIt = [] {
    RawBroker broker;
    Owner dispatcher =
        std::make_unique<MessageDispatcher>(broker.updatesEndpoint, broker.cacheEndpoint);
    const std::function<void()> destroy = [&] { dispatcher.reset(); };
    auto subscriber = subscriberCallingWhenFreed(destroy);
    dispatcher->start();
    dispatcher->registerSubscriber(subscriber);
    broker.cache.receive();
    MessageDispatcher& same = *dispatcher;
    subscriber.reset();
    eventually([&] {  // wakes it again and again, until it finds the one that has gone
      same.registerSubscriber(recorder(SubscriptionMode::AllValues, "t", ""));
      return false;
    });
  };
  EXPECT_EXIT(destroyIt(), ::testing::KilledBySignal(SIGABRT), "terminate called");
}

}  // namespace
}  // namespace tessel
