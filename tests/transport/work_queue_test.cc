#include "transport/work_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/deadline.h"
#include "support/threads.h"

namespace tessel::test {
namespace {

// A captured object that says when the task that holds it is destroyed.
class Ending {
 public:
  explicit Ending(std::function<void()> say) : say_(std::move(say)) {}
  ~Ending() { say_(); }
  Ending(const Ending&) = delete;
  Ending& operator=(const Ending&) = delete;

 private:
  std::function<void()> say_;
};

// Long enough for something that must not happen to be seen.
constexpr std::chrono::milliseconds kWhile{50};

// A task that waits at a gate, and whether it has begun.
class HeldTask {
 public:
  WorkQueue::Task task() {
    return [this] {
      begun_ = true;
      gate_.pass();
      done_ = true;
    };
  }
  bool waitUntilBegun() {
    return eventually([this] { return begun_.load(); });
  }
  void letGo() { gate_.open(); }
  bool done() const { return done_; }

 private:
  std::atomic<bool> begun_{false};
  std::atomic<bool> done_{false};
  Gate gate_;
};

TEST(WorkQueue, RunsATaskOnAThreadOfItsOwn) {
  std::thread::id ranOn;
  WorkQueue queue(1);
  queue.push([&] { ranOn = std::this_thread::get_id(); });
  EXPECT_TRUE(queue.waitIdle());
  EXPECT_NE(ranOn, std::thread::id());
  EXPECT_NE(ranOn, std::this_thread::get_id());
}

TEST(WorkQueue, WithOneWorkerRunsTasksInOrderOneAtATime) {
  std::vector<int> order;  // unguarded: a second task at the same time would be a data race
  std::atomic<int> running{0};
  int most = 0;
  {
    WorkQueue queue(1);
    for (int i = 0; i < 1000; ++i) {
      queue.push([&, i] {
        most = std::max(most, ++running);
        order.push_back(i);
        --running;
      });
    }
    EXPECT_TRUE(queue.waitIdle());
  }
  ASSERT_EQ(order.size(), 1000U);
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
  EXPECT_EQ(most, 1);
}

// A queue that knows its threads.
class WatchedQueue {
 public:
  explicit WatchedQueue(std::size_t threads) : queue_(threads), workers_(threadNumbers()) {
    for (const int thread : before_) workers_.erase(thread);
  }
  WorkQueue& queue() { return queue_; }
  void waitUntilAsleep() const {
    for (const int worker : workers_) test::waitUntilAsleep(worker);
  }

 private:
  const std::set<int> before_ = threadNumbers();
  WorkQueue queue_;
  std::set<int> workers_;
};

TEST(WorkQueue, WithSeveralWorkersRunsAsManyTasksAtOnce) {
  constexpr int kWorkers = 4;
  WatchedQueue watched(kWorkers);
  WorkQueue& queue = watched.queue();
  for (int round = 0; round < 20; ++round) {
    if (round % 2 == 0) watched.waitUntilAsleep();
    std::atomic<int> here{0};
    std::atomic<bool> allMet{true};
    for (int i = 0; i < kWorkers; ++i) {
      queue.push([&] {
        ++here;
        if (!eventually([&] { return here.load() >= kWorkers; })) allMet = false;
      });
    }
    EXPECT_TRUE(queue.waitIdle());
    ASSERT_TRUE(allMet.load()) << round;
  }
}

TEST(WorkQueue, HasNoMoreThreadsThanAskedFor) {
  std::mutex mutex;
  std::set<std::thread::id> threads;
  WorkQueue queue(3);
  for (int i = 0; i < 300; ++i) {
    queue.push([&] {
      const std::lock_guard<std::mutex> lock(mutex);
      threads.insert(std::this_thread::get_id());
    });
  }
  EXPECT_TRUE(queue.waitIdle());
  EXPECT_LE(threads.size(), 3U);
}

TEST(WorkQueue, TasksOvertakeOneThatTakesLong) {
  HeldTask held;
  WorkQueue queue(2);
  queue.push(held.task());
  std::atomic<int> others{0};
  for (int i = 0; i < 10; ++i) queue.push([&] { ++others; });
  EXPECT_TRUE(eventually([&] { return others.load() == 10; }));
  EXPECT_FALSE(held.done());
  held.letGo();
  EXPECT_TRUE(queue.waitIdle());
  EXPECT_TRUE(held.done());
}

TEST(WorkQueue, WakesForEveryTaskHoweverTheyCome) {
  // Workers go to sleep and are woken in all orders: a wake-up that is lost shows as a hang.
  for (const std::size_t workers : {1U, 2U, 5U}) {
    WorkQueue queue(workers);
    std::atomic<int> ran{0};
    int pushed = 0;
    for (int round = 0; round < 300; ++round) {
      const int count = round % 7 + 1;
      for (int i = 0; i < count; ++i) queue.push([&] { ++ran; });
      pushed += count;
      if (round % 3 == 0) queue.waitIdle();
      if (round % 5 == 0) std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    EXPECT_TRUE(queue.waitIdle());
    EXPECT_EQ(ran.load(), pushed);
  }
}

TEST(WorkQueue, TakesTasksFromManyThreads) {
  std::atomic<int> ran{0};
  WorkQueue queue(3);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) queue.push([&] { ++ran; });
      EXPECT_TRUE(queue.waitIdle());
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(queue.waitIdle());
  EXPECT_EQ(ran.load(), 2000);
}

TEST(WorkQueue, ATaskMayPushAnother) {
  std::atomic<int> ran{0};
  WorkQueue queue(1);
  std::function<void()> again = [&] {
    if (++ran < 100) queue.push(again);
  };
  queue.push(again);
  EXPECT_TRUE(queue.waitIdle());
  EXPECT_EQ(ran.load(), 100);
}

// ---- waitIdle

TEST(WorkQueue, WaitingWithNothingPushedReturnsAtOnce) {
  WorkQueue withWorkers(2);
  EXPECT_TRUE(withWorkers.waitIdle());
  WorkQueue withoutWorkers(0);
  EXPECT_TRUE(withoutWorkers.waitIdle());
}

TEST(WorkQueue, WaitingEndsOnlyWhenTheLastTaskHasReturned) {
  WorkQueue queue(2);
  for (int round = 0; round < 100; ++round) {
    std::atomic<int> returned{0};
    for (int i = 0; i < 3; ++i) {
      queue.push([&] {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        ++returned;
      });
    }
    ASSERT_TRUE(queue.waitIdle());
    ASSERT_EQ(returned.load(), 3) << round;
  }
}

TEST(WorkQueue, WaitingDoesNotEndWhileATaskRuns) {
  HeldTask held;
  WorkQueue queue(1);
  queue.push(held.task());
  ASSERT_TRUE(held.waitUntilBegun());  // out of the queue, and running
  std::atomic<bool> idle{false};
  std::thread waiting([&] { idle = queue.waitIdle(); });
  EXPECT_FALSE(eventually([&] { return idle.load(); }, kWhile));
  held.letGo();
  waiting.join();
  EXPECT_TRUE(idle.load());
  EXPECT_TRUE(held.done());
}

TEST(WorkQueue, EveryoneWhoWaitsIsWoken) {
  HeldTask held;
  WorkQueue queue(1);
  queue.push(held.task());
  std::atomic<int> idle{0};
  std::vector<std::thread> waiting;
  for (int i = 0; i < 3; ++i) {
    waiting.emplace_back([&] {
      if (queue.waitIdle()) ++idle;
    });
  }
  EXPECT_FALSE(eventually([&] { return idle.load() != 0; }, kWhile));  // all of them wait by then
  held.letGo();
  for (std::thread& thread : waiting) thread.join();
  EXPECT_EQ(idle.load(), 3);
}

TEST(WorkQueue, CanBeWaitedOnAgainAndAgain) {
  WorkQueue queue(2);
  std::atomic<int> ran{0};
  for (int i = 1; i <= 300; ++i) {
    queue.push([&] { ++ran; });
    ASSERT_TRUE(queue.waitIdle());
    ASSERT_EQ(ran.load(), i);
  }
}

TEST(WorkQueue, WithoutThreadsAcceptsTasksAndNeverRunsThem) {
  bool ran = false;
  std::atomic<bool> returned{false};
  WorkQueue queue(0);
  queue.push([&] { ran = true; });
  std::thread waiting([&] {
    EXPECT_FALSE(queue.waitIdle());
    returned = true;
  });
  EXPECT_FALSE(eventually([&] { return returned.load(); }, kWhile));  // it waits for ever
  queue.cancelWaits();
  waiting.join();
  EXPECT_FALSE(ran);
}

TEST(WorkQueue, CancellingEndsEveryWaitNowAndFromThenOn) {
  HeldTask held;
  WorkQueue queue(1);
  queue.push(held.task());
  std::atomic<int> cancelled{0};
  std::vector<std::thread> waiting;
  for (int i = 0; i < 3; ++i) {
    waiting.emplace_back([&] {
      if (!queue.waitIdle()) ++cancelled;
    });
  }
  EXPECT_FALSE(eventually([&] { return cancelled.load() != 0; }, kWhile));
  queue.cancelWaits();
  for (std::thread& thread : waiting) thread.join();
  EXPECT_EQ(cancelled.load(), 3);
  EXPECT_FALSE(queue.waitIdle());
  held.letGo();
  EXPECT_TRUE(eventually([&] { return held.done(); }));
  EXPECT_FALSE(queue.waitIdle());
  // Tasks are run all the same.
  std::atomic<bool> ran{false};
  queue.push([&] { ran = true; });
  EXPECT_TRUE(eventually([&] { return ran.load(); }));
}

// ---- what tasks hold

TEST(WorkQueue, ReleasesWhatATaskHoldsAfterItRan) {
  std::atomic<bool> released{false};
  std::atomic<bool> releasedTooSoon{false};
  WorkQueue queue(1);
  queue.push([&, held = std::make_shared<Ending>([&] { released = true; })] {
    releasedTooSoon = released.load();
  });
  // Without a further task and without the end of the queue.
  EXPECT_TRUE(eventually([&] { return released.load(); }));
  EXPECT_FALSE(releasedTooSoon.load());
}

TEST(WorkQueue, ATaskCountsNoMoreWhenWhatItHoldsIsReleased) {
  // What is released may wait for the queue: the task has returned.
  std::atomic<bool> idle{false};
  WorkQueue queue(1);
  queue.push([&, held = std::make_shared<Ending>([&] { idle = queue.waitIdle(); })] {});
  EXPECT_TRUE(eventually([&] { return idle.load(); }));
}

TEST(WorkQueue, WhatATaskHoldsMayPushInItsDestructor) {
  std::atomic<int> ran{0};
  WorkQueue queue(1);
  queue.push([&, held = std::make_shared<Ending>([&] { queue.push([&] { ++ran; }); })] { ++ran; });
  EXPECT_TRUE(eventually([&] { return ran.load() == 2; }));
}

// ---- the end

TEST(WorkQueue, WithIdleWorkersEndsAtOnce) {
  for (int round = 0; round < 100; ++round) const WorkQueue queue(3);
}

TEST(WorkQueue, WithoutThreadsDestroysItsTasksUnrun) {
  int destroyed = 0;
  bool ran = false;
  {
    WorkQueue queue(0);
    for (int i = 0; i < 3; ++i) {
      queue.push([&, held = std::make_shared<Ending>([&] { ++destroyed; })] { ran = true; });
    }
    EXPECT_EQ(destroyed, 0);
  }
  EXPECT_EQ(destroyed, 3);
  EXPECT_FALSE(ran);
}

TEST(WorkQueue, WhatADroppedTaskHoldsMayPushInItsDestructor) {
  std::atomic<int> destroyed{0};
  bool ran = false;
  {
    WorkQueue queue(0);
    for (int i = 0; i < 100; ++i) {
      queue.push([&, outer = std::make_shared<Ending>([&] {
                       ++destroyed;
                       queue.push([&, inner = std::make_shared<Ending>([&] { ++destroyed; })] {
                         ran = true;
                       });
                     })] { ran = true; });
    }
  }
  EXPECT_EQ(destroyed, 200);
  EXPECT_FALSE(ran);
}

TEST(WorkQueueDeathTest, ATaskThatThrowsEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        WorkQueue queue(1);
        queue.push([] { throw std::runtime_error("what the task threw"); });
        queue.waitIdle();
        std::this_thread::sleep_for(kPatience);
      },
      ::testing::KilledBySignal(SIGABRT), "what the task threw");
}

TEST(WorkQueueDeathTest, DestroyingTheQueueOnItsOwnWorkerEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        auto* queue = new WorkQueue(1);
        queue->push([queue] { delete queue; });
        std::this_thread::sleep_for(kPatience);
      },
      ::testing::KilledBySignal(SIGABRT), "terminate called");
}

}  // namespace
}  // namespace tessel::test
