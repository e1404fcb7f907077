// Programs may use the library before main(), in the constructors of their own objects; linked into
// one program, those may well come before the library's. And after it, in destructors.

#include <gtest/gtest.h>
#include <tessel/tessel.h>

#include <cstdlib>
#include <string>

#include "support/endpoints.h"
#include "support/recorders.h"
#include "support/rpc_peers.h"

namespace tessel::test {
namespace {

struct Everything {
  Everything() {
    dispatcher.registerSubscriber(subscriber);
    dispatcher.start();
    broker.attach(observer);
    broker.start();
    rpcBroker->registerService(echoing("service", "instance"));
    rpcBroker->start();
  }
  std::string call() {
    Buffer out;
    std::size_t size = 0;
    client.CallMethod("service", "instance", "method", "x", 1, out, size);
    return text(out, size);
  }

  const std::string updatesEndpoint = uniqueInproc();
  const std::string cacheEndpoint = uniqueInproc();
  MessageBroker broker{{}, {updatesEndpoint}, {cacheEndpoint}};
  const std::shared_ptr<RecordingBrokerObserver> observer =
      std::make_shared<RecordingBrokerObserver>();
  MessageDispatcher dispatcher{updatesEndpoint, cacheEndpoint};
  const std::shared_ptr<RecordingSubscriber> subscriber =
      std::make_shared<RecordingSubscriber>(SubscriptionMode::AllValues, "topic", "");
  Publisher publisher{"topic", ""};

  const std::string rpcEndpoint = uniqueInproc();
  const std::shared_ptr<RpcBroker> rpcBroker = std::make_shared<RpcBroker>(
      true, std::vector<std::string>{rpcEndpoint}, std::make_shared<ThreadedRpcDispatcher>());
  RpcClient client{rpcEndpoint, kPatience};
};

Everything& everything() {
  static Everything made;
  return made;
}

struct BeforeMain {
  BeforeMain() {
    everything().publisher.publish("1", 1);
    delivered = everything().subscriber->journal.lines(1);
    result = everything().call();
  }
  Lines delivered;
  std::string result;
};
// Before every object of an ordinary priority, such as the library might have.
__attribute__((init_priority(200))) const BeforeMain beforeMain;

TEST(BeforeMain, ValuesAreDelivered) { EXPECT_EQ(beforeMain.delivered, Lines{"value 1"}); }

TEST(BeforeMain, CallsAreAnswered) { EXPECT_EQ(beforeMain.result, "method(x)"); }

// Its destructor runs when main() has returned, before that of what it uses, and shows in how the
// program ends.
struct AfterMain {
  ~AfterMain() {
    everything().publisher.publish("2", 1);
    const bool delivered = everything().subscriber->journal.waitFor(2);
    if (!delivered || everything().call() != "method(x)") std::_Exit(1);
  }
};
const AfterMain afterMain;

}  // namespace
}  // namespace tessel::test
