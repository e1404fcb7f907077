#ifndef TESSEL_TESTS_SUPPORT_SLEEPING_THREAD_H
#define TESSEL_TESTS_SUPPORT_SLEEPING_THREAD_H

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <utility>

#include "support/threads.h"

namespace tessel::test {

/// Runs the function on a thread of its own, and returns when that sleeps: as far as one can tell,
/// because it waits for what the test does next.
template <typename Function>
std::unique_ptr<ScopedThread> runUntilAsleep(Function function) {
  std::promise<int> promise;
  std::future<int> thread = promise.get_future();
  auto running = std::make_unique<ScopedThread>(
      [promise = std::move(promise), function = std::move(function)]() mutable {
        promise.set_value(thisThread());
        function();
      });
  EXPECT_TRUE(waitUntilAsleep(thread.get()));
  return running;
}

}  // namespace tessel::test

#endif
