#include <cstdlib>
#include <thread>

#include "life_fixture.h"

namespace tessel::test {
namespace {

// Calls of each thread; TESSEL_CALLS says another number.
int callsOfAThread() {
  const char* count = std::getenv("TESSEL_CALLS");
  return count == nullptr ? 2000 : std::atoi(count);
}

// Each thread takes all roads in turn: over TCP, in process by the socket, through a slave, and
// directly.
TEST(RpcClientThreads, GetTheAnswersToTheirOwnCallsOnAllRoads) {
  const Watchdog watchdog("many callers", std::chrono::seconds(110));
  const std::string tcp = freeTcp();
  const std::string inproc = uniqueInproc();
  const auto master = makeMaster({tcp, inproc});
  const auto slave = makeSlave(tcp);
  master->registerService(makeEcho("master", "i"));
  slave->registerService(makeEcho("slave", "i"));
  master->start();
  slave->start();
  struct Road {
    std::shared_ptr<RpcClient> client;
    std::string service;
  };
  const auto over = [](const std::string& endpoint) {
    return std::make_shared<RpcClient>(endpoint, kLong);
  };
  const Road roads[] = {{over(tcp), "master"},
                        {over(inproc), "master"},
                        {over(tcp), "slave"},
                        {std::make_shared<RpcClient>(master, kLong), "master"},
                        {std::make_shared<RpcClient>(master, kLong), "slave"},
                        {std::make_shared<RpcClient>(slave, kLong), "slave"}};
  ASSERT_TRUE(eventually([&] { return outcome(*roads[2].client, "slave", "i") == "slave/i/m/"; }));
  std::atomic<int> right{0};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 8; ++thread) {
    threads.emplace_back([&, thread] {
      const std::string method = std::to_string(thread);
      for (int i = 0; i < callsOfAThread(); ++i) {
        const Road& road = roads[(i + thread) % 6];
        const std::string data(static_cast<std::size_t>(i % 97), static_cast<char>('a' + i % 26));
        const std::string sent = std::to_string(i) + data;
        right += outcome(*road.client, road.service, "i", method, sent) ==
                 echoOf(road.service, "i", method, sent);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(right, 8 * callsOfAThread());
}

TEST(RpcClientThreads, CloseTheirSocketsWhenTheyEnd) {
  const Watchdog watchdog("short callers");
  const NoSocketsLeft check;
  const std::string tcp = freeTcp();
  const std::string inproc = uniqueInproc();
  const auto broker = makeMaster({tcp, inproc});
  broker->registerService(makeEcho("s", "i"));
  broker->start();
  RpcClient overTcp(tcp, kLong);
  RpcClient inProcess(inproc, kLong);
  ClosingPace pace;
  for (int i = 0; i < 2000; ++i) {
    std::string got;
    std::thread([&] { got = outcome(i % 4 == 0 ? overTcp : inProcess, "s", "i"); }).join();
    ASSERT_EQ(got, "s/i/m/") << "thread " << i;
    pace.keep();
  }
}

TEST(RpcClientThreads, ThatRegisterWithASlaveCloseTheirSocketsWhenTheyEnd) {
  const Watchdog watchdog("short registrars");
  RawMaster raw;
  const auto slave = makeSlave(raw.endpoint, 1);
  slave->start();
  const NoSocketsLeft check;
  for (int i = 0; i < 1500; ++i) {
    std::thread([&] { slave->registerService(makeEcho("s", std::to_string(i))); }).join();
    ASSERT_EQ(raw.next(), (RawMaster::Registration{"", true, "s", std::to_string(i)}));
  }
}

TEST(RpcClientThreads, OfBrokersThatComeAndGoLeaveNothingBehind) {
  const Watchdog watchdog("brokers that come and go");
  const NoSocketsLeft check(16);
  for (int i = 0; i < 400; ++i) {
    const auto broker = makeMaster({}, 1);
    RpcClient client(broker, kLong);
    broker->start();
    ASSERT_EQ(outcome(client, "none", "i"), notFound("none", "i"));
  }
}

}  // namespace
}  // namespace tessel::test
