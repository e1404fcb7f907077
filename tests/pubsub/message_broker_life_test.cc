#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <tessel/message_broker.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <functional>
#include <stdexcept>
#include <string>
#include <system_error>

#include "support/broker_peers.h"
#include "support/calling_allocator.h"
#include "support/no_hang.h"
#include "support/system_errors.h"
#include "support/threads.h"
#include "support/zmq_errors.h"

namespace tessel::test {
namespace {

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

constexpr unsigned long long kCached = 1;

// A publisher to a broker.
std::unique_ptr<RawPeer> pushTo(const std::string& endpoint) {
  auto peer = std::make_unique<RawPeer>(ZMQ_PUSH);
  peer->connect(endpoint);
  return peer;
}

// Calls what the test gives it for each publication.
class OnPublish : public MessageBrokerObserver {
 public:
  explicit OnPublish(std::function<void()> call) : call_(std::move(call)) {}
  void onSubscribe(const std::string&, const std::string&) override {}
  void onUnsubscribe(const std::string&, const std::string&) override {}
  void onPublish(const std::string&, const std::string&, bool, bool, bool) override { call_(); }
  void onUnpublish(const std::string&, const std::string&, bool, bool, bool) override {}

 private:
  const std::function<void()> call_;
};

// --- Construction

TEST(BrokerConstruction, NumbersTheBrokersOfTheProcessFromZero) {
  const MessageBroker first({}, {}, {});
  EXPECT_EQ(first.getInprocPullTransport(), "inproc://publish_service0");
  {
    const MessageBroker second({}, {}, {});
    EXPECT_EQ(second.getInprocPullTransport(), "inproc://publish_service1");
  }
  const MessageBroker third({}, {}, {});  // numbers are not used again
  EXPECT_EQ(third.getInprocPullTransport(), "inproc://publish_service2");
}

TEST(BrokerConstruction, ThatFailsUsesUpItsNumber) {
  EXPECT_THROW(MessageBroker({"nonsense"}, {}, {}), std::runtime_error);
  const MessageBroker broker({}, {}, {});
  EXPECT_EQ(broker.getInprocPullTransport(), "inproc://publish_service1");
}

TEST(BrokerConstruction, NumbersBrokersOnceEachWhenManyThreadsMakeThem) {
  std::vector<std::string> names;
  std::mutex mutex;
  {
    std::vector<std::unique_ptr<ScopedThread>> threads;
    for (int i = 0; i < 4; ++i) {
      threads.push_back(std::make_unique<ScopedThread>([&] {
        for (int round = 0; round < 10; ++round) {
          const MessageBroker broker({}, {}, {});
          const std::lock_guard<std::mutex> lock(mutex);
          names.push_back(broker.getInprocPullTransport());
        }
      }));
    }
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(std::adjacent_find(names.begin(), names.end()), names.end());
  EXPECT_EQ(names.size(), 40U);
}

TEST(BrokerConstruction, WithEmptyListsBindsTheNumberedNameOnly) {
  MessageBroker broker({}, {}, {});
  const auto observer = std::make_shared<RecordingBrokerObserver>();
  broker.attach(observer);
  broker.start();
  const auto in = pushTo(broker.getInprocPullTransport());
  in->send(publication("t", "g", "1", kCached));
  in->send(publication("t", "g", "1", kCached));
  EXPECT_EQ(observer->journal.lines(2), (Lines{"publish t g 1 1 0", "publish t g 1 0 1"}));
}

TEST(BrokerConstruction, BindsEveryEndpointOfEachList) {
  const std::vector<std::string> pull = {freeTcp(), uniqueIpc(), uniqueInproc()};
  const std::vector<std::string> updates = {freeTcp(), uniqueIpc(), uniqueInproc()};
  const std::vector<std::string> cache = {freeTcp(), uniqueIpc(), uniqueInproc()};
  MessageBroker broker(pull, updates, cache);
  const auto observer = std::make_shared<RecordingBrokerObserver>();
  broker.attach(observer);
  broker.start();
  const auto own = pushTo(broker.getInprocPullTransport());
  own->send(publication("kept", "k", "1", kCached));
  EXPECT_TRUE(observer->journal.waitFor(1));
  for (const std::string& endpoint : cache) {
    RawPeer subscriber(ZMQ_SUB);
    subscriber.connect(endpoint).subscribe("kept:k");
    EXPECT_EQ(subscriber.receive(), notification("kept:k", "1", 1)) << endpoint;
  }
  for (const std::string& endpoint : updates) {
    RawPeer subscriber(ZMQ_SUB);
    subscriber.connect(endpoint).subscribe("t:");
    // A subscription takes its time to arrive.
    EXPECT_TRUE(eventually([&] {
      own->send(publication("t", "g", "1", 0));
      return subscriber.readable();
    })) << endpoint;
    EXPECT_EQ(subscriber.receive(), notification("t:g", "1", 0));
  }
  for (const std::string& endpoint : pull) {
    const auto in = pushTo(endpoint);
    in->send(publication("from", endpoint, "1", kCached));
    RawPeer subscriber(ZMQ_SUB);
    subscriber.connect(cache[0]).subscribe("from:" + endpoint);
    EXPECT_EQ(subscriber.receive().at(0), "from:" + endpoint);
  }
}

TEST(BrokerConstruction, ThrowsTheTextOfZeroMqForABadEndpointOfAnyList) {
  const std::vector<std::pair<std::string, int>> bad = {{"nonsense", EINVAL},
                                                        {"", EINVAL},
                                                        {"xyz://a", EPROTONOSUPPORT},
                                                        {"tcp://127.0.0.1", EINVAL},
                                                        {"ipc:///no/such/folder/x", ENOENT}};
  for (const auto& [endpoint, error] : bad) {
    const std::string text = zmq_strerror(error);
    const std::vector<std::string> list = {endpoint};
    EXPECT_EQ(zmqErrorOf([&] { MessageBroker(list, {}, {}); }), text) << endpoint;
    EXPECT_EQ(zmqErrorOf([&] { MessageBroker({}, list, {}); }), text) << endpoint;
    EXPECT_EQ(zmqErrorOf([&] { MessageBroker({}, {}, list); }), text) << endpoint;
  }
}

TEST(BrokerConstruction, ThrowsTheTextOfZeroMqForAnEndpointInUse) {
  RawPeer other(ZMQ_PULL);
  const std::vector<std::string> taken = {freeTcp()};
  other.bind(taken[0]);
  const std::string text = zmq_strerror(EADDRINUSE);
  EXPECT_EQ(zmqErrorOf([&] { MessageBroker(taken, {}, {}); }), text);
  EXPECT_EQ(zmqErrorOf([&] { MessageBroker({}, taken, {}); }), text);
  EXPECT_EQ(zmqErrorOf([&] { MessageBroker({}, {}, taken); }), text);
  const std::vector<std::string> twice = {uniqueInproc()};
  EXPECT_EQ(zmqErrorOf([&] { MessageBroker(twice, twice, {}); }), text);
}

TEST(BrokerConstruction, ThrowsForANumberedNameThatSomebodyElseHas) {
  RawPeer thief(ZMQ_PULL);
  thief.bind("inproc://publish_service0");
  EXPECT_EQ(zmqErrorOf([&] { MessageBroker({}, {}, {}); }), zmq_strerror(EADDRINUSE));
  const MessageBroker next({}, {}, {});
  EXPECT_EQ(next.getInprocPullTransport(), "inproc://publish_service1");
}

TEST(BrokerConstruction, BindsInTheOrderPublishersUpdatesCacheAndOfTheLists) {
  const std::string unknown = "xyz://a";
  const std::string invalid = "nonsense";
  const std::string first = zmq_strerror(EPROTONOSUPPORT);
  EXPECT_EQ(zmqErrorOf([&] { MessageBroker({unknown, invalid}, {}, {}); }), first);
  EXPECT_EQ(zmqErrorOf([&] { MessageBroker({unknown}, {invalid}, {}); }), first);
  EXPECT_EQ(zmqErrorOf([&] { MessageBroker({}, {unknown, invalid}, {}); }), first);
  EXPECT_EQ(zmqErrorOf([&] { MessageBroker({}, {unknown}, {invalid}); }), first);
  EXPECT_EQ(zmqErrorOf([&] { MessageBroker({}, {}, {unknown, invalid}); }), first);
}

TEST(BrokerConstruction, ThatFailsLeavesNothingBound) {
  const std::string pull = freeTcp();
  const std::string updates = freeTcp();
  const std::string cache = uniqueIpc();
  const std::string inproc = uniqueInproc();
  const std::string numbered = "inproc://publish_service0";
  EXPECT_EQ(zmqErrorOf([&] {
              MessageBroker({pull, inproc}, {updates}, {cache, "nonsense"});
            }),
            zmq_strerror(EINVAL));
  for (const std::string& endpoint : {numbered, pull, inproc, updates, cache}) {
    RawPeer next(ZMQ_PULL);  // ZeroMQ takes a moment to give a name back
    EXPECT_TRUE(eventually([&] { return zmq_bind(next.handle(), endpoint.c_str()) == 0; }))
        << endpoint;
  }
}

TEST(BrokerConstruction, ThatFailsLeavesNoSocketOpen) {
  // ZeroMQ has 1023 sockets for a process; each broker takes five.
  for (int round = 0; round < 500; ++round) {
    // Closed sockets count until ZeroMQ has closed them, in the background.
    ASSERT_TRUE(eventually([&] {
      return zmqErrorOf([&] { MessageBroker({}, {}, {"nonsense"}); }) == zmq_strerror(EINVAL);
    })) << round;
  }
}

// --- Start and stop

class Life : public testing::Test {
 protected:
  Life() {
    cached.connect(cacheEndpoint);
    in.connect(broker.getInprocPullTransport());
    broker.attach(observer);
  }
  // That no thread serves the broker: then nothing that was sent is being looked at.
  bool stopped() const {
    return eventually([&] { return threadCount() == threadsWhileStopped; });
  }
  // What was heard of the first `count` events.
  Lines heard(std::size_t count) { return observer->journal.lines(count); }
  // That the broker runs, and everything sent before has been served. Returns its thread.
  pthread_t expectServes() {
    pthread_t thread{};
    Gate served;
    const auto watch = std::make_shared<OnPublish>([&] {
      thread = pthread_self();
      served.open();
    });
    broker.attach(watch);
    in.send(publication("serves", "", "", 0));
    served.pass();
    broker.detach(watch);
    return thread;
  }

  const std::string updatesEndpoint = uniqueInproc();
  const std::string cacheEndpoint = uniqueInproc();
  MessageBroker broker{{}, {updatesEndpoint}, {cacheEndpoint}};
  RawPeer in{ZMQ_PUSH};
  RawPeer cached{ZMQ_SUB};
  const std::shared_ptr<RecordingBrokerObserver> observer =
      std::make_shared<RecordingBrokerObserver>();
  const int threadsWhileStopped = threadCount();  // ZeroMQ's own have come with the first socket
};

using BrokerLife = Life;

TEST_F(BrokerLife, StartsAndEndsOneThread) {
  const int before = threadCount();
  broker.start();
  EXPECT_EQ(threadCount(), before + 1);
  broker.start();
  EXPECT_EQ(threadCount(), before + 1);
  expectServes();
  broker.stop();
  EXPECT_TRUE(eventually([&] { return threadCount() == before; }));
  broker.stop();
  broker.start();
  EXPECT_EQ(threadCount(), before + 1);
}

TEST_F(BrokerLife, MessagesWaitForTheStart) {
  in.send(publication("t", "g", "1", kCached));
  in.send(withdrawal("t", "h", 0));
  cached.subscribe("s:1");
  EXPECT_TRUE(stopped());
  EXPECT_THAT(observer->journal.lines(), IsEmpty());
  broker.start();
  EXPECT_THAT(heard(3),
              UnorderedElementsAre("publish t g 1 1 0", "unpublish t h 0 0 0", "subscribe s 1"));
}

TEST_F(BrokerLife, MessagesWaitWhileTheBrokerIsStopped) {
  for (int round = 0; round < 3; ++round) {
    broker.start();
    expectServes();
    broker.stop();
    observer->journal.clear();
    for (int i = 0; i < 500; ++i) in.send(publication("t", std::to_string(i), "", 0));
    cached.subscribe("s:" + std::to_string(round));
    EXPECT_TRUE(stopped());
    EXPECT_THAT(observer->journal.lines(), IsEmpty());
    broker.start();
    Lines lines = heard(501);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "subscribe s " + std::to_string(round)), 1);
    lines.erase(std::remove(lines.begin(), lines.end(), "subscribe s " + std::to_string(round)),
                lines.end());
    ASSERT_THAT(lines, SizeIs(500));
    for (std::size_t i = 0; i < 500; ++i) {
      EXPECT_EQ(lines[i], "publish t " + std::to_string(i) + " 0 0 0");
    }
    broker.stop();
  }
}

TEST_F(BrokerLife, StoppingWhatDoesNotRunDoesNothing) {
  broker.stop();
  broker.stop(true, true);
  broker.start();
  expectServes();
  broker.stop();
  broker.stop();
  broker.stop();
  broker.start();
  expectServes();
}

TEST(BrokerThatNeverRan, IgnoresTheStopFlags) {
  HandServedBroker at;
  at.publish("t", "g", "1", kCached);
  at.heard();
  at.broker.stop(true, true);
  EXPECT_THAT(at.heard(), IsEmpty());
  at.subscribe("t:g");
  EXPECT_EQ(at.cached.receive(), notification("t:g", "1", 1));
  EXPECT_EQ(at.heard(), Lines{"subscribe t g"});
}

TEST_F(BrokerLife, IgnoresTheStopFlagsWhenItIsStoppedAlready) {
  broker.start();
  in.send(publication("t", "g", "1", kCached));
  heard(1);
  broker.stop();
  observer->journal.clear();
  broker.stop(true, true);
  broker.stop(true, false);
  broker.stop(false, true);
  EXPECT_THAT(observer->journal.lines(), IsEmpty());
  broker.start();
  cached.subscribe("t:g");
  EXPECT_EQ(cached.receive(), notification("t:g", "1", 1));
  EXPECT_EQ(heard(1), Lines{"subscribe t g"});
}

TEST_F(BrokerLife, CacheAndObserversOutliveAStop) {
  broker.start();
  in.send(publication("t", "g", "1", kCached));
  heard(1);
  broker.stop(false, false);
  broker.start();
  cached.subscribe("t:g");
  EXPECT_EQ(cached.receive(), notification("t:g", "1", 1));
  in.send(publication("t", "g", "1", kCached));
  EXPECT_EQ(heard(3), (Lines{"publish t g 1 1 0", "subscribe t g", "publish t g 1 0 1"}));
}

TEST_F(BrokerLife, StopsWithoutFlagsByDefault) {
  broker.start();
  in.send(publication("t", "g", "1", kCached));
  heard(1);
  broker.stop();
  EXPECT_THAT(observer->journal.lines(), SizeIs(1));
  broker.start();
  in.send(publication("t", "g", "1", kCached));
  EXPECT_EQ(heard(2).back(), "publish t g 1 0 1");
}

TEST_F(BrokerLife, ClearingTheCacheTellsTheObserversOfEachKeyOnce) {
  broker.start();
  in.send(publication("t", "g", "1", kCached));
  in.send(publication("t", "h", "2", kCached));
  in.send(publication("t", "g", "3", kCached));
  in.send(publication("x", "y:z", "4", kCached));
  in.send(publication("", "", "", kCached));
  in.send(publication("not", "kept", "5", 0));
  in.send(publication("not", "any more", "6", kCached));
  in.send(withdrawal("not", "any more", 1));
  heard(8);
  broker.stop();  // cannot clear, it only ends the thread
  broker.start();
  observer->journal.clear();
  broker.stop(true, false);
  EXPECT_THAT(observer->journal.lines(),
              UnorderedElementsAre("unpublish t g 1 1 0", "unpublish t h 1 1 0",
                                   "unpublish x y:z 1 1 0", "unpublish   1 1 0"));
}

TEST_F(BrokerLife, ClearingTheCacheIsToldOnTheThreadThatStops) {
  class Watch : public RecordingBrokerObserver {
   public:
    void onUnpublish(const std::string&, const std::string&, bool, bool, bool) override {
      calledOn = std::this_thread::get_id();
      ended = eventually([&] { return threadCount() == threadsWhileStopped; });
    }
    std::thread::id calledOn;
    int threadsWhileStopped = 0;
    bool ended = false;
  };
  const auto watch = std::make_shared<Watch>();
  watch->threadsWhileStopped = threadsWhileStopped;
  broker.attach(watch);
  broker.start();
  in.send(publication("t", "g", "1", kCached));
  heard(1);
  broker.stop(true, false);
  EXPECT_EQ(watch->calledOn, std::this_thread::get_id());
  EXPECT_TRUE(watch->ended);
}

TEST_F(BrokerLife, ClearingTheCacheForgetsTheValuesAndSendsNothing) {
  RawPeer live(ZMQ_SUB);
  live.connect(updatesEndpoint).subscribe("");
  RawPeer before(ZMQ_SUB);
  before.connect(cacheEndpoint).subscribe("t:g").subscribe("marker:");
  broker.start();
  heard(2);
  in.send(publication("t", "g", "1", kCached));
  EXPECT_EQ(before.receive(), notification("t:g", "1", 0));
  EXPECT_EQ(live.receive(), notification("t:g", "1", 0));
  broker.stop(true, false);
  broker.start();
  cached.subscribe("t:g").subscribe("marker:");
  EXPECT_EQ(heard(6).back(), "subscribe marker ");
  in.send(publication("marker", "", "", 0));
  EXPECT_EQ(live.receive(), notification("marker:", "", 0));
  EXPECT_EQ(before.receive(), notification("marker:", "", 0));
  EXPECT_EQ(cached.receive(), notification("marker:", "", 0));
  in.send(publication("t", "g", "1", kCached));
  EXPECT_EQ(cached.receive(), notification("t:g", "1", 0));
  EXPECT_EQ(heard(8).back(), "publish t g 1 1 0");
}

TEST_F(BrokerLife, ClearingTheObserversReleasesThemAll) {
  broker.attach(observer);
  broker.start();
  in.send(publication("t", "g", "1", kCached));
  heard(2);
  broker.stop(false, true);
  EXPECT_THAT(observer->journal.lines(), SizeIs(2));  // nothing of the cache, which stays
  observer->journal.clear();
  broker.start();
  expectServes();
  EXPECT_THAT(observer->journal.lines(), IsEmpty());
  broker.attach(observer);
  in.send(publication("t", "g", "1", kCached));
  EXPECT_EQ(heard(1), Lines{"publish t g 1 0 1"});
}

TEST_F(BrokerLife, ClearingBothTellsTheObserversBeforeTheyGo) {
  broker.start();
  in.send(publication("t", "g", "1", kCached));
  heard(1);
  broker.stop(true, true);
  EXPECT_EQ(observer->journal.lines(), (Lines{"publish t g 1 1 0", "unpublish t g 1 1 0"}));
  broker.start();
  expectServes();
  EXPECT_THAT(observer->journal.lines(), SizeIs(2));
}

// Throws whenever it is told that a value is gone.
class ThrowingObserver : public RecordingBrokerObserver {
 public:
  void onUnpublish(const std::string& topic, const std::string& tag, bool remove, bool updated,
                   bool suppressed) override {
    RecordingBrokerObserver::onUnpublish(topic, tag, remove, updated, suppressed);
    throw std::runtime_error("thrown for " + journal.lines().back());
  }
};

TEST_F(BrokerLife, AnObserverThatThrowsKeepsNothingFromBeingCleared) {
  const auto throwing = std::make_shared<ThrowingObserver>();
  const auto last = std::make_shared<RecordingBrokerObserver>();
  broker.attach(throwing);
  broker.attach(last);
  broker.start();
  in.send(publication("t", "g", "1", kCached));
  in.send(publication("t", "h", "2", kCached));
  EXPECT_TRUE(last->journal.waitFor(2));
  std::string thrown;
  try {
    broker.stop(true, true);
  } catch (const std::runtime_error& error) {
    thrown = error.what();
  }
  const auto told = UnorderedElementsAre("publish t g 1 1 0", "publish t h 1 1 0",
                                         "unpublish t g 1 1 0", "unpublish t h 1 1 0");
  EXPECT_THAT(observer->journal.lines(), told);
  EXPECT_THAT(throwing->journal.lines(), told);
  EXPECT_THAT(last->journal.lines(), told);
  EXPECT_EQ(thrown, "thrown for " + throwing->journal.lines().at(2));  // the first

  // Stopped, without values and without observers.
  observer->journal.clear();
  broker.stop(true, true);
  EXPECT_THAT(observer->journal.lines(), IsEmpty());
  broker.attach(observer);
  broker.start();
  cached.subscribe("t:g").subscribe("t:h");
  EXPECT_EQ(heard(2), (Lines{"subscribe t g", "subscribe t h"}));
  in.send(publication("t", "g", "1", kCached));
  EXPECT_EQ(cached.receive(), notification("t:g", "1", 0));
  broker.stop(true);
  EXPECT_THAT(throwing->journal.lines(), SizeIs(4));
  EXPECT_THAT(last->journal.lines(), SizeIs(4));
}

TEST(BrokerThatEnds, SaysNothingOfItsCache) {
  const auto observer = std::make_shared<RecordingBrokerObserver>();
  {
    MessageBroker broker({}, {}, {});
    broker.attach(observer);
    broker.start();
    pushTo(broker.getInprocPullTransport())->send(publication("t", "g", "1", kCached));
    observer->journal.waitFor(1);
  }
  EXPECT_EQ(observer->journal.lines(), Lines{"publish t g 1 1 0"});
}

TEST(BrokerThatEnds, StopsItsThread) {
  MessageBroker other({}, {}, {});  // so that ZeroMQ has its threads
  const int before = threadCount();
  {
    MessageBroker broker({}, {}, {});
    broker.start();
    EXPECT_EQ(threadCount(), before + 1);
  }
  EXPECT_TRUE(eventually([&] { return threadCount() == before; }));
}

TEST(BrokerThatEnds, MayDoSoWhileValuesFlow) {
  for (int round = 0; round < 30; ++round) {
    const std::string cache = uniqueInproc();
    const std::string updates = uniqueInproc();
    auto broker = std::make_unique<MessageBroker>(std::vector<std::string>(),
                                                  std::vector<std::string>{updates},
                                                  std::vector<std::string>{cache});
    const std::string endpoint = broker->getInprocPullTransport();
    const auto observer = std::make_shared<RecordingBrokerObserver>();
    broker->attach(observer);
    broker->start();
    std::atomic<bool> done{false};
    std::vector<std::unique_ptr<ScopedThread>> threads;
    for (int i = 0; i < 2; ++i) {
      threads.push_back(std::make_unique<ScopedThread>([&done, endpoint, cache, updates] {
        RawPeer in(ZMQ_PUSH);
        in.set(ZMQ_SNDTIMEO, 1).connect(endpoint);
        RawPeer out(ZMQ_SUB);
        out.connect(cache).connect(updates);
        for (int n = 0; !done; ++n) {
          const std::string tag = std::to_string(n % 10);
          out.subscribe("t:" + tag);
          const Frames frames = publication("t", tag, std::to_string(n), kCached);
          if (zmq_send(in.handle(), "", 0, ZMQ_SNDMORE) < 0) continue;  // nobody takes it any more
          in.send(Frames(frames.begin() + 1, frames.end()));
          out.unsubscribe("t:" + tag);
        }
      }));
    }
    EXPECT_TRUE(observer->journal.waitFor(50));
    broker.reset();
    done = true;
  }
}

TEST_F(BrokerLife, StopsAtOnceHoweverMuchIsWaiting) {
  const std::string endpoint = broker.getInprocPullTransport();
  broker.start();
  std::atomic<bool> done{false};
  std::vector<std::unique_ptr<ScopedThread>> threads;
  for (int i = 0; i < 2; ++i) {
    threads.push_back(std::make_unique<ScopedThread>([&done, endpoint] {
      RawPeer flood(ZMQ_PUSH);
      flood.set(ZMQ_SNDTIMEO, 1).connect(endpoint);
      const Frames frames = publication("t", "g", "", 0);
      while (!done) {
        if (zmq_send(flood.handle(), "", 0, ZMQ_SNDMORE) < 0) continue;
        flood.send(Frames(frames.begin() + 1, frames.end()));
      }
    }));
  }
  heard(2000);
  broker.stop();  // would not return otherwise
  done = true;
}

TEST_F(BrokerLife, ServesNothingMoreOnceItIsToStop) {
  int calls = 0;
  const auto stopper = std::make_shared<OnPublish>([&] {
    ++calls;
    EXPECT_THROW(broker.stop(), std::system_error);
  });
  broker.attach(stopper);
  for (int i = 0; i < 500; ++i) in.send(publication("t", "g", "", 0));
  broker.start();
  heard(1);
  broker.stop();
  EXPECT_EQ(calls, 1);
  EXPECT_THAT(observer->journal.lines(), SizeIs(1));
}

// --- Stopping from the broker's own thread

TEST_F(BrokerLife, StopFromAnObserverSaysThatItWouldWaitForItself) {
  std::error_code code;
  Gate called;
  const auto stopper = std::make_shared<OnPublish>([&] {
    code = systemErrorOf([&] { broker.stop(true, true); });
    called.open();
  });
  broker.attach(stopper);
  broker.start();
  in.send(publication("t", "g", "1", kCached));
  called.pass();
  broker.stop();
  EXPECT_EQ(code, std::errc::resource_deadlock_would_occur);
  EXPECT_EQ(observer->journal.lines(), Lines{"publish t g 1 1 0"});  // no flag took effect
}

TEST_F(BrokerLife, StopFromAnObserverEndsTheThreadAndTheNextStopCompletesIt) {
  const int before = threadCount();
  auto stopper =
      std::make_shared<OnPublish>([&] { EXPECT_THROW(broker.stop(), std::system_error); });
  broker.attach(stopper);
  broker.start();
  in.send(publication("t", "g", "1", kCached));
  EXPECT_TRUE(eventually([&] { return threadCount() == before; }));
  in.send(publication("t", "g", "2", kCached));
  broker.stop(true, false);  // with its flags, since the broker had not been stopped before
  EXPECT_EQ(observer->journal.lines(), (Lines{"publish t g 1 1 0", "unpublish t g 1 1 0"}));
  stopper.reset();
  for (int round = 0; round < 3; ++round) {
    broker.start();
    expectServes();
    expectServes();
    broker.stop();
  }
  EXPECT_EQ(observer->journal.lines().at(2), "publish t g 1 1 0");
}

TEST_F(BrokerLife, StopFromAnObserverManyTimesLeavesNoSignalBehind) {
  auto stopper = std::make_shared<OnPublish>([&] {
    for (int i = 0; i < 3; ++i) EXPECT_THROW(broker.stop(), std::system_error);
  });
  broker.attach(stopper);
  for (int round = 0; round < 20; ++round) {
    const std::size_t before = observer->journal.size();
    in.send(publication("t", "g", "", 0));
    broker.start();
    ASSERT_TRUE(observer->journal.waitFor(before + 1));
    broker.stop();
  }
  stopper.reset();
  broker.start();
  expectServes();
  expectServes();
}

// Has another thread stop the broker, and makes the call when that one is in the middle of it.
void whileAnotherThreadStops(MessageBroker& broker, const std::function<void()>& call) {
  std::atomic<int> stopping{0};
  Gate called;
  const auto observer = std::make_shared<OnPublish>([&] {
    called.open();
    EXPECT_TRUE(eventually([&] { return stopping != 0; }));
    EXPECT_TRUE(waitUntilAsleep(stopping));
    call();
  });
  broker.attach(observer);
  broker.start();
  RawPeer push(ZMQ_PUSH);
  push.connect(broker.getInprocPullTransport()).send(publication("t", "g", "", 0));
  called.pass();
  ScopedThread other([&] {
    stopping = thisThread();
    broker.stop();
  });
}

TEST_F(BrokerLife, StopFromAnObserverDoesNotWaitForAnotherThreadThatStops) {
  std::error_code code;
  whileAnotherThreadStops(broker, [&] { code = systemErrorOf([&] { broker.stop(); }); });
  EXPECT_EQ(code, std::errc::resource_deadlock_would_occur);
  broker.start();
  expectServes();
  expectServes();
}

TEST_F(BrokerLife, StartFromAnObserverDoesNotWaitForAnotherThreadThatStops) {
  bool called = false;
  whileAnotherThreadStops(broker, [&] {
    broker.start();
    called = true;
  });
  EXPECT_TRUE(called);
  EXPECT_TRUE(stopped());
  broker.start();
  expectServes();
}

TEST_F(BrokerLife, StartFromAnObserverDoesNothing) {
  Gate called;
  const auto starter = std::make_shared<OnPublish>([&] {
    broker.start();
    called.open();
  });
  broker.attach(starter);
  broker.start();
  const int running = threadCount();
  in.send(publication("t", "g", "", 0));
  called.pass();
  EXPECT_EQ(threadCount(), running);
}

TEST_F(BrokerLife, MayEndAfterAnObserverHasStoppedIt) {
  auto mortal = std::make_unique<MessageBroker>(
      std::vector<std::string>(), std::vector<std::string>(), std::vector<std::string>());
  Gate called;
  const auto stopper = std::make_shared<OnPublish>([&] {
    EXPECT_THROW(mortal->stop(), std::system_error);
    called.open();
  });
  mortal->attach(stopper);
  mortal->start();
  pushTo(mortal->getInprocPullTransport())->send(publication("t", "g", "", 0));
  called.pass();
  mortal.reset();
}

// --- Threads and signals

TEST_F(BrokerLife, AnyThreadMayStartAndStop) {
  std::vector<std::unique_ptr<ScopedThread>> threads;
  for (int i = 0; i < 4; ++i) {
    threads.push_back(std::make_unique<ScopedThread>([this, i] {
      for (int round = 0; round < 50; ++round) {
        if ((round + i) % 2 == 0) {
          broker.start();
        } else {
          broker.stop(round % 4 == 0, false);
        }
        EXPECT_EQ(broker.getInprocPullTransport().substr(0, 24), "inproc://publish_service");
      }
    }));
  }
  threads.clear();
  broker.start();
  expectServes();
  broker.stop();
}

TEST_F(BrokerLife, AStartThatGetsNoThreadLeavesTheBrokerStopped) {
  pthread_attr_t ordinary;
  pthread_attr_t huge;
  ASSERT_EQ(pthread_getattr_default_np(&ordinary), 0);
  ASSERT_EQ(pthread_getattr_default_np(&huge), 0);
  pthread_attr_setstacksize(&huge, std::size_t{1} << 47);  // more than there are addresses
  ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
  EXPECT_THROW(broker.start(), std::system_error);
  pthread_setattr_default_np(&ordinary);
  pthread_attr_destroy(&ordinary);
  pthread_attr_destroy(&huge);
  broker.stop(true, true);  // it does not run, so this does nothing
  broker.start();
  in.send(publication("t", "g", "", 0));
  EXPECT_EQ(heard(1), Lines{"publish t g 0 0 0"});
}

TEST_F(BrokerLife, SignalsToItsThreadDoNotDisturbIt) {
  static std::atomic<int> handled{0};
  handled = 0;
  struct sigaction action = {};
  action.sa_handler = [](int) { ++handled; };  // without SA_RESTART: system calls are interrupted
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
  broker.start();
  const pthread_t thread = expectServes();
  for (int i = 1; i <= 100; ++i) {
    ASSERT_EQ(pthread_kill(thread, SIGUSR1), 0);
    ASSERT_TRUE(eventually([&] { return handled == i; }));
    if (i % 10 == 0) in.send(publication("t", "g", "", 0));
  }
  EXPECT_TRUE(observer->journal.waitFor(11));
  broker.stop();
}

// A signal in the middle of a call of ZeroMQ makes it fail, even one that does not wait.
TEST_F(BrokerLife, SignalsWhileItServesDoNotDisturbItEither) {
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
  broker.start();
  const pthread_t thread = expectServes();
  RawPeer live(ZMQ_SUB);
  live.set(ZMQ_RCVHWM, 0).connect(updatesEndpoint).subscribe("");
  std::atomic<bool> done{false};
  ScopedThread storm([&] {
    while (!done) pthread_kill(thread, SIGUSR1);
  });
  for (int i = 0; i < 20000; ++i) {
    in.send(publication("t", "g", std::to_string(i), kCached));
  }
  const bool served = observer->journal.waitFor(20001);
  done = true;
  EXPECT_TRUE(served);
}

// --- Endpoints that come free

// ZeroMQ gives names back in the background, mostly a little late for whoever binds at once; the
// constructor waits for them, though not for ever, so a busy machine is granted a few misses.
TEST(BrokerOnTheSameEndpoints, CanBeMadeAgainAtOnce) {
  const std::string pull = freeTcp();
  const std::string updates = freeTcp();
  const std::string cache = freeTcp();
  const std::string inproc = uniqueInproc();
  const std::string ipc = uniqueIpc();
  int misses = 0;
  for (int round = 0; round < 50; ++round) {
    try {
      MessageBroker broker({pull, inproc, ipc}, {updates}, {cache});
      if (round % 2 == 0) broker.start();
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), zmq_strerror(EADDRINUSE));
      ++misses;
    }
  }
  EXPECT_LE(misses, 5);
}

TEST(BrokerOnTheSameEndpoints, IsRefusedWhileAnotherHasThem) {
  const std::string pull = freeTcp();
  const std::string inproc = uniqueInproc();
  MessageBroker broker({pull, inproc}, {}, {});
  EXPECT_EQ(zmqErrorOf([&] { MessageBroker({pull}, {}, {}); }), zmq_strerror(EADDRINUSE));
  EXPECT_EQ(zmqErrorOf([&] { MessageBroker({inproc}, {}, {}); }), zmq_strerror(EADDRINUSE));
  const auto observer = std::make_shared<RecordingBrokerObserver>();
  broker.attach(observer);
  broker.start();
  const auto in = pushTo(pull);
  in->send(publication("t", "g", "", 0));
  EXPECT_EQ(observer->journal.lines(1), Lines{"publish t g 0 0 0"});  // it is none the worse
}

// --- Observers that go while the cache is cleared

class StoppingWhenDestroyed : public RecordingBrokerObserver {
 public:
  StoppingWhenDestroyed(MessageBroker& broker, Journal& told) : broker_(broker), told_(told) {}
  ~StoppingWhenDestroyed() override {
    broker_.stop();
    told_.add("destroyed");
  }
  void onUnpublish(const std::string& topic, const std::string& tag, bool, bool, bool) override {
    told_.add(topic + " " + tag);
  }

 private:
  MessageBroker& broker_;
  Journal& told_;
};

class OnUnpublish : public RecordingBrokerObserver {
 public:
  explicit OnUnpublish(std::function<void()> call) : call_(std::move(call)) {}
  void onUnpublish(const std::string&, const std::string&, bool, bool, bool) override { call_(); }

 private:
  const std::function<void()> call_;
};

TEST_F(BrokerLife, AnObserverMayLoseItsLastOwnerToAnotherWhileAStopClearsTheCache) {
  for (const bool isFirst : {true, false}) {
    Journal told;
    auto going = std::make_shared<StoppingWhenDestroyed>(broker, told);
    const auto dropping = std::make_shared<OnUnpublish>([&] { going.reset(); });
    if (isFirst) broker.attach(going);
    broker.attach(dropping);
    if (!isFirst) broker.attach(going);
    broker.start();
    const std::size_t before = observer->journal.size();
    for (const char* tag : {"g", "h"}) in.send(publication("t", tag, "1", kCached));
    ASSERT_TRUE(observer->journal.waitFor(before + 2));
    withoutHanging("clearing the cache", [&] { broker.stop(true, false); });
    // Of the first key only, if it comes to that before it goes.
    EXPECT_EQ(told.size(), isFirst ? 2U : 1U);
    EXPECT_EQ(told.lines().back(), "destroyed");
  }
}

TEST_F(BrokerLife, StartAndStopFromAnObserverThatHearsOfTheClearingDoNothing) {
  const int before = threadCount();
  int calls = 0;
  const auto calling = std::make_shared<OnUnpublish>([&] {
    ++calls;
    broker.start();
    EXPECT_TRUE(eventually([&] { return threadCount() <= before + 1; }));  // that which stops it
    broker.stop(true, true);
  });
  broker.attach(calling);
  broker.start();
  for (const char* tag : {"g", "h"}) in.send(publication("t", tag, "1", kCached));
  heard(2);
  withoutHanging("clearing the cache", [&] { broker.stop(true, false); });
  EXPECT_EQ(calls, 2);
  EXPECT_THAT(observer->journal.lines(), SizeIs(4));  // it has heard of both as well
  broker.start();
  expectServes();
}

TEST_F(BrokerLife, MayBeStoppedByWhatIsFreedWithAnObserverThatAStopDetaches) {
  int calls = 0;
  const std::function<void()> stopIt = [&] {
    ++calls;
    broker.stop();
  };
  auto going = callingWhenFreed<RecordingBrokerObserver>(stopIt);
  broker.attach(going);
  broker.start();
  going.reset();
  withoutHanging("stopping", [&] { broker.stop(false, true); });
  EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace tessel::test
