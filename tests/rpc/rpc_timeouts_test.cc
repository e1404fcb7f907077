#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zmq.h>

#include <cstdlib>
#include <thread>
#include <vector>

#include "life_fixture.h"
#include "support/recorders.h"
#include "transport/zmq_context.h"

namespace tessel::test {
namespace {

using Clock = std::chrono::steady_clock;

// A socket that is lost at each time-out would be missed after a thousand of them; many more are
// made when TESSEL_TIMEOUTS says how many.
int manyTimes() {
  const char* count = std::getenv("TESSEL_TIMEOUTS");
  return count == nullptr ? 3000 : std::atoi(count);
}

void timeOutManyTimes(RpcClient& client) {
  EXPECT_EQ(outcome(client, "s", "i"), "timeout");
  const NoSocketsLeft check;
  ClosingPace pace;
  for (int i = 0; i < manyTimes(); ++i) {
    ASSERT_EQ(outcome(client, "s", "i"), "timeout") << "call " << i;
    pace.keep();
  }
}

TEST(RpcTimeouts, OfADestroyedBrokerUseNothingUp) {
  const Watchdog watchdog("time-outs of a destroyed broker");
  auto broker = makeMaster({});
  broker->registerService(makeEcho("s", "i"));
  broker->start();
  RpcClient client(broker, milliseconds(0));
  broker.reset();
  timeOutManyTimes(client);
}

TEST(RpcTimeouts, OfADestroyedBrokerUseNothingUpOnManyThreads) {
  const Watchdog watchdog("time-outs of a destroyed broker on many threads");
  auto broker = makeMaster({});
  RpcClient client(broker, milliseconds(1));  // ZeroMQ closes in the background: not too fast
  broker.reset();
  const NoSocketsLeft check;
  Journal odd;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      ClosingPace pace;
      for (int k = 0; k < manyTimes() / 4; ++k) {
        const std::string got = outcome(client, "s", "i");
        if (got != "timeout") odd.add(got);
        pace.keep();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(odd.lines(), testing::IsEmpty());
}

TEST(RpcTimeouts, OfADestroyedBrokerOnShortThreadsUseNothingUp) {
  const Watchdog watchdog("time-outs of a destroyed broker on short threads");
  auto broker = makeMaster({});
  RpcClient client(broker, milliseconds(0));
  broker.reset();
  const NoSocketsLeft check;
  ClosingPace pace;
  for (int i = 0; i < 1500; ++i) {
    std::string got;
    std::thread([&] { got = outcome(client, "s", "i"); }).join();
    ASSERT_EQ(got, "timeout") << "thread " << i;
    pace.keep();
  }
}

TEST(RpcTimeouts, OfAnInprocNameThatNobodyHasBoundUseNothingUp) {
  const Watchdog watchdog("time-outs of a name in the process");
  RpcClient client(uniqueInproc(), milliseconds(0));
  timeOutManyTimes(client);
  const NoSocketsLeft check;
  ClosingPace pace;
  for (int i = 0; i < 1100; ++i) {
    std::thread([&] { EXPECT_EQ(outcome(client, "s", "i"), "timeout"); }).join();
    pace.keep();
  }
}

TEST(RpcTimeouts, OfOneBrokerAfterAnotherUseNothingUp) {
  const Watchdog watchdog("time-outs of many destroyed brokers");
  std::thread([] {
    ClosingPace pace(20);  // several sockets each
    for (int i = 0; i < 1100; ++i) {
      auto broker = makeMaster({});
      RpcClient client(broker, milliseconds(0));
      broker.reset();
      ASSERT_EQ(outcome(client, "s", "i"), "timeout") << i;
      pace.keep();
    }
  }).join();
}

// Each call that timed out still waits in the broker's queue and holds its place there.
TEST(RpcTimeouts, OfAStoppedBrokerWaitForItsStart) {
  const Watchdog watchdog("time-outs of a stopped broker");
  const NoSocketsLeft check;
  const auto broker = makeMaster({});
  std::atomic<int> ran{0};
  broker->registerService(makeService("s", "i", [&](const auto&, const std::string& data) {
    ++ran;
    return data;
  }));
  broker->start();
  broker->stop();
  RpcClient client(broker, milliseconds(0));
  for (int i = 0; i < 500; ++i) ASSERT_EQ(outcome(client, "s", "i"), "timeout") << "call " << i;
  broker->start();
  client.setReceiveTimeout(kLong);
  EXPECT_EQ(outcome(client, "s", "i", "m", "x"), "x");
  EXPECT_EQ(outcome(client, "none", "i"), notFound("none", "i"));  // over the socket
  EXPECT_TRUE(eventually([&] { return ran == 501; }));
}

TEST(RpcTimeouts, WithoutAnySocketLeftAreErrorsUntilThereAreSomeAgain) {
  const Watchdog watchdog("time-outs without sockets");
  const auto broker = makeMaster({});
  broker->registerService(makeEcho("s", "i"));
  std::vector<void*> spare(32);
  for (void*& socket : spare) socket = zmq_socket(ZmqContext::handle(), ZMQ_PAIR);
  RpcClient client(broker, milliseconds(0));
  std::string got = "timeout";
  for (int i = 0; i < 2000 && got == "timeout"; ++i) got = outcome(client, "s", "i");
  EXPECT_EQ(got, "runtime: Too many open files");
  const int used = openDescriptors();
  for (void* socket : spare) zmq_close(socket);
  // Before the start: a worker that gets none ends the process. A socket has a descriptor.
  ASSERT_TRUE(eventually([&] { return openDescriptors() <= used - 24; }));
  broker->start();
  client.setReceiveTimeout(kLong);
  EXPECT_TRUE(eventually([&] { return outcome(client, "none", "i") == notFound("none", "i"); }));
}

TEST(RpcTimeouts, OfARunningBrokerUseNothingUp) {
  const Watchdog watchdog("time-outs of a running broker");
  const std::string endpoint = uniqueInproc();
  RpcBroker broker(true, {endpoint}, std::make_shared<ThreadedRpcDispatcher>(0));
  broker.registerService(makeEcho("s", "i"));
  broker.start();
  RpcClient client(endpoint, milliseconds(0));
  timeOutManyTimes(client);
}

TEST(RpcTimeouts, OfABrokerOverTcpThatIsGoneUseNothingUp) {
  const Watchdog watchdog("time-outs over TCP");
  RpcClient client(freeTcp(), milliseconds(0));
  timeOutManyTimes(client);
}

// Listens and never says a word, like a process that is stopped.
class FrozenPeer {
 public:
  FrozenPeer() : listener_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(listener_, 5), 0);
    socklen_t size = sizeof address;
    EXPECT_EQ(getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size), 0);
    endpoint = "tcp://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  }
  ~FrozenPeer() { close(listener_); }
  FrozenPeer(const FrozenPeer&) = delete;
  FrozenPeer& operator=(const FrozenPeer&) = delete;
  std::string endpoint;

 private:
  const int listener_;
};

TEST(RpcTimeouts, OfAFrozenPeerUseNothingUp) {
  const Watchdog watchdog("time-outs of a frozen peer");
  const FrozenPeer peer;
  RpcClient client(peer.endpoint, milliseconds(0));
  timeOutManyTimes(client);
}

TEST(RpcTimeouts, AreNeitherEarlyNorMuchTooLate) {
  const Watchdog watchdog("the length of time-outs");
  const FrozenPeer peer;
  auto broker = makeMaster({});
  RpcClient overTcp(peer.endpoint, milliseconds(0));
  RpcClient destroyed(broker, milliseconds(0));
  broker.reset();
  const auto stopped = makeMaster({});
  RpcClient waiting(stopped, milliseconds(0));
  for (RpcClient* client : {&overTcp, &destroyed, &waiting}) {
    for (const int patience : {200, 0, 50, 100}) {
      client->setReceiveTimeout(milliseconds(patience));
      const auto begun = Clock::now();
      EXPECT_EQ(outcome(*client, "s", "i"), "timeout");
      const auto took = Clock::now() - begun;
      EXPECT_GE(took, milliseconds(patience - 1));  // ZeroMQ counts whole milliseconds
      EXPECT_LT(took, milliseconds(patience) + std::chrono::seconds(10));
    }
  }
}

TEST(RpcTimeouts, ANewTimeOutIsForTheNextCall) {
  const Watchdog watchdog("a new time-out during a call");
  const std::string endpoint = uniqueInproc();
  const auto broker = makeMaster({endpoint});
  Gate gate;
  Gate inside;
  broker->registerService(makeService("slow", "i", [&](const auto&, const std::string& data) {
    inside.open();
    gate.pass();
    return data;
  }));
  broker->start();
  RpcClient client(endpoint, kLong);
  std::thread caller([&] { EXPECT_EQ(outcome(client, "slow", "i", "m", "x"), "x"); });
  inside.pass();
  client.setReceiveTimeout(milliseconds(0));
  EXPECT_EQ(outcome(client, "slow", "i"), "timeout");
  gate.open();
  caller.join();
}

TEST(RpcTimeouts, AnAnswerThatComesTooLateIsNeverTakenForAnother) {
  const Watchdog watchdog("late answers");
  const std::string tcp = freeTcp();
  const std::string inproc = uniqueInproc();
  const auto broker = makeMaster({tcp, inproc});
  broker->registerService(makeService("slow", "i", [&](const auto&, const std::string& data) {
    std::this_thread::sleep_for(milliseconds(std::stoi(data) % 7));
    return data;
  }));
  broker->start();
  for (const std::string& endpoint : {tcp, inproc}) {
    RpcClient client(endpoint, milliseconds(3));
    int timeouts = 0;
    int answers = 0;
    for (int i = 0; i < 10000 && (i < 300 || timeouts < 5 || answers < 5); ++i) {
      const std::string data = std::to_string(i);
      const std::string got = outcome(client, "slow", "i", "m", data);
      ++(got == "timeout" ? timeouts : answers);
      if (got == "timeout") continue;
      ASSERT_EQ(got, data);
    }
    EXPECT_GE(timeouts, 5);
    EXPECT_GE(answers, 5);
  }
}

TEST(RpcTimeouts, AClientOfADestroyedBrokerTimesOutAndTheNextBrokerIsReached) {
  const Watchdog watchdog("a client of a destroyed broker");
  for (int round = 0; round < 20; ++round) {
    auto broker = makeMaster({});
    broker->registerService(makeEcho("s", "i"));
    broker->start();
    RpcClient client(broker, milliseconds(20));
    client.setReceiveTimeout(kLong);
    EXPECT_EQ(outcome(client, "none", "i"), notFound("none", "i"));  // it has its connection
    client.setReceiveTimeout(milliseconds(5));
    broker.reset();
    EXPECT_EQ(outcome(client, "s", "i"), "timeout");
    EXPECT_EQ(outcome(client, "s", "i"), "timeout");
    const auto next = makeMaster({});
    next->registerService(makeEcho("s", "i"));
    next->start();
    RpcClient toNext(next, kLong);
    EXPECT_EQ(outcome(toNext, "s", "i"), "s/i/m/");
    EXPECT_EQ(outcome(toNext, "none", "i"), notFound("none", "i"));
    EXPECT_EQ(outcome(client, "s", "i"), "timeout");
  }
}

TEST(RpcTimeouts, TheSameClientReachesTheNextBrokerOfTheSameName) {
  const Watchdog watchdog("a client of a name bound anew");
  const std::string endpoint = uniqueInproc();
  RpcClient client(endpoint, kLong);
  for (int round = 0; round < 100; ++round) {
    {
      const auto broker = makeMaster({endpoint});
      broker->registerService(makeEcho("s", "i"));
      broker->start();
      client.setReceiveTimeout(kLong);
      ASSERT_EQ(outcome(client, "s", "i"), "s/i/m/");
    }
    if (round % 3 != 0) continue;  // the socket of the last call is used again
    client.setReceiveTimeout(milliseconds(1));
    ASSERT_EQ(outcome(client, "s", "i"), "timeout");
  }
}

TEST(RpcTimeouts, ACallUnderWayWhenItsBrokerIsDestroyedTimesOut) {
  const Watchdog watchdog("calls while the broker is destroyed");
  std::atomic<int> odd{0};
  for (int round = 0; round < 50; ++round) {
    auto broker = makeMaster({});
    broker->registerService(makeEcho("s", "i"));
    broker->start();
    std::atomic<int> answers{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
      threads.emplace_back([&, client = std::make_shared<RpcClient>(broker, milliseconds(50)), i] {
        while (true) {
          // Directly, or by the socket.
          const std::string got = outcome(*client, i == 0 ? "s" : "none", "i");
          if (got == "timeout") return;
          if (got == (i == 0 ? "s/i/m/" : notFound("none", "i")))
            ++answers;
          else
            ++odd;
        }
      });
    }
    EXPECT_TRUE(eventually([&] { return answers > 10; }));
    broker.reset();
    for (std::thread& thread : threads) thread.join();
  }
  EXPECT_EQ(odd, 0);
}

}  // namespace
}  // namespace tessel::test
