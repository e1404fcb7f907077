// In a program of its own, since it stands in for the allocation.

#include "pubsub/deliveries.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "support/deadline.h"
#include "support/failing_allocations.h"
#include "support/subscribers.h"

namespace tessel::test {
namespace {

// A value whose frame tells when it is released.
class WatchedValue {
 public:
  ReceivedNotification notification(std::uint64_t flags = 0) {
    ReceivedNotification made;
    made.key = "t:default";
    zmq_msg_init_data(made.value.raw(), bytes_, sizeof bytes_, release, this);
    made.flags = flags;
    return made;
  }
  bool released() const { return released_; }

 private:
  static void release(void* /*data*/, void* self) {
    static_cast<WatchedValue*>(self)->released_ = true;
  }
  char bytes_[100] = "value";  // more than ZeroMQ keeps in a frame itself
  std::atomic<bool> released_{false};
};

// Subscribers of one value, with the deliveries and the queue that serve them.
class DeliveriesTest : public ::testing::Test {
 protected:
  void add(Deliveries& deliveries, const std::function<void()>& call) {
    subscribers_.push_back(std::make_shared<CallingSubscriber>(call));
    const std::shared_ptr<Subscriber> subscriber = subscribers_.back();
    subscriptions_.push_back(std::make_shared<Subscription<Subscriber>>(subscriber));
    deliveries.add(*subscriptions_.back());
  }
  // Their callbacks have begun when they are counted, and return when the gate is open.
  void addHeld(Deliveries& deliveries, int count) {
    for (int i = 0; i < count; ++i) {
      add(deliveries, [this] {
        ++begun_;
        gate_.pass();
      });
    }
  }
  void run(Deliveries& deliveries, WorkQueue& queue) {
    deliveries.run(value_.notification(), queue);
  }

  WatchedValue value_;
  Gate gate_;
  std::atomic<int> begun_{0};
  std::vector<std::shared_ptr<CallingSubscriber>> subscribers_;
  Deliveries::Subscriptions subscriptions_;
};

TEST_F(DeliveriesTest, OneWorkerCallsInTheOrderOfAdding) {
  Deliveries deliveries(1);
  WorkQueue queue(1);
  std::vector<int> order;
  for (int i = 0; i < 100; ++i) add(deliveries, [&order, i] { order.push_back(i); });
  run(deliveries, queue);
  EXPECT_TRUE(queue.waitIdle());
  ASSERT_EQ(order.size(), 100U);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
}

TEST_F(DeliveriesTest, EveryWorkerTakesPartWhenCallbacksTakeLong) {
  constexpr std::size_t kWorkers = 4;
  Deliveries deliveries(kWorkers);
  WorkQueue queue(kWorkers);
  for (int round = 0; round < 20; ++round) {
    std::atomic<std::size_t> here{0};
    std::atomic<bool> allMet{true};
    for (std::size_t i = 0; i < kWorkers; ++i) {
      add(deliveries, [&] {
        ++here;
        if (!eventually([&] { return here.load() >= kWorkers; })) allMet = false;
      });
    }
    run(deliveries, queue);
    EXPECT_TRUE(deliveries.finish(queue));
    ASSERT_TRUE(allMet) << round;
    deliveries.clear();
  }
}

TEST_F(DeliveriesTest, CallbacksOvertakeOneThatTakesLong) {
  Deliveries deliveries(2);
  WorkQueue queue(2);
  std::atomic<int> others{0};
  addHeld(deliveries, 1);
  for (int i = 0; i < 50; ++i) add(deliveries, [&] { ++others; });
  run(deliveries, queue);
  deliveries.callWorkers(queue);
  EXPECT_TRUE(eventually([&] { return others == 50; }));
  gate_.open();
  EXPECT_TRUE(queue.waitIdle());
}

TEST_F(DeliveriesTest, EachIsCalledOnceValueAfterValue) {
  Deliveries deliveries(4);
  WorkQueue queue(4);
  for (int count = 1; count < 200; ++count) {
    std::atomic<int> called{0};
    for (int i = 0; i < count; ++i) add(deliveries, [&] { ++called; });
    run(deliveries, queue);
    if (count % 2 == 0) deliveries.callWorkers(queue);
    ASSERT_TRUE(deliveries.finish(queue));
    ASSERT_EQ(called, count);
    deliveries.clear();
  }
}

// A worker may come when the others have done everything and the value is gone.
TEST_F(DeliveriesTest, EachGetsTheBytesWhoeverCalls) {
  Deliveries deliveries(4);
  WorkQueue queue(4);
  std::atomic<int> wrong{0};
  std::vector<std::shared_ptr<Subscriber>> subscribers;
  for (int i = 0; i < 5; ++i) {
    const auto compare = [&](const void* data, std::size_t size) {
      if (size != 8 || std::memcmp(data, "the same", size) != 0) ++wrong;
    };
    subscribers.push_back(
        std::make_shared<CallingSubscriber>(SubscriptionMode::AllValues, "t", compare));
    subscriptions_.push_back(std::make_shared<Subscription<Subscriber>>(subscribers.back()));
  }
  for (int round = 0; round < 2000; ++round) {
    for (const auto& subscription : subscriptions_) deliveries.add(*subscription);
    ReceivedNotification value;
    value.key = "t:default";
    value.value = ZmqFrame("the same", 8);
    deliveries.run(std::move(value), queue);
    deliveries.callWorkers(queue);
    ASSERT_TRUE(queue.waitIdle());
    deliveries.clear();
  }
  EXPECT_EQ(wrong, 0);
}

// What they keep is the test's own to let go of but for them.
class DeliveriesThatKeep : public DeliveriesTest {
 protected:
  void keep(Deliveries& deliveries) {
    last_ = subscriptions_.back();
    deliveries.keep(std::move(subscriptions_));
    subscriptions_.clear();
  }

  std::weak_ptr<SubscriptionBase> last_;
};

TEST_F(DeliveriesThatKeep, ReleaseWhatTheyKeepWhenTheLastCallbackHasReturned) {
  Deliveries deliveries(1);
  WorkQueue queue(1);
  std::atomic<bool> tooSoon{false};
  addHeld(deliveries, 2);
  add(deliveries, [&] { tooSoon = last_.expired(); });
  run(deliveries, queue);
  EXPECT_TRUE(eventually([&] { return begun_ == 1; }));
  keep(deliveries);
  EXPECT_FALSE(last_.expired());
  gate_.open();
  EXPECT_TRUE(queue.waitIdle());
  EXPECT_EQ(begun_, 2);
  EXPECT_FALSE(tooSoon);
  EXPECT_TRUE(last_.expired());
}

TEST_F(DeliveriesThatKeep, KeepWhatWasAddedAndIsNotUnderWayYet) {
  Deliveries deliveries(1);
  WorkQueue queue(1);
  std::atomic<int> called{0};
  add(deliveries, [&] { ++called; });
  keep(deliveries);
  run(deliveries, queue);
  EXPECT_TRUE(queue.waitIdle());
  EXPECT_EQ(called, 1);
  EXPECT_TRUE(last_.expired());
}

TEST_F(DeliveriesThatKeep, KeepNothingWhenNothingIsUnderWay) {
  Deliveries deliveries(1);
  WorkQueue queue(1);
  add(deliveries, [] {});
  run(deliveries, queue);
  EXPECT_TRUE(queue.waitIdle());
  keep(deliveries);
  EXPECT_TRUE(last_.expired());
}

TEST_F(DeliveriesThatKeep, KeepNothingThatWasNotAdded) {
  Deliveries deliveries(1);
  WorkQueue queue(1);
  addHeld(deliveries, 1);
  run(deliveries, queue);
  const auto called = std::move(subscriptions_);
  const auto other = std::make_shared<CallingSubscriber>([] {});
  subscriptions_ = {std::make_shared<Subscription<Subscriber>>(other)};
  keep(deliveries);
  EXPECT_TRUE(last_.expired());
  gate_.open();
  EXPECT_TRUE(queue.waitIdle());
}

// Others were added in their places since.
TEST_F(DeliveriesThatKeep, KeepNothingThatWasAddedForAnEarlierValueOnly) {
  Deliveries deliveries(1);
  WorkQueue queue(1);
  std::atomic<int> called{0};
  for (int i = 0; i < 3; ++i) add(deliveries, [&] { ++called; });
  const auto earlier = std::move(subscriptions_);
  run(deliveries, queue);
  EXPECT_TRUE(queue.waitIdle());
  EXPECT_EQ(called, 3);
  deliveries.clear();
  addHeld(deliveries, 2);
  run(deliveries, queue);
  const auto later = std::move(subscriptions_);
  for (const auto& one : earlier) {
    const std::weak_ptr<SubscriptionBase> watch = one;
    const auto before = watch.use_count();
    deliveries.keep({one});
    EXPECT_EQ(watch.use_count(), before);
  }
  for (const auto& one : later) {
    deliveries.keep({one});
    EXPECT_EQ(one.use_count(), 2);
  }
  gate_.open();
  EXPECT_TRUE(queue.waitIdle());
  for (const auto& one : later) EXPECT_EQ(one.use_count(), 1);
}

TEST_F(DeliveriesThatKeep, KeepNothingWithoutWorkers) {
  Deliveries deliveries(0);
  WorkQueue queue(0);
  add(deliveries, [] {});
  run(deliveries, queue);
  keep(deliveries);
  EXPECT_TRUE(last_.expired());
}

// However long the list is: nobody is served meanwhile.
TEST_F(DeliveriesThatKeep, TellWhatWasNotAddedWithoutAnAllocation) {
  constexpr int kEnough = 1000;
  Deliveries deliveries(1);
  WorkQueue queue(1);
  addHeld(deliveries, 100);
  run(deliveries, queue);
  keep(deliveries);
  const auto other = std::make_shared<CallingSubscriber>([] {});
  subscriptions_ = {std::make_shared<Subscription<Subscriber>>(other)};
  allocationsLeft = kEnough;
  keep(deliveries);
  EXPECT_EQ(std::exchange(allocationsLeft, -1), kEnough);
  EXPECT_TRUE(last_.expired());
  gate_.open();
  EXPECT_TRUE(queue.waitIdle());
  EXPECT_EQ(begun_, 100);
}

class DeliveriesDeathTest : public DeliveriesThatKeep {
 protected:
  DeliveriesDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  void keepWithoutMemory() {
    Deliveries deliveries(1);
    WorkQueue queue(1);
    addHeld(deliveries, 2);
    run(deliveries, queue);
    eventually([this] { return begun_ == 1; });  // so that callbacks stay under way
    for (auto& subscription : subscriptions_) subscription = endingTheProcess(subscription);
    runsOutOfMemory(0, [&] { keep(deliveries); });
    std::_Exit(0);
  }

 private:
  // Where it is released, which is the mistake.
  static std::shared_ptr<SubscriptionBase> endingTheProcess(
      const std::shared_ptr<SubscriptionBase>& subscription) {
    return {subscription.get(), [owner = subscription](SubscriptionBase*) { std::_Exit(0); }};
  }
};

// Whoever went on would have released what a worker may be about to call. Not every compiler names
// the exception where noexcept ends the process.
TEST_F(DeliveriesDeathTest, KeepingWithoutMemoryEndsTheProcess) {
  EXPECT_EXIT(keepWithoutMemory(), ::testing::KilledBySignal(SIGABRT), "terminate called");
}

TEST_F(DeliveriesThatKeep, GiveBackWhatIsNotCalledAnyMore) {
  Deliveries deliveries(1);
  WorkQueue queue(1);
  addHeld(deliveries, 2);
  run(deliveries, queue);
  EXPECT_TRUE(eventually([&] { return begun_ == 1; }));
  keep(deliveries);
  deliveries.abandon();
  gate_.open();
  EXPECT_TRUE(queue.waitIdle());
  EXPECT_FALSE(last_.expired());
  EXPECT_EQ(deliveries.takeBack().size(), 2U);
  EXPECT_TRUE(last_.expired());
}

TEST_F(DeliveriesTest, TheValueIsReleasedWhenTheLastCallbackHasReturned) {
  Deliveries deliveries(3);
  WorkQueue queue(3);
  std::atomic<bool> tooSoon{false};
  for (int i = 0; i < 20; ++i) {
    add(deliveries, [&] {
      if (value_.released()) tooSoon = true;
    });
  }
  run(deliveries, queue);
  deliveries.callWorkers(queue);
  EXPECT_TRUE(queue.waitIdle());
  EXPECT_FALSE(tooSoon);
  EXPECT_TRUE(value_.released());
}

TEST_F(DeliveriesTest, AValueForNobodyIsReleasedAtOnce) {
  Deliveries deliveries(1);
  WorkQueue queue(1);
  run(deliveries, queue);
  EXPECT_TRUE(value_.released());
  EXPECT_TRUE(queue.waitIdle());
}

TEST_F(DeliveriesTest, WhatIsAbandonedDoesNotBegin) {
  Deliveries deliveries(2);
  WorkQueue queue(2);
  addHeld(deliveries, 100);
  run(deliveries, queue);
  deliveries.callWorkers(queue);
  EXPECT_TRUE(eventually([&] { return begun_ == 2; }));
  deliveries.abandon();
  gate_.open();
  EXPECT_TRUE(queue.waitIdle());
  EXPECT_EQ(begun_, 2);
  deliveries.clear();
  EXPECT_TRUE(value_.released());
}

TEST_F(DeliveriesTest, WithoutWorkersTheQueueIsNeverIdleAgain) {
  Deliveries deliveries(0);
  WorkQueue queue(0);
  bool called = false;
  add(deliveries, [&] { called = true; });
  run(deliveries, queue);
  queue.cancelWaits();
  EXPECT_FALSE(queue.waitIdle());
  EXPECT_FALSE(called);
}

TEST_F(DeliveriesTest, WorkersKnowWhomTheyServe) {
  Deliveries deliveries(1);
  const Deliveries other(1);
  WorkQueue queue(1);
  bool own = false;
  bool others = true;
  add(deliveries, [&] {
    own = deliveries.isOnWorker();
    others = other.isOnWorker();
  });
  run(deliveries, queue);
  EXPECT_TRUE(queue.waitIdle());
  EXPECT_TRUE(own);
  EXPECT_FALSE(others);
  EXPECT_FALSE(deliveries.isOnWorker());
}

TEST_F(DeliveriesTest, AreNotFinishedOnceWaitingIsCancelled) {
  Deliveries deliveries(1);
  WorkQueue queue(1);
  EXPECT_TRUE(deliveries.finish(queue));
  addHeld(deliveries, 1);
  run(deliveries, queue);
  queue.cancelWaits();
  EXPECT_FALSE(deliveries.finish(queue));  // returns, though the callback has not
  gate_.open();
}

}  // namespace
}  // namespace tessel::test
