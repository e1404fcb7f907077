#include <functional>
#include <thread>

#include "life_fixture.h"
#include "support/calling_allocator.h"
#include "support/system_errors.h"

namespace tessel::test {
namespace {

using Offered = std::set<std::string>;

TEST(RpcBrokerLife, StartsOnceAndStopsOnce) {
  const Watchdog watchdog("starting and stopping twice");
  const auto dispatcher = std::make_shared<KeepingDispatcher>();
  RpcBroker broker(true, {}, dispatcher);
  const int before = threadCount();
  EXPECT_EQ(dispatcher->starts, 0);
  broker.start();
  broker.start();
  EXPECT_EQ(dispatcher->starts, 1);
  EXPECT_EQ(dispatcher->stops, 0);
  EXPECT_EQ(threadCount(), before + 1);
  broker.stop();
  broker.stop();
  EXPECT_EQ(dispatcher->stops, 1);
  broker.start();
  EXPECT_EQ(dispatcher->starts, 2);
  broker.stop();
  EXPECT_EQ(dispatcher->stops, 2);
}

TEST(RpcBrokerLife, StopsFromManyThreadsStopOnce) {
  const Watchdog watchdog("stopping from many threads");
  const auto dispatcher = std::make_shared<KeepingDispatcher>();
  RpcBroker broker(true, {}, dispatcher);
  for (int round = 0; round < 50; ++round) {
    broker.start();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) threads.emplace_back([&] { broker.stop(); });
    for (std::thread& thread : threads) thread.join();
    ASSERT_EQ(dispatcher->starts, round + 1);
    ASSERT_EQ(dispatcher->stops, round + 1);
  }
}

// A wake-up that a stop leaves behind would fill up what holds them: about two thousand.
TEST(RpcBrokerLife, StartsAndStopsThousandsOfTimes) {
  const Watchdog watchdog("starting and stopping thousands of times");
  RpcBroker broker(true, {}, std::make_shared<KeepingDispatcher>());
  for (int round = 0; round < 2500; ++round) {
    broker.start();
    broker.stop();
  }
}

// A service whose end needs the broker: it hangs if a lock is held while it is destroyed.
class BusyToTheEnd : public Service {
 public:
  BusyToTheEnd(const std::shared_ptr<RpcBroker>& broker, std::atomic<int>& destroyed)
      : Service("busy", "i"),
        broker_(broker),
        client_(broker, milliseconds(0)),
        count_(destroyed) {}
  ~BusyToTheEnd() override {
    const auto broker = broker_.lock();
    const auto other = makeEcho("other", std::to_string(count_));
    broker->registerService(other);
    outcome(client_, "other", std::to_string(count_));
    broker->unregisterService(other);
    broker->attach(observer_);
    broker->detach(observer_);
    if (startsAndStops) {
      broker->start();
      broker->stop();
    }
    ++count_;
  }
  void callMethod(const std::string&, const void*, std::size_t, std::unique_ptr<std::uint8_t[]>&,
                  std::size_t&) override {}
  bool startsAndStops = false;

 private:
  const std::weak_ptr<RpcBroker> broker_;
  RpcClient client_;
  const std::shared_ptr<RpcBrokerObserver> observer_ = std::make_shared<QuietObserver>();
  std::atomic<int>& count_;
};

TEST(RpcBrokerLife, AServiceReleasedByStopMayUseTheBrokerInItsDestructor) {
  const Watchdog watchdog("stop with a busy service");
  for (const bool master : {true, false}) {
    const RawMaster raw;
    const auto broker = master ? makeMaster({}) : makeSlave(raw.endpoint);
    std::atomic<int> destroyed{0};
    auto service = std::make_shared<BusyToTheEnd>(broker, destroyed);
    service->startsAndStops = true;
    broker->registerService(std::move(service));
    broker->start();
    broker->stop(true, false);
    EXPECT_EQ(destroyed, 1);
  }
}

TEST(RpcBrokerLife, AServiceReleasedByUnregisterMayUseTheBrokerInItsDestructor) {
  const Watchdog watchdog("unregistering a busy service");
  for (const bool master : {true, false}) {
    const RawMaster raw;
    const auto broker = master ? makeMaster({}) : makeSlave(raw.endpoint);
    broker->start();
    std::atomic<int> destroyed{0};
    broker->registerService(std::make_shared<BusyToTheEnd>(broker, destroyed));
    broker->unregisterService(makeEcho("busy", "i"));
    EXPECT_EQ(destroyed, 1);
  }
}

// An observer whose end needs the broker: it hangs if a lock is held while it is destroyed.
class ObserverBusyToTheEnd : public QuietObserver {
 public:
  ObserverBusyToTheEnd(RpcBroker& broker, std::atomic<int>& destroyed)
      : broker_(broker), count_(destroyed) {}
  ~ObserverBusyToTheEnd() override {
    const auto other = makeEcho("other", std::to_string(count_));
    broker_.registerService(other);
    broker_.unregisterService(other);
    broker_.stop();
    broker_.start();
    ++count_;
  }

 private:
  RpcBroker& broker_;
  std::atomic<int>& count_;
};

// Lets the last owner of another one go while both are told.
class ReleasingObserver : public QuietObserver {
 public:
  void onServiceRegistered(const std::string&, const std::string&, bool, const Identity&) override {
    released.reset();
  }
  void onServiceUnregistered(const std::string&, const std::string&, bool,
                             const Identity&) override {
    released.reset();
  }
  std::shared_ptr<RpcBrokerObserver> released;
};

TEST(RpcBrokerLife, AnObserverReleasedWhileItIsToldMayUseTheBrokerInItsDestructor) {
  const Watchdog watchdog("releasing a busy observer");
  for (const bool master : {true, false}) {
    const RawMaster raw;
    const auto broker = master ? makeMaster({}) : makeSlave(raw.endpoint);
    const auto service = makeEcho("s", "i");
    const auto releasing = std::make_shared<ReleasingObserver>();
    std::atomic<int> destroyed{0};
    const auto attachBusy = [&] {
      releasing->released = std::make_shared<ObserverBusyToTheEnd>(*broker, destroyed);
      broker->attach(releasing->released);
      broker->detach(releasing);  // so that it comes behind
      broker->attach(releasing);
    };
    attachBusy();
    broker->registerService(service);
    EXPECT_EQ(destroyed, 1);
    attachBusy();
    broker->unregisterService(service);
    EXPECT_EQ(destroyed, 2);
  }
}

// Stops the broker with the first request that it gets.
class StoppingDispatcher : public KeepingDispatcher {
 public:
  void submit(std::shared_ptr<RpcRequest> request) override {
    thread = thisThread();
    const bool first = size() == 0;
    KeepingDispatcher::submit(std::move(request));
    if (!first) return;
    if (wouldWaitForItself([&] { broker->stop(); })) ++refusals;
  }
  RpcBroker* broker = nullptr;  // set before it starts
  std::atomic<int> refusals{0};
  std::atomic<int> thread{0};  // the broker's
};

TEST(RpcBrokerLife, NothingThatWaitsIsServedOnceItStops) {
  const Watchdog watchdog("stop with a request waiting");
  const std::string endpoint = uniqueInproc();
  const auto dispatcher = std::make_shared<StoppingDispatcher>();
  RpcBroker broker(true, {endpoint}, dispatcher);
  dispatcher->broker = &broker;
  broker.registerService(makeEcho("s", "i"));
  RawPeer client(ZMQ_DEALER);
  client.connect(endpoint);
  client.send(request("s", "i", "m", "1"));
  client.send(request("s", "i", "m", "2"));
  broker.start();
  ASSERT_TRUE(eventually([&] { return dispatcher->refusals == 1; }));
  broker.stop();
  EXPECT_EQ(dispatcher->size(), 1U);
  broker.start();
  EXPECT_TRUE(eventually([&] { return dispatcher->size() == 2; }));
}

/// Whatever has happened before: all threads but this one are the library's, ZeroMQ's and a
/// watchdog. One that was joined may be among them for a moment.
void expectAllOthersSleep() {
  for (const int thread : threadNumbers()) {
    EXPECT_TRUE(thread == thisThread() ||
                waitUntilAsleepOr(thread, [&] { return hasEnded(thread); }));
  }
}

TEST(RpcBrokerLife, SleepsWhileNothingHappens) {
  const Watchdog watchdog("sleeping");
  const std::string endpoint = uniqueInproc();
  const auto master = makeMaster({endpoint});
  const auto slave = makeSlave(endpoint);
  master->registerService(makeEcho("near", "i"));
  slave->registerService(makeEcho("far", "i"));
  RpcClient client(endpoint, kLong);
  for (int round = 0; round < 2; ++round) {
    master->start();
    slave->start();
    EXPECT_EQ(call(client, "near", "i"), "near/i/m/");
    EXPECT_TRUE(eventually([&] { return outcome(client, "far", "i") == "far/i/m/"; }));
    expectAllOthersSleep();
    slave->stop();
    master->stop();
  }
}

// A stop whose thread has already ended leaves its wake-up to the next start.
TEST(RpcBrokerLife, SleepsWithAWakeUpLeftBehind) {
  const Watchdog watchdog("sleeping after a late stop");
  for (const bool master : {true, false}) {
    RawMaster raw;
    const std::string endpoint = master ? uniqueInproc() : raw.endpoint;
    const auto dispatcher = std::make_shared<StoppingDispatcher>();
    RpcBroker broker(master, {endpoint}, dispatcher);
    dispatcher->broker = &broker;
    broker.registerService(makeEcho("s", "i"));
    broker.start();
    RawPeer client(ZMQ_DEALER);
    if (master) client.connect(endpoint);
    Frames asked = request("s", "i");
    if (!master) asked.insert(asked.begin(), {raw.next().identity, "client"});
    RawPeer& peer = master ? client : raw.router;
    peer.send(asked);
    ASSERT_TRUE(eventually([&] { return dispatcher->refusals == 1; }));
    ASSERT_TRUE(eventually([&] { return hasEnded(dispatcher->thread); }));
    broker.stop();
    broker.start();
    peer.send(asked);
    EXPECT_TRUE(eventually([&] { return dispatcher->size() == 2; }));
    expectAllOthersSleep();
  }
}

// Runs at its stop what it was given.
class LateDispatcher : public KeepingDispatcher {
 public:
  void stop() override {
    for (const auto& request : takeAll()) request->execute();
    KeepingDispatcher::stop();
  }
};

class ReplyCounter : public QuietObserver {
 public:
  void onReply(const std::string&, const std::string&, const std::string&, int, const void*,
               std::size_t) override {
    ++replies;
  }
  std::atomic<int> replies{0};
};

TEST(RpcBrokerLife, WhatADispatcherRunsAtItsStopFindsItsServiceAndItsObservers) {
  const Watchdog watchdog("requests run by the stop");
  const std::string endpoint = uniqueInproc();
  const auto dispatcher = std::make_shared<LateDispatcher>();
  RpcBroker broker(true, {endpoint}, dispatcher);
  const auto observer = std::make_shared<ReplyCounter>();
  broker.registerService(makeEcho("s", "i"));
  broker.attach(observer);
  broker.start();
  RawPeer client(ZMQ_DEALER);
  client.connect(endpoint);
  client.send(request("s", "i", "m", "late"));
  ASSERT_TRUE(eventually([&] { return dispatcher->size() == 1; }));
  broker.stop(true, true);
  EXPECT_EQ(observer->replies, 1);
  broker.start();
  EXPECT_EQ(client.receive(), result("s/i/m/late"));
}

// Calls stop() on the broker's thread when somebody asks for a service that nobody has.
class StoppingObserver : public QuietObserver {
 public:
  explicit StoppingObserver(RpcBroker& broker) : broker_(broker) {}
  void onReply(const std::string&, const std::string&, const std::string&, int status, const void*,
               std::size_t) override {
    if (status != 2) return;
    thread = thisThread();
    inside.open();
    if (meanwhile) meanwhile();
    if (wouldWaitForItself([&] { broker_.stop(true, true); })) ++refusals;
  }
  std::function<void()> meanwhile;
  Gate inside;
  std::atomic<int> refusals{0};
  std::atomic<int> thread{0};

 private:
  RpcBroker& broker_;
};

TEST(RpcBrokerLife, StopOnTheBrokersOwnThreadEndsItsLoopAndIsCompletedFromOutside) {
  const Watchdog watchdog("stop by an observer");
  for (const bool master : {true, false}) {
    const RawMaster raw;
    const auto dispatcher = std::make_shared<KeepingDispatcher>();
    const auto broker = std::make_shared<RpcBroker>(
        master, master ? std::vector<std::string>() : std::vector<std::string>{raw.endpoint},
        dispatcher);
    auto& router = const_cast<RawMaster&>(raw);
    const auto observer = std::make_shared<StoppingObserver>(*broker);
    broker->registerService(makeEcho("s", "i"));
    broker->attach(observer);
    RpcClient client(broker, kLong);
    for (int round = 1; round <= 3; ++round) {
      broker->start();
      EXPECT_EQ(call(client, "s", "i"), "s/i/m/");
      if (master) {
        EXPECT_EQ(outcome(client, "none", "i"), notFound("none", "i"));  // answered all the same
      } else {
        const auto offer = router.next();
        EXPECT_EQ(offer.service, "s");
        Frames asked = request("none", "i");
        asked.insert(asked.begin(), {offer.identity, "client"});
        router.router.send(asked);
        EXPECT_EQ(router.router.receive().at(1), "client");  // answered all the same
        EXPECT_TRUE(router.readTo(false, "s", "i"));         // and takes its leave by itself
      }
      ASSERT_TRUE(eventually([&] { return hasEnded(observer->thread); }));
      if (master) {  // serves no call of the process either
        RpcClient hasty(broker, milliseconds(0));
        EXPECT_EQ(outcome(hasty, "s", "i"), "timeout");
      }
      EXPECT_EQ(observer->refusals, round);
      EXPECT_EQ(dispatcher->stops, round - 1);
      broker->start();  // not before that stop is complete
      EXPECT_EQ(dispatcher->starts, round);
      broker->stop();
      EXPECT_EQ(dispatcher->stops, round);
    }
  }
}

TEST(RpcBrokerLife, StopOnTheBrokersOwnThreadDoesNotWaitForAStopByAnotherThread) {
  const Watchdog watchdog("stop by an observer during a stop");
  const auto broker = makeMaster({});
  for (int round = 0; round < 5; ++round) {
    const auto observer = std::make_shared<StoppingObserver>(*broker);
    std::atomic<int> stopper{0};
    observer->meanwhile = [&] {
      eventually([&] { return stopper != 0; });
      waitUntilAsleep(stopper);  // in the join
    };
    broker->attach(observer);
    broker->start();
    std::thread outside([&] {
      observer->inside.pass();
      stopper = thisThread();
      broker->stop();
    });
    RpcClient client(broker, milliseconds(5000));
    EXPECT_EQ(outcome(client, "none", "i"), notFound("none", "i"));
    outside.join();
    EXPECT_EQ(observer->refusals, 1);
  }
  broker->registerService(makeEcho("s", "i"));
  broker->start();
  RpcClient client(broker, kLong);
  EXPECT_EQ(call(client, "s", "i"), "s/i/m/");
  broker->stop();
}

TEST(RpcBrokerLife, DestroyingARunningBrokerStopsIt) {
  const Watchdog watchdog("destroying a running broker");
  RawMaster raw;
  const int before = threadCount();
  const auto dispatcher = std::make_shared<KeepingDispatcher>();
  {
    RpcBroker slave(false, {raw.endpoint}, dispatcher);
    slave.registerService(makeEcho("s", "1"));
    slave.start();
    slave.registerService(makeEcho("s", "2"));
    EXPECT_EQ(threadCount(), before + 1);
  }
  EXPECT_TRUE(eventually([&] { return threadCount() == before; }));
  EXPECT_EQ(dispatcher->stops, 1);
  EXPECT_TRUE(raw.readTo(true, "s", "2"));
  EXPECT_TRUE(raw.readTo(false, "s", "2"));
  EXPECT_EQ(raw.offered, Offered());
}

TEST(RpcBrokerLife, RequestsQueuedAtStopAreNeverAnswered) {
  const Watchdog watchdog("stop with queued requests");
  const std::string endpoint = uniqueInproc();
  const auto broker = makeMaster({endpoint}, 1);
  Gate gate;
  Gate inside;
  std::atomic<int> ran{0};
  broker->registerService(makeService("slow", "i", [&](const auto&, const std::string& data) {
    ++ran;
    inside.open();
    gate.pass();
    return data;
  }));
  broker->registerService(makeEcho("s", "i"));
  broker->start();
  RawPeer client(ZMQ_DEALER);
  client.connect(endpoint);
  for (int i = 0; i < 10; ++i) client.send(request("slow", "i", "m", std::to_string(i)));
  client.send(request("none", "i"));  // answered by the broker: it has read all that came before
  inside.pass();
  EXPECT_EQ(client.receive().back(), "service not found: none - i");
  const auto stopping = runUntilAsleep([&] { broker->stop(); });
  gate.open();
  stopping->join();
  EXPECT_EQ(ran, 1);
  broker->start();
  client.send(request("s", "i", "m", "marker"));
  Frames reply = client.receive();
  if (reply.back() == "0") reply = client.receive();  // the one that ran may have made it
  EXPECT_EQ(reply.back(), "s/i/m/marker");
  EXPECT_EQ(ran, 1);
}

TEST(RpcBrokerLife, CallersOfRequestsDroppedAtStopTimeOut) {
  const Watchdog watchdog("callers of dropped requests");
  const std::string endpoint = uniqueInproc();
  const auto dispatcher = std::make_shared<KeepingDispatcher>();
  RpcBroker broker(true, {endpoint}, dispatcher);
  broker.registerService(makeEcho("s", "i"));
  broker.start();
  std::thread caller([&] {
    RpcClient client(endpoint, milliseconds(300));
    EXPECT_EQ(outcome(client, "s", "i"), "timeout");
  });
  ASSERT_TRUE(eventually([&] { return dispatcher->size() == 1; }));
  broker.stop();
  dispatcher->takeAll().clear();
  caller.join();
}

TEST(RpcBrokerLife, ABrokerIsMadeAnewOnItsTcpPortAtOnce) {
  const Watchdog watchdog("a broker anew on its port");
  const std::string endpoint = freeTcp();
  // A call sent over the dying connection is lost, which its caller learns by the time-out.
  RpcClient client(endpoint, milliseconds(500));
  for (int round = 0; round < 10; ++round) {
    const auto broker = makeMaster({endpoint});
    broker->registerService(makeEcho("s", "i"));
    broker->start();
    const std::string data = std::to_string(round);
    ASSERT_TRUE(
        eventually([&] { return outcome(client, "s", "i", "m", data) == "s/i/m/" + data; }));
  }
}

TEST(RpcBrokerLife, CallsWaitForABrokerThatHasNotStarted) {
  const Watchdog watchdog("calls before the start");
  const std::string endpoint = uniqueInproc();
  const auto broker = makeMaster({endpoint});
  broker->registerService(makeEcho("s", "i"));
  const auto calling = runUntilAsleep([&] {
    RpcClient client(broker, kLong);  // not directly: the broker does not run
    EXPECT_EQ(call(client, "s", "i"), "s/i/m/");
  });
  broker->start();
  calling->join();
}

TEST(RpcBrokerLife, ASlaveOffersWhatIsThereAtEachStartAndTakesItBackAtEachStop) {
  const Watchdog watchdog("a slave's announcements");
  RawMaster raw;
  const auto slave = makeSlave(raw.endpoint);
  const auto kept = makeEcho("a", "kept");
  slave->registerService(kept);
  slave->registerService(makeEcho("b", "first"));
  slave->start();
  slave->registerService(makeEcho("c", "live"));
  slave->unregisterService(makeEcho("b", "first"));
  slave->stop();
  EXPECT_TRUE(raw.readTo(false, "c", "live"));
  EXPECT_EQ(raw.offered, Offered());
  slave->unregisterService(makeEcho("c", "live"));
  slave->registerService(makeEcho("z", "stopped"));
  slave->start();
  EXPECT_EQ(raw.next(), (RawMaster::Registration{"", true, "a", "kept"}));
  EXPECT_EQ(raw.next(), (RawMaster::Registration{"", true, "z", "stopped"}));
  slave->stop(true, false);
  EXPECT_EQ(raw.next(), (RawMaster::Registration{"", false, "a", "kept"}));
  EXPECT_EQ(raw.next(), (RawMaster::Registration{"", false, "z", "stopped"}));
  slave->registerService(makeEcho("~", "marker"));
  slave->start();
  EXPECT_EQ(raw.next(), (RawMaster::Registration{"", true, "~", "marker"}));
}

TEST(RpcBrokerLife, MayBeStoppedByWhatIsFreedWithAnObserverThatAStopDetaches) {
  const Watchdog watchdog("stopping while an observer's memory is freed");
  RpcBroker broker(true, {}, std::make_shared<KeepingDispatcher>());
  int calls = 0;
  const std::function<void()> stopIt = [&] {
    ++calls;
    broker.stop();
    broker.start();
  };
  auto going = callingWhenFreed<QuietObserver>(stopIt);
  broker.attach(going);
  broker.start();
  going.reset();
  broker.stop(false, true);
  EXPECT_EQ(calls, 1);
}

// Also when the broker is told of a service, with its registry locked.
TEST(RpcBrokerLife, MayBeCalledByWhatIsFreedWithAnObserverThatIsGone) {
  const Watchdog watchdog("registering while an observer's memory is freed");
  RpcBroker broker(true, {}, std::make_shared<KeepingDispatcher>());
  int calls = 0;
  const std::function<void()> callIt = [&] {
    ++calls;
    const auto service = makeEcho("of", "the observer");
    broker.registerService(service);
    broker.unregisterService(service);
  };
  auto going = callingWhenFreed<QuietObserver>(callIt);
  broker.attach(going);
  going.reset();
  const auto service = makeEcho("s", "i");
  broker.registerService(service);
  EXPECT_EQ(calls, 1);
  broker.unregisterService(service);
}

}  // namespace
}  // namespace tessel::test
