// Threads that cannot be started, and the moment when they are waited for. In a program of its own,
// since it stands in for the system's functions: limits of the system do not bind root, nor
// sanitizers.

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <memory>
#include <system_error>
#include <thread>

#include "support/deadline.h"
#include "support/stand_in.h"
#include "support/system_errors.h"
#include "support/watched_joins.h"
#include "transport/work_queue.h"

namespace {

// How many more threads may be started; -1 for as many as one likes.
std::atomic<int> threadsLeft{-1};
std::atomic<int> threadsStarted{0};

}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*start)(void*), void* argument) noexcept {
  static const auto create = tessel::test::real("pthread_create", &pthread_create);
  if (threadsLeft.load() == 0) return EAGAIN;
  if (threadsLeft.load() > 0) --threadsLeft;
  ++threadsStarted;
  return create(thread, attributes, start, argument);
}

namespace tessel::test {
namespace {

TEST(WorkQueueThreads, ThoseStartedAreEndedWhenAFurtherOneCannotBeStarted) {
  for (int allowed = 0; allowed < 4; ++allowed) {
    threadsStarted = 0;
    threadsLeft = allowed;
    EXPECT_EQ(systemErrorOf([] { WorkQueue(4); }), std::errc::resource_unavailable_try_again);
    threadsLeft = -1;
    EXPECT_EQ(threadsStarted.load(), allowed);
  }
}

TEST(WorkQueueThreads, AQueueStartsAsManyAsAskedFor) {
  for (const int count : {0, 1, 5}) {
    threadsStarted = 0;
    const WorkQueue queue(static_cast<std::size_t>(count));
    EXPECT_EQ(threadsStarted.load(), count);
  }
}

// A task that is held until the test lets it go.
class HeldTask {
 public:
  WorkQueue::Task task() {
    return [this] {
      begun.open();
      goOn.pass();
      done = true;
    };
  }
  Gate begun;
  Gate goOn;
  std::atomic<bool> done{false};
};

TEST(WorkQueueThreads, AQueueEndsAfterTheRunningTasksAndDestroysTheQueuedOnesUnrun) {
  HeldTask first;
  HeldTask second;
  std::atomic<int> ran{0};
  const auto held = std::make_shared<int>(0);
  auto queue = std::make_unique<WorkQueue>(2);
  queue->push(first.task());
  queue->push(second.task());
  first.begun.pass();
  second.begun.pass();
  for (int i = 0; i < 50; ++i) queue->push([&ran, held] { ++ran; });
  EXPECT_EQ(held.use_count(), 51);
  const int joins = joinsBegun;
  std::atomic<bool> ended{false};
  std::thread ending([&] {
    queue.reset();
    ended = true;
  });
  // Each worker is joined when all have been told that this is the end.
  EXPECT_TRUE(waitForJoins(joins, 1));
  EXPECT_FALSE(ended);
  first.goOn.open();
  EXPECT_TRUE(eventually([&] { return first.done.load(); }));
  EXPECT_FALSE(ended);
  second.goOn.open();
  ending.join();
  EXPECT_TRUE(second.done);
  EXPECT_EQ(ran, 0);
  EXPECT_EQ(held.use_count(), 1);
}

TEST(WorkQueueThreads, MoreThreadsThanFitInMemoryAreRefused) {
  EXPECT_THROW(WorkQueue(static_cast<std::size_t>(-1)), std::exception);
}

}  // namespace
}  // namespace tessel::test
