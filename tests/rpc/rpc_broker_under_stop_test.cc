#include <thread>

#include "life_fixture.h"
#include "rpc/rpc_broker_impl.h"
#include "support/system_errors.h"

namespace tessel::test {
namespace {

// Where a stop waits for code of the application.
enum class Place { kObserverOnTheBrokersThread, kService, kObserverOfACall };

class RpcBrokerUnderStop : public testing::TestWithParam<Place> {
 protected:
  // Runs `inside` in that place while another thread is in stop(), and waits for both.
  void whileStopping(const std::function<void()>& inside) {
    inside_ = inside;
    const auto observer = std::make_shared<Observer>(*this);
    broker.attach(observer);
    broker.registerService(makeService("s", "i", [this](const auto&, const std::string& data) {
      reach(Place::kService);
      return data;
    }));
    broker.start();
    RawPeer peer(ZMQ_DEALER);
    const bool nobody = GetParam() == Place::kObserverOnTheBrokersThread;
    peer.connect(endpoint).send(request(nobody ? "none" : "s", "i"));
    entered_.pass();
    std::thread stopping([this] { broker.stop(false, false); });
    // A broker that is being stopped serves no calls of the process any more.
    EXPECT_TRUE(eventually([&] { return broker.findLocalService("s", "i") == nullptr; }));
    gate_.open();
    stopping.join();
    EXPECT_TRUE(returned_);
  }
  void expectItServesAfterAStart() {
    broker.start();
    RpcClient client(endpoint, kLong);
    EXPECT_EQ(outcome(client, "s", "i", "m", "x"), "x");
  }

  const std::string endpoint = uniqueInproc();
  RpcBrokerImpl broker{true, {endpoint}, std::make_shared<ThreadedRpcDispatcher>(1)};

 private:
  class Observer : public QuietObserver {
   public:
    explicit Observer(RpcBrokerUnderStop& test) : test_(test) {}
    void onRequest(const std::string& service, const std::string&, const std::string&, const void*,
                   std::size_t) override {
      if (service == "s") test_.reach(Place::kObserverOfACall);
    }
    void onReply(const std::string& service, const std::string&, const std::string&, int,
                 const void*, std::size_t) override {
      if (service == "none") test_.reach(Place::kObserverOnTheBrokersThread);
    }

   private:
    RpcBrokerUnderStop& test_;
  };

  void reach(Place place) {
    if (place != GetParam() || returned_) return;
    entered_.open();
    gate_.pass();
    inside_();
    returned_ = true;
  }

  std::function<void()> inside_;
  Gate entered_;
  Gate gate_;
  std::atomic<bool> returned_{false};
};

TEST_P(RpcBrokerUnderStop, AStartDoesNothing) {
  const Watchdog watchdog("a start during a stop", std::chrono::seconds(50));
  whileStopping([this] { broker.start(); });
  EXPECT_EQ(broker.findLocalService("s", "i"), nullptr);  // it has stopped
  expectItServesAfterAStart();
}

TEST_P(RpcBrokerUnderStop, AnotherStopIsRefused) {
  const Watchdog watchdog("a stop during a stop", std::chrono::seconds(50));
  bool refused = false;
  whileStopping([&] { refused = wouldWaitForItself([&] { broker.stop(true, true); }); });
  EXPECT_TRUE(refused);
  expectItServesAfterAStart();
}

INSTANTIATE_TEST_SUITE_P(In, RpcBrokerUnderStop,
                         testing::Values(Place::kObserverOnTheBrokersThread, Place::kService,
                                         Place::kObserverOfACall),
                         [](const auto& instance) {
                           switch (instance.param) {
                             case Place::kObserverOnTheBrokersThread:
                               return "AnObserverOnTheBrokersThread";
                             case Place::kService:
                               return "AService";
                             case Place::kObserverOfACall:
                               return "AnObserverOfACall";
                           }
                           return "";
                         });

TEST(RpcBrokerUnderStops, ServicesMayAlwaysStartTheirBroker) {
  const Watchdog watchdog("services that start their broker");
  const std::string endpoint = uniqueInproc();
  const auto broker = makeMaster({endpoint});
  std::atomic<int> calls{0};
  broker->registerService(makeService("s", "i", [&](const auto&, const std::string& data) {
    broker->start();
    ++calls;
    return data;
  }));
  RawPeer client(ZMQ_DEALER);
  client.set(ZMQ_SNDHWM, 0).connect(endpoint);
  for (int round = 0; round < 300; ++round) {
    for (int i = 0; i < 16; ++i) client.send(request("s", "i"));
    const int before = calls;
    broker->start();
    ASSERT_TRUE(eventually([&] { return calls > before; }));
    broker->stop();
  }
}

// Leaves the broker stopped, and a call of "s" with its dispatcher.
void keepOneCall(RpcBroker& broker, KeepingDispatcher& dispatcher, RawPeer& client) {
  broker.start();
  client.send(request("s", "i", "m", "x"));
  ASSERT_TRUE(eventually([&] { return dispatcher.size() == 1; }));
  broker.stop();
}

// An application's dispatcher may run what it has kept when the broker is stopped.
TEST(RpcBrokerUnderStops, AServiceOfAStoppedBrokerStartsAndStopsItLikeAnyoneElse) {
  const Watchdog watchdog("a service that starts its stopped broker");
  const std::string endpoint = uniqueInproc();
  const auto dispatcher = std::make_shared<KeepingDispatcher>();
  RpcBroker broker(true, {endpoint}, dispatcher);
  broker.registerService(makeService("s", "i", [&](const auto&, const std::string& data) {
    broker.start();
    EXPECT_EQ(dispatcher->starts, 2);
    broker.stop();
    EXPECT_EQ(dispatcher->stops, 2);
    broker.start();
    return data;
  }));
  RawPeer client(ZMQ_DEALER);
  client.connect(endpoint);
  keepOneCall(broker, *dispatcher, client);
  dispatcher->take()->execute();
  EXPECT_EQ(client.receive(), result("x"));
}

// Runs at its start what it has kept.
class CatchingUpDispatcher : public KeepingDispatcher {
 public:
  void start() override {
    KeepingDispatcher::start();
    while (size() != 0) runOne();
  }
};

TEST(RpcBrokerUnderStops, AServiceThatTheStartItselfWaitsForNeitherStartsNorStopsTheBroker) {
  const Watchdog watchdog("a service served by the start of its broker");
  const std::string endpoint = uniqueInproc();
  const auto dispatcher = std::make_shared<CatchingUpDispatcher>();
  RpcBroker broker(true, {endpoint}, dispatcher);
  int refusals = 0;
  broker.registerService(makeService("s", "i", [&](const auto&, const std::string& data) {
    broker.start();
    if (wouldWaitForItself([&] { broker.stop(); })) ++refusals;
    return data;
  }));
  RawPeer client(ZMQ_DEALER);
  client.connect(endpoint);
  keepOneCall(broker, *dispatcher, client);
  broker.start();
  EXPECT_EQ(client.receive(), result("x"));  // so it runs
  EXPECT_EQ(refusals, 1);
  EXPECT_EQ(dispatcher->starts, 2);
}

}  // namespace
}  // namespace tessel::test
