#include "transport/zmq_context.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <set>
#include <thread>
#include <vector>

namespace tessel::test {
namespace {

TEST(ZmqContext, IsOneForAllThreadsThatUseItFirstAtTheSameTime) {
  constexpr std::size_t kThreads = 8;
  std::vector<void*> handles(kThreads);
  std::atomic<std::size_t> ready{0};
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      ++ready;
      while (ready.load() < kThreads) {
      }
      handles[i] = ZmqContext::handle();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::set<void*>(handles.begin(), handles.end()).size(), 1U);
  EXPECT_NE(handles[0], nullptr);
  EXPECT_EQ(ZmqContext::handle(), handles[0]);
}

}  // namespace
}  // namespace tessel::test
