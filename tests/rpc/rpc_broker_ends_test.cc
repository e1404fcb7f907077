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

TEST(RpcBrokerEnds, KeptRequestsRunAfterTheMasterIsGoneAndLeaveNoSockets) {
  const Watchdog watchdog("requests of a master that is gone");
  const NoSocketsLeft check;
  for (int round = 0; round < 10; ++round) {
    const std::string endpoint = uniqueInproc();
    const auto dispatcher = std::make_shared<KeepingDispatcher>();
    std::atomic<int> ran{0};
    const auto service = makeService("s", "i", [&](const auto&, const std::string& data) {
      ++ran;
      return data;
    });
    RawPeer client(ZMQ_DEALER);
    client.connect(endpoint);
    auto broker = std::make_unique<RpcBroker>(true, std::vector<std::string>{endpoint}, dispatcher);
    broker->registerService(service);
    broker->start();
    for (int i = 0; i < 160; ++i) client.send(request("s", "i"));
    ASSERT_TRUE(eventually([&] { return dispatcher->size() == 160; }));
    Requests requests = dispatcher->take();
    // A thread that has answered before, and others that begin afterwards.
    requests.front()->execute();
    EXPECT_EQ(client.receive().size(), 6U);
    requests.erase(requests.begin());
    broker.reset();
    requests.front()->execute();
    requests.erase(requests.begin());
    executeOnThreads(requests, 16);
    EXPECT_EQ(ran, 160);
  }
}

TEST(RpcBrokerEnds, AKeptRequestRunsAfterTheMasterIsGoneAlsoWhenNoSocketIsLeft) {
  const Watchdog watchdog("a request without sockets");
  const std::string endpoint = uniqueInproc();
  const auto dispatcher = std::make_shared<KeepingDispatcher>();
  std::atomic<int> ran{0};
  const auto service = makeService("s", "i", [&](const auto&, const std::string& data) {
    ++ran;
    return data;
  });
  auto broker = std::make_unique<RpcBroker>(true, std::vector<std::string>{endpoint}, dispatcher);
  broker->registerService(service);
  broker->start();
  RawPeer client(ZMQ_DEALER);
  client.connect(endpoint);
  for (int i = 0; i < 2; ++i) client.send(request("s", "i"));
  ASSERT_TRUE(eventually([&] { return dispatcher->size() == 2; }));
  const Requests requests = dispatcher->take();
  requests[0]->execute();  // this thread has its socket for replies
  broker.reset();
  const SocketBudget everySocket;
  EXPECT_NO_THROW(requests[1]->execute());
  EXPECT_EQ(ran, 2);
}

TEST(RpcBrokerEnds, KeptRequestsRunWhileTheMasterIsDestroyedAndLeaveNoSockets) {
  const Watchdog watchdog("requests of a master that goes");
  const NoSocketsLeft check;
  for (int round = 0; round < 100; ++round) {
    const std::string endpoint = uniqueInproc();
    const auto dispatcher = std::make_shared<KeepingDispatcher>();
    std::atomic<int> ran{0};
    const auto service = makeService("s", "i", [&](const auto&, const std::string& data) {
      ++ran;
      return data;
    });
    RawPeer client(ZMQ_DEALER);
    client.connect(endpoint);
    auto broker = std::make_unique<RpcBroker>(true, std::vector<std::string>{endpoint}, dispatcher);
    broker->registerService(service);
    broker->start();
    for (int i = 0; i < 64; ++i) client.send(request("s", "i"));
    ASSERT_TRUE(eventually([&] { return dispatcher->size() == 64; }));
    const Requests requests = dispatcher->take();
    std::thread ender([&] {
      eventually([&] { return ran > 0; });
      broker.reset();
    });
    executeOnThreads(requests, 8);
    ender.join();
    EXPECT_EQ(ran, 64);
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
  RpcClient probe(endpoint, milliseconds(100));
  EXPECT_TRUE(eventually([&] { return outcome(probe, "released", "i") == "timeout"; }));
  dispatcher->take().clear();
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
  // More may come: of the probe's last call.
  Requests requests;
  int asked = 0;
  ASSERT_TRUE(eventually([&] {
    for (auto& one : dispatcher->take()) {
      requests.push_back(std::move(one));
      ++asked;
    }
    return asked >= 8;
  }));
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
    executeOnThreads(dispatcher->take(), 32);
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
