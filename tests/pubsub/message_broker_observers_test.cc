#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tessel/message_broker.h>

#include <array>
#include <atomic>
#include <csignal>
#include <functional>
#include <stdexcept>
#include <string>

#include "support/broker_peers.h"
#include "support/counting_allocator.h"
#include "support/threads.h"

namespace tessel::test {
namespace {

using testing::IsEmpty;

// Writes what it hears into a journal that several share, with its name in front.
class NamedObserver : public MessageBrokerObserver {
 public:
  NamedObserver(std::string name, Journal& journal) : name_(std::move(name)), journal_(journal) {}
  void onSubscribe(const std::string&, const std::string&) override { note("subscribe"); }
  void onUnsubscribe(const std::string&, const std::string&) override { note("unsubscribe"); }
  void onPublish(const std::string&, const std::string&, bool, bool, bool) override {
    note("publish");
  }
  void onUnpublish(const std::string&, const std::string&, bool, bool, bool) override {
    note("unpublish");
  }

 private:
  void note(const std::string& event) { journal_.add(name_ + " " + event); }

  const std::string name_;
  Journal& journal_;
};

// Runs what the test gives it, in whichever callback.
class CallingObserver : public MessageBrokerObserver {
 public:
  explicit CallingObserver(std::function<void(const std::string&)> call) : call_(std::move(call)) {}
  void onSubscribe(const std::string&, const std::string&) override { call_("subscribe"); }
  void onUnsubscribe(const std::string&, const std::string&) override { call_("unsubscribe"); }
  void onPublish(const std::string&, const std::string&, bool, bool, bool) override {
    call_("publish");
  }
  void onUnpublish(const std::string&, const std::string&, bool, bool, bool) override {
    call_("unpublish");
  }

 private:
  const std::function<void(const std::string&)> call_;
};

std::shared_ptr<CallingObserver> calling(std::function<void(const std::string&)> call) {
  return std::make_shared<CallingObserver>(std::move(call));
}

class BrokerObservers : public testing::Test {
 protected:
  std::shared_ptr<NamedObserver> attached(const std::string& name) {
    auto observer = std::make_shared<NamedObserver>(name, journal);
    at.broker.attach(observer);
    return observer;
  }
  // Who hears of a publication, in order.
  Lines heardBy() {
    journal.clear();
    at.publish("t", "g", "", 0);
    return journal.lines();
  }

  Journal journal;
  HandServedBroker at;
};

TEST_F(BrokerObservers, AreCalledInOrderOfAttachment) {
  const auto c = attached("c");
  const auto a = attached("a");
  const auto b = attached("b");
  EXPECT_EQ(heardBy(), (Lines{"c publish", "a publish", "b publish"}));
  journal.clear();
  at.subscribe("t:g");
  at.unsubscribe("t:g");
  at.withdraw("t", "g", 0);
  EXPECT_EQ(journal.lines(),
            (Lines{"c subscribe", "a subscribe", "b subscribe", "c unsubscribe", "a unsubscribe",
                   "b unsubscribe", "c unpublish", "a unpublish", "b unpublish"}));
}

TEST_F(BrokerObservers, AreCalledOnceForEachTimeTheyWereAttached) {
  const auto a = attached("a");
  const auto b = attached("b");
  at.broker.attach(a);
  EXPECT_EQ(heardBy(), (Lines{"a publish", "b publish", "a publish"}));
}

TEST_F(BrokerObservers, AreGoneCompletelyOnceDetached) {
  const auto a = attached("a");
  const auto b = attached("b");
  at.broker.attach(a);
  at.broker.attach(a);
  at.broker.detach(a);
  EXPECT_EQ(heardBy(), Lines{"b publish"});
}

TEST_F(BrokerObservers, KeepTheirOrderWhenOneIsDetached) {
  const auto a = attached("a");
  const auto b = attached("b");
  const auto c = attached("c");
  const auto d = attached("d");
  at.broker.detach(b);
  EXPECT_EQ(heardBy(), (Lines{"a publish", "c publish", "d publish"}));
  at.broker.attach(b);
  EXPECT_EQ(heardBy(), (Lines{"a publish", "c publish", "d publish", "b publish"}));
}

TEST_F(BrokerObservers, StayWhenOneIsDetachedThatNeverWasAttached) {
  const auto a = attached("a");
  const auto stranger = std::make_shared<NamedObserver>("stranger", journal);
  at.broker.detach(stranger);
  at.broker.detach(stranger);
  EXPECT_EQ(heardBy(), Lines{"a publish"});
}

TEST_F(BrokerObservers, ANullPointerIsNeitherAttachedNorDetached) {
  const auto a = attached("a");
  at.broker.attach(nullptr);
  at.broker.detach(nullptr);
  EXPECT_EQ(heardBy(), Lines{"a publish"});
}

TEST_F(BrokerObservers, AreNotKeptAlive) {
  auto a = attached("a");
  const std::weak_ptr<NamedObserver> watch = a;
  const auto b = attached("b");
  EXPECT_EQ(heardBy(), (Lines{"a publish", "b publish"}));
  a.reset();
  EXPECT_TRUE(watch.expired());
  EXPECT_EQ(heardBy(), Lines{"b publish"});
}

// An expired entry shows in the memory that its last weak reference holds.
class BrokerObserverEntries : public BrokerObservers {
 protected:
  std::shared_ptr<NamedObserver> counted() {
    return std::allocate_shared<NamedObserver>(CountingAllocator<NamedObserver>(blocks), "counted",
                                               journal);
  }
  int blocks = 0;
};

TEST_F(BrokerObserverEntries, OfObserversThatAreGoneAreRemovedByTheNextNotification) {
  auto gone = counted();
  at.broker.attach(gone);
  at.broker.attach(gone);
  gone.reset();
  EXPECT_EQ(blocks, 1);
  heardBy();
  EXPECT_EQ(blocks, 0);
}

TEST_F(BrokerObserverEntries, OfObserversThatAreGoneAreRemovedByAnyDetach) {
  const auto a = attached("a");
  auto gone = counted();
  at.broker.attach(gone);
  gone.reset();
  EXPECT_EQ(blocks, 1);
  at.broker.detach(std::make_shared<NamedObserver>("stranger", journal));
  EXPECT_EQ(blocks, 0);
  EXPECT_EQ(heardBy(), Lines{"a publish"});
}

TEST_F(BrokerObserverEntries, GoWithTheDetachedObserver) {
  const auto observer = counted();
  at.broker.attach(observer);
  at.broker.detach(observer);
  EXPECT_EQ(observer.use_count(), 1);
  EXPECT_THAT(heardBy(), IsEmpty());
}

TEST_F(BrokerObservers, HearOfASubscriptionBeforeTheCachedValueIsSent) {
  at.publish("t", "g", "1", 1);
  bool sentBefore = true;
  const auto observer = calling([&](const std::string&) { sentBefore = at.cached.readable(); });
  at.broker.attach(observer);
  at.subscribe("t:g");
  EXPECT_FALSE(sentBefore);
  EXPECT_EQ(at.cached.receive(), notification("t:g", "1", 1));
}

TEST_F(BrokerObservers, HearOfValuesAndWithdrawalsAfterTheyAreSent) {
  at.subscribe("t:g");
  Lines sent;
  const auto observer = calling([&](const std::string& event) {
    sent.push_back(event + (at.live.readable() ? " live" : "") +
                   (at.cached.readable() ? " cached" : ""));
  });
  at.broker.attach(observer);
  at.publish("t", "g", "1", 1);
  EXPECT_EQ(at.live.receive(), notification("t:g", "1", 0));
  EXPECT_EQ(at.cached.receive(), notification("t:g", "1", 0));
  at.withdraw("t", "g", 1);
  EXPECT_EQ(at.live.receive(), notification("t:g", "", 2));
  EXPECT_EQ(at.cached.receive(), notification("t:g", "", 2));
  at.withdraw("t", "g", 1);
  EXPECT_EQ(sent, (Lines{"publish live cached", "unpublish live cached", "unpublish"}));
}

TEST_F(BrokerObservers, AreNotNeeded) {
  at.broker.detach(at.observer);
  at.subscribe("t:g");
  at.publish("t", "g", "1", 1);
  at.publish("t", "g", "1", 1);
  at.withdraw("t", "g", 1);
  at.withdraw("t", "g", 1);
  for (RawPeer* peer : {&at.live, &at.cached}) {
    EXPECT_EQ(peer->receive(), notification("t:g", "1", 0));
    EXPECT_EQ(peer->receive(), notification("t:g", "", 2));
  }
  at.expectNothingSent();
}

TEST_F(BrokerObservers, MayBeAttachedAndDetachedBetweenTwoMessages) {
  const auto a = attached("a");
  EXPECT_EQ(heardBy(), Lines{"a publish"});
  at.broker.detach(a);
  EXPECT_THAT(heardBy(), IsEmpty());
  at.broker.attach(a);
  EXPECT_EQ(heardBy(), Lines{"a publish"});
}

// The two callers that must wait: one adds, one removes. What they are to wait for is the end of
// the whole pass, so a second observer takes part.
void expectWaitsForThePass(
    const std::function<void(MessageBrokerImpl&, const std::shared_ptr<NamedObserver>&)>& call) {
  HandServedBroker at;
  Journal journal;
  const auto other = std::make_shared<NamedObserver>("other", journal);
  std::atomic<int> caller{0};
  std::thread thread;
  const auto first = calling([&](const std::string&) {
    if (thread.joinable()) return;
    thread = std::thread([&] {
      caller = thisThread();
      call(at.broker, other);
      journal.add("returned");
    });
    EXPECT_TRUE(eventually([&] { return caller != 0; }));
    EXPECT_TRUE(waitUntilAsleep(caller));
    journal.add("first");
  });
  const auto last = calling([&](const std::string&) { journal.add("last"); });
  at.broker.attach(first);
  at.broker.attach(last);
  at.publish("t", "g", "", 0);
  thread.join();
  EXPECT_EQ(journal.lines(), (Lines{"first", "last", "returned"}));
}

TEST_F(BrokerObservers, AttachingWaitsUntilTheNotificationIsOver) {
  expectWaitsForThePass([](MessageBrokerImpl& broker, const std::shared_ptr<NamedObserver>& other) {
    broker.attach(other);
  });
}

TEST_F(BrokerObservers, DetachingWaitsUntilTheNotificationIsOver) {
  expectWaitsForThePass([](MessageBrokerImpl& broker, const std::shared_ptr<NamedObserver>& other) {
    broker.detach(other);
  });
}

// Detaches another observer when it dies, as one that watches for somebody else does.
class DetachingObserver : public NamedObserver {
 public:
  DetachingObserver(Journal& journal, MessageBrokerImpl& broker,
                    std::shared_ptr<MessageBrokerObserver> other)
      : NamedObserver("dying", journal), broker_(broker), other_(std::move(other)) {}
  ~DetachingObserver() override { broker_.detach(other_); }

 private:
  MessageBrokerImpl& broker_;
  const std::shared_ptr<MessageBrokerObserver> other_;
};

TEST_F(BrokerObservers, MayDieInANotificationAndDetachOthersThen) {
  const auto a = attached("a");
  std::shared_ptr<MessageBrokerObserver> dying =
      std::make_shared<DetachingObserver>(journal, at.broker, a);
  at.broker.attach(dying);
  // Called after it, while the broker may still hold it.
  const auto killer = calling([&](const std::string&) { dying.reset(); });
  at.broker.attach(killer);
  EXPECT_EQ(heardBy(), (Lines{"a publish", "dying publish"}));
  EXPECT_THAT(heardBy(), IsEmpty());  // it has detached the first one
}

TEST_F(BrokerObservers, ThatAreGoneBeforeTheirTurnAreNotCalled) {
  std::shared_ptr<MessageBrokerObserver> later;
  const auto killer = calling([&](const std::string&) { later.reset(); });
  at.broker.attach(killer);
  later = std::make_shared<NamedObserver>("later", journal);
  at.broker.attach(later);
  const auto last = attached("last");
  EXPECT_EQ(heardBy(), Lines{"last publish"});
}

TEST_F(BrokerObservers, MayBeReleasedByAnotherThreadDuringTheirOwnCall) {
  const auto a = attached("a");
  Gate entered;
  Gate released;
  struct Dying : DetachingObserver {
    Dying(Journal& journal, MessageBrokerImpl& broker, std::shared_ptr<MessageBrokerObserver> other,
          Gate& in, Gate& out)
        : DetachingObserver(journal, broker, std::move(other)), entered(in), released(out) {}
    void onPublish(const std::string&, const std::string&, bool, bool, bool) override {
      entered.open();
      released.pass();
    }
    Gate& entered;
    Gate& released;
  };
  std::shared_ptr<Dying> dying = std::make_shared<Dying>(journal, at.broker, a, entered, released);
  at.broker.attach(dying);
  ScopedThread releasing([&] {
    entered.pass();
    dying.reset();
    released.open();
  });
  EXPECT_EQ(heardBy(), Lines{"a publish"});
  releasing.join();
  EXPECT_THAT(heardBy(), IsEmpty());
}

TEST_F(BrokerObservers, AreCalledOnTheBrokersThread) {
  MessageBroker broker({}, {}, {});
  std::thread::id calledOn;
  Gate called;
  const auto observer = calling([&](const std::string&) {
    calledOn = std::this_thread::get_id();
    called.open();
  });
  broker.attach(observer);
  RawPeer in(ZMQ_PUSH);
  in.connect(broker.getInprocPullTransport()).send(publication("t", "g", "", 0));
  broker.start();
  called.pass();
  EXPECT_NE(calledOn, std::this_thread::get_id());
  broker.stop();
}

// Destroys its broker when that takes a value, or clears it from its cache.
class DestroyingObserver : public NamedObserver {
 public:
  DestroyingObserver(Journal& journal, bool whenClearing)
      : NamedObserver("destroying", journal), whenClearing_(whenClearing) {}
  void onPublish(const std::string&, const std::string&, bool, bool, bool) override {
    if (!whenClearing_) broker.reset();
    published.open();
  }
  void onUnpublish(const std::string&, const std::string&, bool, bool, bool) override {
    broker.reset();
  }
  std::unique_ptr<MessageBroker> broker = std::make_unique<MessageBroker>(
      std::vector<std::string>(), std::vector<std::string>(), std::vector<std::string>());
  Gate published;

 private:
  const bool whenClearing_;
};

class BrokerObserversDeathTest : public ::testing::Test {
 protected:
  BrokerObserversDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
  static void destroy(bool whenClearing) {
    Journal journal;
    const auto destroying = std::make_shared<DestroyingObserver>(journal, whenClearing);
    RawPeer in(ZMQ_PUSH);
    in.connect(destroying->broker->getInprocPullTransport());
    destroying->broker->attach(destroying);
    destroying->broker->start();
    in.send(publication("t", "g", "", 1));
    destroying->published.pass();
    if (whenClearing) destroying->broker->stop(true, false);
  }
};

TEST_F(BrokerObserversDeathTest, DestructionOfTheBrokerEndsTheProcess) {
  EXPECT_EXIT(destroy(false), ::testing::KilledBySignal(SIGABRT), "terminate called");
}

// The stop() that clears would go on with what is destroyed.
TEST_F(BrokerObserversDeathTest, DestructionOfTheBrokerThatClearsItsCacheEndsTheProcess) {
  EXPECT_EXIT(destroy(true), ::testing::KilledBySignal(SIGABRT), "terminate called");
}

TEST_F(BrokerObserversDeathTest, AnExceptionThatLeavesAnObserverEndsTheProcess) {
  for (const std::string dangerous : {"publish", "unpublish", "subscribe", "unsubscribe"}) {
    EXPECT_EXIT(
        {
          const std::string cache = uniqueInproc();
          MessageBroker broker({}, {}, {cache});
          const auto observer = calling([&](const std::string& event) {
            if (event == dangerous) throw std::runtime_error("thrown by an observer");
          });
          broker.attach(observer);
          RawPeer peer(ZMQ_SUB);
          peer.connect(cache).subscribe("t:g").unsubscribe("t:g");
          RawPeer in(ZMQ_PUSH);
          in.connect(broker.getInprocPullTransport());
          in.send(publication("t", "g", "", 0));
          in.send(withdrawal("t", "g", 0));
          broker.start();
          eventually([] { return false; });
        },
        testing::KilledBySignal(SIGABRT), "thrown by an observer")
        << dangerous;
  }
}

TEST(BrokerObserversOfManyThreads, MayComeAndGoWhileValuesFlow) {
  MessageBroker broker({}, {}, {});
  broker.start();
  std::atomic<bool> done{false};
  std::atomic<int> calls{0};
  {
    std::vector<std::unique_ptr<ScopedThread>> threads;
    for (int i = 0; i < 3; ++i) {
      threads.push_back(std::make_unique<ScopedThread>([&] {
        while (!done) {
          const auto mine = calling([&](const std::string&) { ++calls; });
          const auto dropped = calling([&](const std::string&) { ++calls; });
          broker.attach(mine);
          broker.attach(dropped);
          broker.detach(mine);
        }
      }));
    }
    RawPeer in(ZMQ_PUSH);
    in.connect(broker.getInprocPullTransport());
    const auto last = std::make_shared<RecordingBrokerObserver>();
    broker.attach(last);
    for (int i = 0; i < 2000; ++i) in.send(publication("t", "g", "", 0));
    EXPECT_TRUE(last->journal.waitFor(2000));
    done = true;
  }
  broker.stop();
}

}  // namespace
}  // namespace tessel::test
