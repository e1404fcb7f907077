#include <thread>

#include "life_fixture.h"

namespace tessel::test {
namespace {

// Runs `body` again and again on some threads until the scope ends.
class Load {
 public:
  Load(int threads, const std::function<void(int)>& body) {
    for (int i = 0; i < threads; ++i) {
      threads_.emplace_back([this, i, body] {
        while (!over_) body(i);
      });
    }
  }
  ~Load() {
    over_ = true;
    for (std::thread& thread : threads_) thread.join();
  }
  Load(const Load&) = delete;
  Load& operator=(const Load&) = delete;

 private:
  std::atomic<bool> over_{false};
  std::vector<std::thread> threads_;
};

TEST(RpcBrokerRaces, StoppingAmongRequests) {
  const Watchdog watchdog("stop among requests");
  const std::string endpoint = uniqueInproc();
  const auto broker = makeMaster({endpoint});
  broker->registerService(makeEcho("s", "i"));
  std::atomic<int> answered{0};
  std::atomic<int> wrong{0};
  RawPeer clients[3] = {RawPeer(ZMQ_DEALER), RawPeer(ZMQ_DEALER), RawPeer(ZMQ_DEALER)};
  for (RawPeer& client : clients) client.set(ZMQ_SNDHWM, 0).connect(endpoint);
  {
    // Many calls wait while the broker starts, so that it looks services up when the stop comes.
    const Load load(3, [&](int thread) {
      RawPeer& client = clients[thread];
      for (int i = 0; i < 20; ++i) client.send(request("s", "i", std::to_string(thread), "x"));
      const std::string expected = echoOf("s", "i", std::to_string(thread), "x");
      while (const auto reply = client.tryReceive(milliseconds(2))) {
        ++answered;
        if (reply->back() != expected) ++wrong;
      }
    });
    for (int round = 0; round < 500; ++round) {
      broker->start();
      broker->stop();
    }
    broker->start();
    EXPECT_TRUE(eventually([&] { return answered > 0; }));
  }
  EXPECT_EQ(wrong, 0);
  RpcClient client(endpoint, kLong);
  EXPECT_EQ(call(client, "s", "i"), "s/i/m/");
}

TEST(RpcBrokerRaces, StoppingAmongCallersEachOfWhomGetsAnAnswerOrATimeOut) {
  const Watchdog watchdog("stop among callers");
  const std::string tcp = freeTcp();
  const auto broker = makeMaster({tcp});
  broker->registerService(makeEcho("s", "i"));
  RpcClient overTcp(tcp, milliseconds(100));
  RpcClient local(broker, milliseconds(100));
  std::atomic<int> answers{0};
  std::atomic<int> odd{0};
  {
    const Load load(4, [&](int thread) {
      const std::string data = std::to_string(answers);
      const std::string got = outcome(thread < 2 ? overTcp : local, "s", "i", "m", data);
      if (got == "s/i/m/" + data)
        ++answers;
      else if (got != "timeout")
        ++odd;
    });
    for (int round = 0; round < 100; ++round) {
      const int before = answers;
      broker->start();
      EXPECT_TRUE(eventually([&] { return answers >= before + 5; }));
      broker->stop();
    }
  }
  EXPECT_EQ(odd, 0);
}

TEST(RpcBrokerRaces, ASlaveStoppedAsItStartsAnnouncesAndWithdrawsEachTime) {
  const Watchdog watchdog("start and stop of a slave at once");
  RawMaster raw;
  const auto slave = makeSlave(raw.endpoint, 1);
  for (int i = 0; i < 5; ++i) slave->registerService(makeEcho("s", std::to_string(i)));
  for (int round = 0; round < 300; ++round) {
    slave->start();
    slave->stop();
  }
  for (int round = 0; round < 300; ++round) {
    for (const bool offered : {true, false}) {
      for (int i = 0; i < 5; ++i) {
        const RawMaster::Registration expected{"", offered, "s", std::to_string(i)};
        ASSERT_EQ(raw.next(), expected) << "round " << round;
      }
    }
  }
}

TEST(RpcBrokerRaces, AServiceUsesItsBrokerWhileThatIsBeingStopped) {
  const Watchdog watchdog("a service that uses its stopping broker");
  RawMaster raw;
  for (const bool master : {true, false}) {
    const std::string endpoint = uniqueInproc();
    const auto broker = master ? makeMaster({endpoint}, 1) : makeSlave(raw.endpoint, 1);
    RpcClient self(broker, milliseconds(0));
    Gate inside;
    Gate gate;
    std::atomic<bool> returned{false};
    broker->registerService(makeService("s", "i", [&](const auto&, const std::string& data) {
      inside.open();
      gate.pass();  // until stop() waits for this call to end
      const auto other = makeEcho("other", "i");
      broker->registerService(other);
      outcome(self, "other", "i");
      broker->unregisterService(other);
      broker->attach(std::make_shared<QuietObserver>());
      returned = true;
      return data;
    }));
    broker->start();
    RawPeer client(ZMQ_DEALER);
    if (master) {
      client.connect(endpoint).send(request("s", "i"));
    } else {
      Frames asked = request("s", "i");
      asked.insert(asked.begin(), {raw.next().identity, "client"});
      raw.router.send(asked);
    }
    inside.pass();
    const auto stopping = runUntilAsleep([&] { broker->stop(); });
    gate.open();
    stopping->join();
    EXPECT_TRUE(returned);
  }
}

TEST(RpcBrokerRaces, ServicesRegisterCallAndUnregisterUnderStartsAndStops) {
  const Watchdog watchdog("services at work under starts and stops");
  const std::string endpoint = uniqueInproc();
  const auto broker = makeMaster({endpoint});
  RpcClient self(broker, milliseconds(20));
  std::atomic<int> next{0};
  std::atomic<int> odd{0};
  broker->registerService(makeService("s", "i", [&](const auto&, const std::string& data) {
    const std::string name = std::to_string(++next);
    const auto other = makeEcho("other", name);
    broker->registerService(other);
    const std::string got = outcome(self, "other", name);
    if (got != "other/" + name + "/m/" && got != "timeout") ++odd;
    broker->unregisterService(other);
    return data;
  }));
  {
    RpcClient client(endpoint, milliseconds(50));
    const Load load(3, [&](int) {
      const std::string got = outcome(client, "s", "i", "m", "x");
      if (got != "x" && got != "timeout") ++odd;
    });
    for (int round = 0; round < 150; ++round) {
      const int before = next;
      broker->start();
      EXPECT_TRUE(eventually([&] { return next > before + 2; }));
      broker->stop();
    }
  }
  EXPECT_EQ(odd, 0);
}

TEST(RpcBrokerRaces, ABrokerIsDestroyedWhileItsServicesCallEachOther) {
  const Watchdog watchdog("destroying a broker whose services call");
  for (int round = 0; round < 100; ++round) {
    const std::string endpoint = uniqueInproc();
    auto broker = makeMaster({endpoint});
    auto self = std::make_shared<RpcClient>(broker, milliseconds(1));
    std::atomic<int> calls{0};
    std::atomic<bool> over{false};
    broker->registerService(makeEcho("other", "i"));
    broker->registerService(makeService("s", "i", [&, self](const auto&, const std::string& data) {
      while (!over) {
        ++calls;
        outcome(*self, "other", "i");
      }
      return data;
    }));
    broker->start();
    RawPeer client(ZMQ_DEALER);
    client.connect(endpoint);
    for (int i = 0; i < 4; ++i) client.send(request("s", "i"));
    ASSERT_TRUE(eventually([&] { return calls > 20; }));
    std::thread ender([&] {
      const int before = calls;
      eventually([&] { return calls > before + 5; });
      over = true;
    });
    broker.reset();
    ender.join();
  }
}

TEST(RpcBrokerRaces, ThousandsOfServicesAreAnnouncedWithTheMasterAway) {
  const Watchdog watchdog("announcing with the master away");
  const std::string endpoint = freeTcp();
  const auto slave = makeSlave(endpoint);
  const auto name = [](int i) { return std::to_string(i); };
  for (int i = 0; i < 1500; ++i) slave->registerService(makeEcho("s", name(i)));
  slave->start();
  for (int i = 1500; i < 3000; ++i) slave->registerService(makeEcho("s", name(i)));
  const auto master = makeMaster({endpoint});
  master->start();
  RpcClient client(endpoint, kLong);
  ASSERT_TRUE(
      eventually([&] { return outcome(client, "s", name(2999)) == echoOf("s", "2999", "m", ""); }));
  for (int i = 0; i < 3000; ++i) {
    ASSERT_EQ(outcome(client, "s", name(i)), echoOf("s", name(i), "m", ""));
  }
  slave->stop();  // three thousand withdrawals behind three thousand offers
  client.setReceiveTimeout(milliseconds(500));  // forwarded to the slave until they have come
  EXPECT_TRUE(eventually([&] { return outcome(client, "s", name(999)) == notFound("s", "999"); }));
}

TEST(RpcBrokerRaces, ASlaveOfThousandsOfServicesStopsWithTheMasterAway) {
  const Watchdog watchdog("stopping with the master away");
  for (const std::string& endpoint : {freeTcp(), uniqueInproc()}) {
    const auto slave = makeSlave(endpoint);
    for (int i = 0; i < 2500; ++i) slave->registerService(makeEcho("s", std::to_string(i)));
    slave->start();
    slave->stop();
  }
}

TEST(RpcBrokerRaces, ASlaveOutlivesItsMasterInTheProcessAndServesTheNextOne) {
  const Watchdog watchdog("a slave whose master in the process is made anew");
  const std::string endpoint = uniqueInproc();
  const auto slave = makeSlave(endpoint);
  slave->registerService(makeEcho("s", "old"));
  for (int round = 0; round < 10; ++round) {
    const auto name = [round](int i) { return std::to_string(round) + "." + std::to_string(i); };
    slave->start();
    if (round % 2 == 1) slave->registerService(makeEcho("s", name(-1)));
    // More than a queue holds by default.
    for (int i = 0; i < 1500; ++i) slave->registerService(makeEcho("s", name(i)));
    const auto master = makeMaster({endpoint});
    master->start();
    RpcClient client(endpoint, kLong);
    const std::string last = name(1499);
    ASSERT_TRUE(
        eventually([&] { return outcome(client, "s", last) == echoOf("s", last, "m", ""); }));
    EXPECT_EQ(outcome(client, "s", name(7)), echoOf("s", name(7), "m", ""));
    // What was said to the last master is not said again, unless the slave starts.
    EXPECT_EQ(outcome(client, "s", "old"),
              round % 2 == 0 ? echoOf("s", "old", "m", "") : notFound("s", "old"));
    for (int i = 0; i < 1500; ++i) slave->unregisterService(makeEcho("s", name(i)));
    if (round % 2 == 1) slave->stop();
  }
}

// Holds the broker's thread in submit().
class StuckDispatcher : public RpcDispatcher {
 public:
  void start() override {}
  void stop() override {}
  void submit(std::shared_ptr<RpcRequest>) override {
    inside.open();
    gate.pass();
  }
  Gate inside;
  Gate gate;
};

// One thread's services, some of them registered.
class Registrar {
 public:
  Registrar(RpcBroker& broker, int number)
      : broker_(broker), random_(static_cast<unsigned>(number)) {
    for (int i = 0; i < 8; ++i) {
      services_.push_back(makeEcho("t" + std::to_string(number), std::to_string(i)));
    }
  }
  void change(int times) {
    for (int i = 0; i < times; ++i) {
      random_ = random_ * 1664525U + 1013904223U;
      const auto& service = services_[random_ >> 16 & 7U];
      const std::string key = service->getServiceName() + "/" + service->getInstanceName();
      if (registered.erase(key) != 0) {
        broker_.unregisterService(service);
      } else {
        registered.insert(key);
        broker_.registerService(service);
      }
    }
  }
  std::set<std::string> registered;

 private:
  RpcBroker& broker_;
  unsigned random_;
  std::vector<std::shared_ptr<Service>> services_;
};

TEST(RpcBrokerRaces, TheMasterKnowsExactlyWhatASlaveOffers) {
  const Watchdog watchdog("registrations under starts and stops");
  RawMaster raw;
  const auto slave = makeSlave(raw.endpoint, 1);
  std::vector<std::unique_ptr<Registrar>> registrars;
  for (int i = 0; i < 8; ++i) registrars.push_back(std::make_unique<Registrar>(*slave, i));
  for (int round = 0; round < 30; ++round) {
    {
      std::vector<std::thread> threads;
      for (const auto& registrar : registrars) {
        threads.emplace_back([&] { registrar->change(100); });
      }
      for (int i = 0; i < 10; ++i) {
        slave->start();
        slave->stop();
      }
      for (std::thread& thread : threads) thread.join();
    }
    // What changes while it is stopped must not be undone by what was queued before.
    for (const auto& registrar : registrars) registrar->change(3);
    std::set<std::string> expected;
    for (const auto& registrar : registrars) {
      expected.insert(registrar->registered.begin(), registrar->registered.end());
    }
    const auto fence = makeEcho("~fence", std::to_string(round));
    slave->start();
    slave->registerService(fence);  // behind all that is still on its way
    ASSERT_TRUE(raw.readTo(true, "~fence", std::to_string(round)));
    expected.insert("~fence/" + std::to_string(round));
    ASSERT_EQ(raw.offered, expected) << "round " << round;
    slave->stop();
    ASSERT_TRUE(raw.readTo(false, "~fence", std::to_string(round)));  // the last of all names
    ASSERT_EQ(raw.offered, std::set<std::string>()) << "round " << round;
    slave->unregisterService(fence);
  }
}

// A slave with one service, whose thread is in submit() until the gate opens.
struct StuckSlave {
  StuckSlave() {
    slave.registerService(makeEcho("a", "first"));
    slave.start();
    Frames asked = request("a", "first");
    asked.insert(asked.begin(), {raw.next().identity, "client"});
    raw.router.send(asked);
    dispatcher->inside.pass();
  }
  RawMaster raw;
  const std::shared_ptr<StuckDispatcher> dispatcher = std::make_shared<StuckDispatcher>();
  RpcBroker slave{false, {raw.endpoint}, dispatcher};
};

// Each thread has a way of its own to the broker's thread, which reads them in turn.
TEST(RpcBrokerRaces, TheMasterHearsOfTheChangesOfSeveralThreadsInTheirOrder) {
  const Watchdog watchdog("changes of several threads");
  StuckSlave stuck;
  std::vector<RawMaster::Registration> expected;
  for (int round = 0; round < 3; ++round) {
    for (const char* name : {"x", "y", "z"}) {
      const auto service = makeEcho(name, std::to_string(round));
      for (const bool offered : {true, false, true}) {
        const auto change = [&] {
          offered ? stuck.slave.registerService(service) : stuck.slave.unregisterService(service);
        };
        if (offered) {
          change();
        } else {
          std::thread(change).join();
        }
        expected.push_back({"", offered, name, std::to_string(round)});
      }
    }
  }
  stuck.dispatcher->gate.open();
  for (const auto& change : expected) ASSERT_EQ(stuck.raw.next(), change);
}

TEST(RpcBrokerRaces, WhatWasQueuedAtAStopIsNotReplayedAfterTheNextStart) {
  const Watchdog watchdog("registrations queued at a stop");
  StuckSlave stuck;
  // They wait for the broker's thread, which sees the stop next, or after the first of them.
  const std::shared_ptr<Service> late[] = {makeEcho("b", "1"), makeEcho("b", "2"),
                                           makeEcho("b", "3")};
  for (const auto& service : late) stuck.slave.registerService(service);
  const auto stopping = runUntilAsleep([&] { stuck.slave.stop(); });
  // The broker is being stopped: nothing is announced any more.
  for (const auto& service : late) stuck.slave.unregisterService(service);
  stuck.dispatcher->gate.open();
  stopping->join();
  stuck.slave.start();
  stuck.slave.registerService(makeEcho("~", "marker"));
  ASSERT_TRUE(stuck.raw.readTo(true, "~", "marker"));
  EXPECT_EQ(stuck.raw.offered, (std::set<std::string>{"a/first", "~/marker"}));
}

}  // namespace
}  // namespace tessel::test
