#include "pubsub/deliveries.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "support/deadline.h"
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
    deliveries.add(std::make_shared<Subscription<Subscriber>>(subscriber));
  }
  void run(Deliveries& deliveries, WorkQueue& queue) {
    deliveries.run(value_.notification(), queue);
  }

  WatchedValue value_;
  std::vector<std::shared_ptr<CallingSubscriber>> subscribers_;
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
  Gate gate;
  std::atomic<int> others{0};
  add(deliveries, [&] { gate.pass(); });
  for (int i = 0; i < 50; ++i) add(deliveries, [&] { ++others; });
  run(deliveries, queue);
  deliveries.callWorkers(queue);
  EXPECT_TRUE(eventually([&] { return others == 50; }));
  gate.open();
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
  Gate gate;
  std::atomic<int> begun{0};
  for (int i = 0; i < 100; ++i) {
    add(deliveries, [&] {
      ++begun;
      gate.pass();
    });
  }
  run(deliveries, queue);
  deliveries.callWorkers(queue);
  EXPECT_TRUE(eventually([&] { return begun == 2; }));
  deliveries.abandon();
  gate.open();
  EXPECT_TRUE(queue.waitIdle());
  EXPECT_EQ(begun, 2);
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
  Gate gate;
  Deliveries deliveries(1);
  WorkQueue queue(1);
  EXPECT_TRUE(deliveries.finish(queue));
  add(deliveries, [&] { gate.pass(); });
  run(deliveries, queue);
  queue.cancelWaits();
  EXPECT_FALSE(deliveries.finish(queue));  // returns, though the callback has not
  gate.open();
}

}  // namespace
}  // namespace tessel::test
