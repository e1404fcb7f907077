// What waits for an in-process endpoint that nobody binds gives its socket back in the end.

#include "life_fixture.h"

namespace tessel::test {
namespace {

// More calls than a process has sockets: 1023. Of slaves so many that what they lose is missed.
constexpr int kMany = 1100;
constexpr int kSlaves = 200;

TEST(RpcUnboundEndpoint, ABrokerCanBeMadeThereAgainAfterAnyNumberOfTimeOuts) {
  const Watchdog watchdog("a broker after time-outs");
  const std::string endpoint = uniqueInproc();
  RpcClient client(endpoint, milliseconds(0));
  {
    const auto broker = makeMaster({endpoint});
    broker->registerService(makeEcho("s", "i"));
    broker->start();
    client.setReceiveTimeout(kLong);
    EXPECT_EQ(outcome(client, "s", "i"), "s/i/m/");
  }
  client.setReceiveTimeout(milliseconds(0));
  ClosingPace pace;
  for (int i = 0; i < kMany; ++i) {
    ASSERT_EQ(outcome(client, "s", "i"), "timeout") << "call " << i;
    pace.keep();
  }
  const auto broker = makeMaster({endpoint});
  broker->registerService(makeEcho("s", "i"));
  broker->start();
  client.setReceiveTimeout(kLong);
  EXPECT_EQ(outcome(client, "s", "i"), "s/i/m/");
}

TEST(RpcUnboundEndpoint, SlavesWithoutAMasterLeaveNothingBehind) {
  const Watchdog watchdog("slaves without a master");
  const std::string endpoint = uniqueInproc();
  const NoSocketsLeft check;
  for (int i = 0; i < kSlaves; ++i) {
    RpcBroker slave(false, {endpoint}, std::make_shared<KeepingDispatcher>());
  }
}

TEST(RpcUnboundEndpoint, SlavesThatStopAfterTheirMasterHasGoneLeaveNothingBehind) {
  const Watchdog watchdog("slaves whose master has gone");
  const NoSocketsLeft check;
  for (int i = 0; i < kSlaves; ++i) {
    const std::string endpoint = uniqueInproc();
    auto master = std::make_unique<RpcBroker>(true, std::vector<std::string>{endpoint},
                                              std::make_shared<KeepingDispatcher>());
    RpcBroker slave(false, {endpoint}, std::make_shared<KeepingDispatcher>());
    slave.registerService(makeEcho("s", "i"));
    slave.start();
    master.reset();
    slave.stop();
  }
}

}  // namespace
}  // namespace tessel::test
