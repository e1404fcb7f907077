#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tessel/rpc_dispatcher.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
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

// How many threads the process has without those of dispatchers. A sanitizer starts one of its own
// with the first, and those that have ended count for a moment more.
int otherThreads() {
  Gate gate;
  ScopedThread thread([&] { gate.pass(); });
  const int count = threadCount() - 1;
  gate.open();
  return count;
}
bool becomesThreadCount(int count) {
  return eventually([&] { return threadCount() == count; });
}

TEST(ThreadedRpcDispatcher, StartsNoThreadBeforeItIsStarted) {
  const int before = otherThreads();
  ThreadedRpcDispatcher dispatcher(8);
  EXPECT_TRUE(becomesThreadCount(before));
  dispatcher.start();
  EXPECT_TRUE(becomesThreadCount(before + 8));
  dispatcher.stop();
  EXPECT_TRUE(becomesThreadCount(before));
}

TEST(ThreadedRpcDispatcher, RunsFourRequestsAtOnceByDefault) {
  Crowd crowd;
  ThreadedRpcDispatcher dispatcher;
  dispatcher.start();
  for (int i = 0; i < 5; ++i) dispatcher.submit(crowd.member());
  ASSERT_TRUE(crowd.waitForEntered(4));
  crowd.gate.open();
  EXPECT_TRUE(eventually([&] { return crowd.left == 5; }));
}

TEST(ThreadedRpcDispatcher, HasFourThreadsByDefault) {
  const int before = otherThreads();
  ThreadedRpcDispatcher dispatcher;
  dispatcher.start();
  EXPECT_TRUE(becomesThreadCount(before + 4));
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

// Opens the gate when the call of this thread seems to wait; a wrong guess does no harm.
template <typename Call>
void callWhileBusy(Crowd& crowd, const Call& call) {
  std::atomic<int> calling{0};
  ScopedThread opener([&] {
    eventually([&] { return calling != 0; });
    waitUntilAsleep(calling);
    crowd.gate.open();
  });
  calling = thisThread();
  call();
}

TEST(ThreadedRpcDispatcher, StopWaitsForWhatRuns) {
  Crowd crowd;
  ThreadedRpcDispatcher dispatcher(2);
  dispatcher.start();
  for (int i = 0; i < 2; ++i) dispatcher.submit(crowd.member());
  ASSERT_TRUE(crowd.waitForEntered(2));
  callWhileBusy(crowd, [&] { dispatcher.stop(); });
  EXPECT_EQ(crowd.left, 2);
}

TEST(ThreadedRpcDispatcher, DestructionWaitsForWhatRuns) {
  Crowd crowd;
  auto dispatcher = std::make_unique<ThreadedRpcDispatcher>(1);
  dispatcher->start();
  dispatcher->submit(crowd.member());
  ASSERT_TRUE(crowd.waitForEntered(1));
  callWhileBusy(crowd, [&] { dispatcher.reset(); });
  EXPECT_EQ(crowd.left, 1);
}

TEST(ThreadedRpcDispatcher, StartOnAStartedOneWaitsForWhatRuns) {
  Crowd crowd;
  Journal journal;
  const int before = otherThreads();
  ThreadedRpcDispatcher dispatcher(1);
  dispatcher.start();
  dispatcher.submit(crowd.member());
  ASSERT_TRUE(crowd.waitForEntered(1));
  callWhileBusy(crowd, [&] { dispatcher.start(); });
  EXPECT_EQ(crowd.left, 1);
  dispatcher.submit(request([&] { journal.add("ran"); }));
  EXPECT_THAT(journal.lines(1), ElementsAre("ran"));
  EXPECT_TRUE(becomesThreadCount(before + 1));
}

// Far more requests than can have been run when they are dropped.
struct Backlog {
  explicit Backlog(RpcDispatcher& dispatcher) {
    std::shared_ptr<RpcRequest> last;
    for (int i = 0; i < kRequests; ++i) {
      last = request([this] {
        ++begun;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        ++ended;
      });
      dispatcher.submit(last);
    }
    newest = last;
    EXPECT_TRUE(eventually([this] { return begun != 0; }));
  }
  void expectDropped() const {
    EXPECT_TRUE(newest.expired());
    EXPECT_LT(begun, kRequests);
    EXPECT_EQ(begun, ended);
  }

  static constexpr int kRequests = 2000;
  std::atomic<int> begun{0};
  std::atomic<int> ended{0};
  std::weak_ptr<RpcRequest> newest;
};

TEST(ThreadedRpcDispatcher, StopDropsWhatIsQueued) {
  ThreadedRpcDispatcher dispatcher(2);
  dispatcher.start();
  const Backlog backlog(dispatcher);
  dispatcher.stop();
  backlog.expectDropped();
}

TEST(ThreadedRpcDispatcher, DestructionDropsWhatIsQueued) {
  auto dispatcher = std::make_unique<ThreadedRpcDispatcher>(2);
  dispatcher->start();
  const Backlog backlog(*dispatcher);
  dispatcher.reset();
  backlog.expectDropped();
}

TEST(ThreadedRpcDispatcher, StartOnAStartedOneDropsWhatIsQueued) {
  ThreadedRpcDispatcher dispatcher(2);
  dispatcher.start();
  const Backlog backlog(dispatcher);
  dispatcher.start();
  backlog.expectDropped();
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

// Tells when it is dropped, on the thread that drops it.
class DroppedRequest : public FunctionRequest {
 public:
  explicit DroppedRequest(std::function<void()> dropped)
      : FunctionRequest([] {}), dropped_(std::move(dropped)) {}
  ~DroppedRequest() override { dropped_(); }

 private:
  const std::function<void()> dropped_;
};

// Without threads, so that a start drops what is queued on the thread that calls it.
TEST(ThreadedRpcDispatcher, InstallsTheNewQueueBeforeItEndsTheOldOne) {
  auto next = request([] {});
  const std::weak_ptr<RpcRequest> submitted = next;
  ThreadedRpcDispatcher dispatcher(0);
  dispatcher.start();
  dispatcher.submit(std::make_shared<DroppedRequest>([&] { dispatcher.submit(std::move(next)); }));
  dispatcher.start();
  EXPECT_FALSE(submitted.expired());
  dispatcher.stop();
  EXPECT_TRUE(submitted.expired());
}

TEST(ThreadedRpcDispatcher, IsStoppedAlreadyWhileTheOldQueueEnds) {
  int stops = 0;
  ThreadedRpcDispatcher dispatcher(0);
  dispatcher.start();
  dispatcher.submit(std::make_shared<DroppedRequest>([&] {
    dispatcher.stop();  // finds nothing to stop
    ++stops;
  }));
  dispatcher.stop();
  EXPECT_EQ(stops, 1);
}

}  // namespace
}  // namespace tessel::test
