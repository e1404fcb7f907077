#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tessel/rpc_dispatcher.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>

#include "support/no_hang.h"
#include "support/rpc_peers.h"
#include "support/threads.h"

namespace tessel::test {
namespace {

using testing::ElementsAre;

static_assert(std::is_abstract<RpcDispatcher>::value, "an application may bring its own");
static_assert(std::is_abstract<RpcRequest>::value, "the broker brings it");
static_assert(std::is_base_of<RpcDispatcher, ThreadedRpcDispatcher>::value, "");
static_assert(std::has_virtual_destructor<RpcDispatcher>::value, "held polymorphically");
static_assert(std::has_virtual_destructor<RpcRequest>::value, "held polymorphically");
static_assert(!std::is_copy_constructible<ThreadedRpcDispatcher>::value, "it owns threads");
static_assert(std::is_default_constructible<ThreadedRpcDispatcher>::value, "four threads");

class FunctionRequest : public RpcRequest {
 public:
  explicit FunctionRequest(std::function<void()> function) : function_(std::move(function)) {}
  std::string getServiceName() const override { return "service"; }
  std::string getInstanceName() const override { return "instance"; }
  std::string getMethodName() const override { return "method"; }
  void execute() override { function_(); }

 private:
  const std::function<void()> function_;
};

std::shared_ptr<RpcRequest> request(std::function<void()> function) {
  return std::make_shared<FunctionRequest>(std::move(function));
}

// Requests that wait at a gate, and how many of them have come as far.
struct Crowd {
  std::shared_ptr<RpcRequest> member() {
    return request([this] {
      ++entered;
      gate.pass();
      ++left;
    });
  }
  bool waitForEntered(int count) {
    return eventually([&] { return entered == count; });
  }

  std::atomic<int> entered{0};
  std::atomic<int> left{0};
  Gate gate;
};

TEST(ThreadedRpcDispatcher, StartsNoThreadBeforeItIsStarted) {
  const int before = threadCount();
  ThreadedRpcDispatcher dispatcher(8);
  EXPECT_EQ(threadCount(), before);
  dispatcher.start();
  EXPECT_EQ(threadCount(), before + 8);
  dispatcher.stop();
  EXPECT_TRUE(eventually([&] { return threadCount() == before; }));
}

TEST(ThreadedRpcDispatcher, RunsFourRequestsAtOnceByDefault) {
  Crowd crowd;
  ThreadedRpcDispatcher dispatcher;
  dispatcher.start();
  for (int i = 0; i < 5; ++i) dispatcher.submit(crowd.member());
  ASSERT_TRUE(crowd.waitForEntered(4));
  const int before = threadCount();
  crowd.gate.open();
  EXPECT_TRUE(eventually([&] { return crowd.left == 5; }));
  EXPECT_EQ(threadCount(), before);
}

TEST(ThreadedRpcDispatcher, HasFourThreadsByDefault) {
  const int before = threadCount();
  ThreadedRpcDispatcher dispatcher;
  dispatcher.start();
  EXPECT_EQ(threadCount(), before + 4);
}

TEST(ThreadedRpcDispatcher, WithOneThreadRunsInOrderOfArrivalOneAtATime) {
  Journal journal;
  std::atomic<int> running{0};
  ThreadedRpcDispatcher dispatcher(1);
  dispatcher.start();
  for (int i = 0; i < 200; ++i) {
    dispatcher.submit(request([&, i] {
      const int together = ++running;
      journal.add(std::to_string(i) + (together == 1 ? "" : " not alone"));
      --running;
    }));
  }
  Lines expected;
  for (int i = 0; i < 200; ++i) expected.push_back(std::to_string(i));
  EXPECT_EQ(journal.lines(200), expected);
}

TEST(ThreadedRpcDispatcher, WithoutThreadsAcceptsRequestsAndNeverRunsThem) {
  std::atomic<bool> ran{false};
  std::weak_ptr<RpcRequest> kept;
  {
    ThreadedRpcDispatcher dispatcher(0);
    dispatcher.start();
    auto submitted = request([&] { ran = true; });
    kept = submitted;
    dispatcher.submit(std::move(submitted));
    EXPECT_FALSE(kept.expired());
    withoutHanging("stop", [&] { dispatcher.stop(); });
    EXPECT_TRUE(kept.expired());
  }
  EXPECT_FALSE(ran);
}

TEST(ThreadedRpcDispatcher, KeepsARequestUntilItHasRunAndNoLonger) {
  Crowd crowd;
  ThreadedRpcDispatcher dispatcher(1);
  dispatcher.start();
  auto submitted = crowd.member();
  const std::weak_ptr<RpcRequest> kept = submitted;
  dispatcher.submit(std::move(submitted));
  ASSERT_TRUE(crowd.waitForEntered(1));
  EXPECT_FALSE(kept.expired());
  crowd.gate.open();
  EXPECT_TRUE(eventually([&] { return kept.expired(); }));
}

// Opens the gate once the stop has begun, as far as that can be seen.
template <typename Stop>
void stopWhileBusy(Crowd& crowd, const Stop& stop) {
  std::atomic<int> stopping{0};
  ScopedThread opener([&] {
    eventually([&] { return stopping != 0; });
    waitUntilAsleep(stopping);
    crowd.gate.open();
  });
  stopping = thisThread();
  stop();
}

TEST(ThreadedRpcDispatcher, StopWaitsForWhatRunsAndDropsWhatIsQueued) {
  Crowd crowd;
  ThreadedRpcDispatcher dispatcher(2);
  dispatcher.start();
  for (int i = 0; i < 2; ++i) dispatcher.submit(crowd.member());
  ASSERT_TRUE(crowd.waitForEntered(2));
  auto queued = crowd.member();
  const std::weak_ptr<RpcRequest> dropped = queued;
  dispatcher.submit(std::move(queued));
  stopWhileBusy(crowd, [&] { dispatcher.stop(); });
  EXPECT_EQ(crowd.left, 2);
  EXPECT_EQ(crowd.entered, 2);
  EXPECT_TRUE(dropped.expired());
}

TEST(ThreadedRpcDispatcher, DestructionIsAStop) {
  Crowd crowd;
  auto dispatcher = std::make_unique<ThreadedRpcDispatcher>(1);
  dispatcher->start();
  dispatcher->submit(crowd.member());
  ASSERT_TRUE(crowd.waitForEntered(1));
  auto queued = crowd.member();
  const std::weak_ptr<RpcRequest> dropped = queued;
  dispatcher->submit(std::move(queued));
  stopWhileBusy(crowd, [&] { dispatcher.reset(); });
  EXPECT_EQ(crowd.left, 1);
  EXPECT_EQ(crowd.entered, 1);
  EXPECT_TRUE(dropped.expired());
}

TEST(ThreadedRpcDispatcher, StopWithoutStartDoesNothing) {
  ThreadedRpcDispatcher dispatcher(2);
  dispatcher.stop();
  dispatcher.start();
  dispatcher.stop();
  dispatcher.stop();
}

TEST(ThreadedRpcDispatcher, RunsAgainAfterAStop) {
  Journal journal;
  ThreadedRpcDispatcher dispatcher(1);
  for (int round = 1; round <= 3; ++round) {
    dispatcher.start();
    dispatcher.submit(
        request([&journal, round] { journal.add("round " + std::to_string(round)); }));
    EXPECT_TRUE(journal.waitFor(static_cast<std::size_t>(round)));
    dispatcher.stop();
  }
  EXPECT_THAT(journal.lines(), ElementsAre("round 1", "round 2", "round 3"));
}

TEST(ThreadedRpcDispatcher, StartOnAStartedOneBeginsAfreshAndDropsWhatIsQueued) {
  Crowd crowd;
  Journal journal;
  const int before = threadCount();
  ThreadedRpcDispatcher dispatcher(1);
  dispatcher.start();
  dispatcher.submit(crowd.member());
  ASSERT_TRUE(crowd.waitForEntered(1));
  auto queued = crowd.member();
  const std::weak_ptr<RpcRequest> dropped = queued;
  dispatcher.submit(std::move(queued));
  stopWhileBusy(crowd, [&] { dispatcher.start(); });
  EXPECT_EQ(crowd.left, 1);
  EXPECT_TRUE(dropped.expired());
  dispatcher.submit(request([&] { journal.add("ran"); }));
  EXPECT_THAT(journal.lines(1), ElementsAre("ran"));
  EXPECT_EQ(crowd.entered, 1);
  EXPECT_TRUE(eventually([&] { return threadCount() == before + 1; }));
}

// Tells when it is dropped, on the thread that drops it.
class DroppedRequest : public FunctionRequest {
 public:
  explicit DroppedRequest(std::function<void()> dropped)
      : FunctionRequest([] {}), dropped_(std::move(dropped)) {}
  ~DroppedRequest() override { dropped_(); }

 private:
  const std::function<void()> dropped_;
};

TEST(ThreadedRpcDispatcher, InstallsTheNewQueueBeforeItEndsTheOldOne) {
  Crowd crowd;
  Journal journal;
  ThreadedRpcDispatcher dispatcher(1);
  dispatcher.start();
  dispatcher.submit(crowd.member());
  ASSERT_TRUE(crowd.waitForEntered(1));
  dispatcher.submit(std::make_shared<DroppedRequest>(
      [&] { dispatcher.submit(request([&] { journal.add("ran on the new queue"); })); }));
  stopWhileBusy(crowd, [&] { dispatcher.start(); });
  EXPECT_THAT(journal.lines(1), ElementsAre("ran on the new queue"));
}

TEST(ThreadedRpcDispatcher, IsStoppedAlreadyWhileTheOldQueueEnds) {
  Crowd crowd;
  int stops = 0;
  ThreadedRpcDispatcher dispatcher(1);
  dispatcher.start();
  dispatcher.submit(crowd.member());
  ASSERT_TRUE(crowd.waitForEntered(1));
  dispatcher.submit(std::make_shared<DroppedRequest>([&] {
    dispatcher.stop();  // finds nothing to stop
    ++stops;
  }));
  stopWhileBusy(crowd, [&] { dispatcher.stop(); });
  EXPECT_EQ(stops, 1);
}

}  // namespace
}  // namespace tessel::test
