#include <gtest/gtest.h>

#include "life_fixture.h"
#include "support/recorders.h"
#include "torture/relay.h"

namespace tessel::test {
namespace {

// Notes by which identity each service of a slave is offered: "service identity".
class Offers : public QuietObserver {
 public:
  void onServiceRegistered(const std::string& service, const std::string&, bool local,
                           const Identity& identity) override {
    if (!local) journal.add(service + " " + std::string(identity.begin(), identity.end()));
  }
  // The last one, once there are so many.
  std::string last(std::size_t count) {
    const std::vector<std::string> lines = journal.lines(count);
    return lines.empty() ? "" : lines.back();
  }
  Journal journal;
};

// Both live on, and neither is told. Connected again, the slave is somebody else to its master,
// which sends its calls to whom it was.
TEST(RpcBrokerConnection, ASlaveWhoseConnectionBreaksIsCalledInVainUntilItIsStartedAnew) {
  const Watchdog watchdog("a slave whose connection breaks");
  const std::string endpoint = freeTcp();
  const auto master = makeMaster({endpoint});
  const auto offers = std::make_shared<Offers>();
  master->attach(offers);
  master->start();
  Relay relay(endpoint);
  relay.setReset(true);
  const auto slave = makeSlave(relay.endpoint());
  slave->registerService(makeEcho("early", "i"));
  slave->start();
  const std::string before = offers->last(1);
  RpcClient client(endpoint, kLong);
  EXPECT_EQ(outcome(client, "early", "i"), "early/i/m/");

  relay.refuse(true);
  ASSERT_TRUE(eventually([&] { return relay.ended() > 0; }));
  relay.refuse(false);
  // What is sent before the slave has noticed is lost with the connection.
  const auto later = makeEcho("later", "i");
  ASSERT_TRUE(eventually([&] {
    slave->registerService(later);
    if (offers->journal.waitFor(2, milliseconds(500))) return true;
    slave->unregisterService(later);
    return false;
  }));
  EXPECT_NE(offers->last(2), "later" + before.substr(5));

  client.setReceiveTimeout(milliseconds(500));
  // Its connection is whole.
  EXPECT_TRUE(eventually([&] { return outcome(client, "later", "i") == "later/i/m/"; }));
  EXPECT_EQ(outcome(client, "early", "i"), "timeout");
  EXPECT_EQ(outcome(client, "early", "i"), "timeout");  // not "not found": the master goes on so
  slave->stop();
  slave->start();
  EXPECT_TRUE(eventually([&] { return outcome(client, "early", "i") == "early/i/m/"; }));
  EXPECT_TRUE(eventually([&] { return outcome(client, "later", "i") == "later/i/m/"; }));
}

}  // namespace
}  // namespace tessel::test
