// Threads that cannot be started. In a program of its own, since it stands in for the system's
// function that starts them: limits of the system do not bind root, nor sanitizers.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <system_error>

#include "transport/work_queue.h"

namespace {

// How many more threads may be started; -1 for as many as one likes.
std::atomic<int> threadsLeft{-1};
std::atomic<int> threadsStarted{0};

}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*start)(void*), void* argument) noexcept {
  static const auto real =
      reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
  if (threadsLeft.load() == 0) return EAGAIN;
  if (threadsLeft.load() > 0) --threadsLeft;
  ++threadsStarted;
  return real(thread, attributes, start, argument);
}

namespace tessel::test {
namespace {

TEST(WorkQueueThreads, ThoseStartedAreEndedWhenAFurtherOneCannotBeStarted) {
  for (int allowed = 0; allowed < 4; ++allowed) {
    threadsStarted = 0;
    threadsLeft = allowed;
    try {
      const WorkQueue queue(4);
      ADD_FAILURE() << "the queue was made with " << allowed << " threads";
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code(), std::errc::resource_unavailable_try_again);
    }
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

TEST(WorkQueueThreads, MoreThreadsThanFitInMemoryAreRefused) {
  EXPECT_THROW(WorkQueue(static_cast<std::size_t>(-1)), std::exception);
}

}  // namespace
}  // namespace tessel::test
