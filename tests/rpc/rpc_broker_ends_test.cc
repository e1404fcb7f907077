#include <thread>

#include "life_fixture.h"
#include "support/socket_budget.h"

namespace tessel::test {
namespace {

using Requests = std::vector<std::shared_ptr<RpcRequest>>;

// The threads end, and their sockets with them, after `meanwhile`.
void executeOnThreads(const Requests& requests, std::size_t threadCount,
                      const std::function<void()>& meanwhile = {}) {
  std::vector<std::thread> threads;
  Gate end;
  for (std::size_t i = 0; i < threadCount; ++i) {
    threads.emplace_back([&requests, &end, threadCount, i] {
      for (std::size_t k = i; k < requests.size(); k += threadCount) requests[k]->execute();
      end.pass();
    });
  }
  if (meanwhile) meanwhile();
  end.open();
  for (std::thread& thread : threads) thread.join();
}

// A master with requests to its service, which nobody has run yet.
struct MasterWithRequests {
  explicit MasterWithRequests(std::size_t count) {
    broker->registerService(service);
    broker->start();
    client.connect(endpoint);
    for (std::size_t i = 0; i < count; ++i) client.send(request("s", "i"));
    EXPECT_TRUE(eventually([&] { return dispatcher->size() == count; }));
    requests = dispatcher->takeAll();
  }

  std::atomic<std::size_t> ran{0};
  const std::shared_ptr<Service> service =
      makeService("s", "i", [this](const auto&, const std::string& data) {
        ++ran;
        return data;
      });
  const std::string endpoint = uniqueInproc();
  const std::shared_ptr<KeepingDispatcher> dispatcher = std::make_shared<KeepingDispatcher>();
  std::unique_ptr<RpcBroker> broker =
      std::make_unique<RpcBroker>(true, std::vector<std::string>{endpoint}, dispatcher);
  RawPeer client{ZMQ_DEALER};
  Requests requests;
};

TEST(RpcBrokerEnds, KeptRequestsRunAfterTheMasterIsGoneAndLeaveNoSockets) {
  const Watchdog watchdog("requests of a master that is gone");
  const NoSocketsLeft check;
  for (int round = 0; round < 10; ++round) {
    MasterWithRequests master(160);
    ASSERT_EQ(master.requests.size(), 160U);
    // A thread that has answered before, and others that begin afterwards.
    master.requests.front()->execute();
    EXPECT_EQ(master.client.receive().size(), 6U);
    master.broker.reset();
    master.requests[1]->execute();
    master.requests.erase(master.requests.begin(), master.requests.begin() + 2);
    executeOnThreads(master.requests, 16);
    EXPECT_EQ(master.ran, 160U);
  }
}

TEST(RpcBrokerEnds, AKeptRequestRunsAfterTheMasterIsGoneAlsoWhenNoSocketIsLeft) {
  const Watchdog watchdog("a request without sockets");
  MasterWithRequests master(2);
  ASSERT_EQ(master.requests.size(), 2U);
  master.requests[0]->execute();  // this thread has its socket for replies
  master.broker.reset();
  const SocketBudget everySocket;
  EXPECT_NO_THROW(master.requests[1]->execute());
  EXPECT_EQ(master.ran, 2U);
}

TEST(RpcBrokerEnds, KeptRequestsRunWhileTheMasterIsDestroyedAndLeaveNoSockets) {
  const Watchdog watchdog("requests of a master that goes");
  const NoSocketsLeft check;
  for (int round = 0; round < 100; ++round) {
    MasterWithRequests master(64);
    ASSERT_EQ(master.requests.size(), 64U);
    std::thread ender([&] {
      eventually([&] { return master.ran > 0; });
      master.broker.reset();
    });
    executeOnThreads(master.requests, 8);
    ender.join();
    EXPECT_EQ(master.ran, 64U);
  }
}

TEST(RpcBrokerEnds, KeptRequestsOfASlaveThatIsGoneAreAnsweredThroughTheMaster) {
  const Watchdog watchdog("requests of a slave that is gone");
  const std::string endpoint = freeTcp();
  const auto master = makeMaster({endpoint});
  master->start();
  const auto dispatcher = std::make_shared<KeepingDispatcher>();
  auto kept = makeEcho("kept", "i");
  auto slave = std::make_unique<RpcBroker>(false, std::vector<std::string>{endpoint}, dispatcher);
  slave->registerService(kept);
  slave->registerService(makeEcho("released", "i"));
  slave->start();
  std::thread probing([&] {  // whether the master knows the services
    RpcClient probe(endpoint, kLong);
    EXPECT_TRUE(eventually([&] { return outcome(probe, "released", "i") == "released/i/m/"; }));
  });
  EXPECT_TRUE(eventually([&] { return dispatcher->size() == 1; }));
  executeOnThreads(dispatcher->takeAll(), 1, [&] { probing.join(); });
  std::vector<std::thread> callers;
  std::atomic<int> right{0};
  for (int i = 0; i < 8; ++i) {
    callers.emplace_back([&, i] {
      RpcClient client(endpoint, kLong);
      const std::string service = i % 2 == 0 ? "kept" : "released";
      const std::string expected = i % 2 == 0 ? "kept/i/m/x" : notFound("released", "i");
      right += outcome(client, service, "i", "m", "x") == expected;
    });
  }
  EXPECT_TRUE(eventually([&] { return dispatcher->size() == 8; }));
  Requests requests = dispatcher->takeAll();
  slave.reset();
  executeOnThreads(requests, 4, [&] {
    for (std::thread& caller : callers) caller.join();
  });
  EXPECT_EQ(right, 8);
}

TEST(RpcBrokerEnds, KeptRequestsOfASlaveRunAfterItsMasterIsGoneToo) {
  const Watchdog watchdog("requests of a slave and a master that are gone");
  for (const std::string& endpoint : {freeTcp(), uniqueInproc()}) {
    const NoSocketsLeft check;
    auto raw = std::make_unique<RawMaster>(endpoint);
    const auto dispatcher = std::make_shared<KeepingDispatcher>();
    std::atomic<int> ran{0};
    const auto service = makeService("s", "i", [&](const auto&, const std::string& data) {
      ++ran;
      return data;
    });
    auto slave = std::make_unique<RpcBroker>(false, std::vector<std::string>{endpoint}, dispatcher);
    slave->registerService(service);
    slave->start();
    Frames asked = request("s", "i");
    asked.insert(asked.begin(), {raw->next().identity, "client"});
    for (int i = 0; i < 320; ++i) raw->router.send(asked);
    ASSERT_TRUE(eventually([&] { return dispatcher->size() == 320; }));
    slave.reset();
    raw.reset();
    executeOnThreads(dispatcher->takeAll(), 32);
    EXPECT_EQ(ran, 320);
  }
}

TEST(RpcBrokerEnds, AServiceThatDropsTheLastReferenceWithinItsCallIsNotDestroyedUnderIt) {
  const Watchdog watchdog("a broker let go by its service");
  auto broker = makeMaster({});
  const std::weak_ptr<RpcBroker> alive = broker;
  broker->registerService(makeService("s", "i", [&](const auto&, const std::string& data) {
    broker.reset();
    EXPECT_TRUE(alive.expired());  // stopped and gone here, and not only when the call is over
    return data;
  }));
  broker->start();
  RpcClient client(broker, milliseconds(1));
  EXPECT_EQ(outcome(client, "s", "i", "m", "x"), "x");
  EXPECT_EQ(outcome(client, "s", "i", "m", "x"), "timeout");
}

TEST(RpcBrokerEnds, ACallAsksTheLastReferenceOfItsBrokerToGoByTheApplicationOnly) {
  const Watchdog watchdog("the last reference during calls");
  for (int round = 0; round < 200; ++round) {
    auto broker = makeMaster({}, 1);
    const std::weak_ptr<RpcBroker> alive = broker;
    broker->registerService(makeEcho("s", "i"));
    broker->start();
    std::atomic<int> calls{0};
    std::thread caller([&, client = std::make_shared<RpcClient>(broker, milliseconds(0))] {
      while (outcome(*client, "s", "i") == "s/i/m/") ++calls;
    });
    ASSERT_TRUE(eventually([&] { return calls > 5; }));
    broker.reset();
    EXPECT_TRUE(alive.expired());
    caller.join();
  }
}

}  // namespace
}  // namespace tessel::test
