// What others do while a broker is being made. In a program of its own, since it stands in for a
// function of libzmq.

#include <zmq.h>

#include "life_fixture.h"
#include "rpc/rpc_broker_impl.h"
#include "support/stand_in.h"
#include "transport/broker_number.h"

namespace {

// Done in the place of binding an endpoint, before that.
std::string watchedEndpoint;
std::function<void()>& meanwhile() {
  static auto& function = *new std::function<void()>;
  return function;
}

}  // namespace

extern "C" int zmq_bind(void* socket, const char* endpoint) {
  static const auto bind = tessel::test::real("zmq_bind", &zmq_bind);
  if (watchedEndpoint == endpoint) meanwhile()();
  return bind(socket, endpoint);
}

namespace tessel::test {
namespace {

const std::string kPrefix = "inproc://rpc_reply_in_";

// Of the next broker of the process.
std::string nextEndpoint() {
  const RpcBrokerImpl probe(true, {}, std::make_shared<KeepingDispatcher>());
  const std::string number = probe.clientEndpoint().substr(kPrefix.size());
  return kPrefix + std::to_string(std::stoi(number) + 1);
}

TEST(RpcBrokerConstruction, KeepsTheCallsThatWaitForTheBroker) {
  const Watchdog watchdog("calls of a broker that is being made");
  const std::string endpoint = uniqueIpc();
  RawPeer waiting(ZMQ_DEALER);
  const std::string waitedFor = nextEndpoint();
  waiting.connect(waitedFor).send(request("s", "i", "m", "x"));
  RpcClient impatient(waitedFor, milliseconds(0));
  int timeouts = 0;
  watchedEndpoint = endpoint;
  meanwhile() = [&] {
    for (int i = 0; i < 5; ++i) timeouts += outcome(impatient, "s", "i") == "timeout";
  };
  const auto broker = makeMaster({endpoint});
  EXPECT_EQ(timeouts, 5);
  broker->registerService(makeEcho("s", "i"));
  broker->start();
  EXPECT_EQ(waiting.receive(), result("s/i/m/x"));
  impatient.setReceiveTimeout(kLong);
  EXPECT_EQ(outcome(impatient, "s", "i"), "s/i/m/");
}

TEST(RpcBrokerConstruction, RetiresTheBrokersEndpointWhenItFails) {
  RawPeer other(ZMQ_DEALER);
  const std::string endpoint = freeTcp();
  other.bind(endpoint);
  const std::string own = nextEndpoint();
  bool early = false;
  watchedEndpoint = endpoint;
  meanwhile() = [&] { early = early || BrokerNumber::isRetired(own); };
  EXPECT_FALSE(BrokerNumber::isRetired(own));
  EXPECT_THROW(makeMaster({endpoint}), std::runtime_error);
  EXPECT_FALSE(early);
  EXPECT_TRUE(BrokerNumber::isRetired(own));
}

TEST(RpcBrokerConstruction, RetiresAnEndpointOnlyWhenItsBrokerHasGone) {
  const std::string own = nextEndpoint();
  auto broker = makeMaster({});
  EXPECT_FALSE(BrokerNumber::isRetired(own));
  broker.reset();
  EXPECT_TRUE(BrokerNumber::isRetired(own));
  const std::string others[] = {nextEndpoint(),
                                kPrefix,
                                kPrefix + "00",
                                kPrefix + "0x",
                                kPrefix + " 0",
                                own + " ",
                                "inproc://rpc_reply_out_0",
                                ""};
  for (const std::string& other : others) EXPECT_FALSE(BrokerNumber::isRetired(other)) << other;
}

}  // namespace
}  // namespace tessel::test
