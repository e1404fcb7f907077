#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tessel/rpc_broker.h>
#include <tessel/rpc_client.h>
#include <tessel/rpc_error.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "rpc/service_key.h"
#include "support/hand_served_rpc_broker.h"
#include "support/text_of.h"

namespace tessel::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

static_assert(!std::is_copy_constructible<RpcBroker>::value, "it owns a thread and sockets");
static_assert(!std::is_copy_assignable<RpcBroker>::value, "it owns a thread and sockets");
static_assert(std::has_virtual_destructor<RpcBroker>::value, "exported");

TEST(ServiceKey, ComparesTheServiceNameFirstAndThenTheInstanceName) {
  const ServiceKeyLess less;
  const std::vector<ServiceKey> sorted = {{"", ""},   {"", "z"},  {"a", ""}, {"a", "b"},
                                          {"a", "c"}, {"ab", ""}, {"b", "a"}};
  for (std::size_t i = 0; i < sorted.size(); ++i) {
    for (std::size_t j = 0; j < sorted.size(); ++j) {
      EXPECT_EQ(less(sorted[i], sorted[j]), i < j) << i << " " << j;
      EXPECT_EQ(less(ServiceKeyView(sorted[i].first, sorted[i].second), sorted[j]), i < j);
      EXPECT_EQ(less(sorted[i], ServiceKeyView(sorted[j].first, sorted[j].second)), i < j);
    }
  }
}

TEST(ServiceKey, ComparesBytesAndNotText) {
  const ServiceKeyLess less;
  EXPECT_TRUE(less(ServiceKey("a", ""), ServiceKey(bytes("a\0", 2), "")));
  EXPECT_TRUE(less(ServiceKey("\x7F", ""), ServiceKey("\x80", "")));
}

TEST(RpcBrokerRegistry, RefusesNullPointers) {
  const auto dispatcher = std::make_shared<KeepingDispatcher>();
  EXPECT_THROW(RpcBroker(true, {}, nullptr), std::invalid_argument);
  EXPECT_THROW(RpcBroker(false, {uniqueInproc()}, nullptr), std::invalid_argument);
  RpcBroker broker(true, {}, dispatcher);
  EXPECT_THROW(broker.registerService(nullptr), std::invalid_argument);
  EXPECT_THROW(broker.unregisterService(nullptr), std::invalid_argument);
  broker.attach(nullptr);
  broker.detach(nullptr);
}

TEST(RpcBrokerRegistry, RefusesASecondServiceOfTheSameNames) {
  RpcBroker broker(true, {}, std::make_shared<KeepingDispatcher>());
  const auto service = answering("s", "i", "first");
  broker.registerService(service);
  for (const auto& again : {service, answering("s", "i", "second")}) {
    EXPECT_EQ(textOf<std::logic_error>([&] { broker.registerService(again); }),
              "service already registered");
  }
  broker.registerService(answering("s", "other", ""));
  broker.registerService(answering("other", "i", ""));
}

TEST(RpcBrokerRegistry, KeepsTheFirstOfTwoServicesOfTheSameNames) {
  HandServedMaster at;
  at.broker.registerService(answering("s", "i", "first"));
  EXPECT_THROW(at.broker.registerService(answering("s", "i", "second")), std::logic_error);
  at.serve(at.client, enveloped({}, requestFrames("s", "i", "m", "")));
  at.run();
  EXPECT_EQ(at.client.receive(), enveloped({}, replyFrames(0, "first")));
}

TEST(RpcBrokerRegistry, UnregistersByTheNames) {
  HandServedMaster at;
  at.broker.registerService(answering("s", "i", "first"));
  at.broker.registerService(answering("s", "j", "other"));
  at.broker.unregisterService(answering("s", "i", "another object of the same names"));
  at.broker.registerService(answering("s", "i", "second"));
  for (const Frames& pair : {Frames{"i", "second"}, Frames{"j", "other"}}) {
    at.serve(at.client, enveloped({}, requestFrames("s", pair[0], "m", "")));
    at.run();
    EXPECT_EQ(at.client.receive(), enveloped({}, replyFrames(0, pair[1])));
  }
}

TEST(RpcBrokerRegistry, OwnsWhatIsRegisteredUntilItIsUnregistered) {
  RpcBroker broker(true, {}, std::make_shared<KeepingDispatcher>());
  const auto service = answering("s", "i", "");
  broker.registerService(service);
  EXPECT_EQ(service.use_count(), 2);
  broker.unregisterService(service);
  EXPECT_EQ(service.use_count(), 1);
}

TEST(RpcBrokerRegistry, ARefusedServiceIsNotKept) {
  RpcBroker broker(true, {}, std::make_shared<KeepingDispatcher>());
  broker.registerService(answering("s", "i", ""));
  const auto refused = answering("s", "i", "");
  EXPECT_THROW(broker.registerService(refused), std::logic_error);
  EXPECT_EQ(refused.use_count(), 1);
}

TEST(RpcBrokerRegistry, ReleasesItsServicesWhenItIsDestroyed) {
  const auto service = answering("s", "i", "");
  {
    RpcBroker broker(true, {}, std::make_shared<KeepingDispatcher>());
    broker.registerService(service);
    broker.start();
  }
  EXPECT_EQ(service.use_count(), 1);
}

TEST(RpcBrokerRegistry, AServiceMayUnregisterOthersWhileItIsReleased) {
  RpcBroker broker(true, {}, std::make_shared<KeepingDispatcher>());
  const auto other = answering("other", "i", "");
  struct Releasing : FunctionService {
    Releasing(RpcBroker& at, std::shared_ptr<Service> released)
        : FunctionService("s", "i", nullptr), broker_(at), other_(std::move(released)) {}
    ~Releasing() override { broker_.unregisterService(other_); }
    RpcBroker& broker_;
    const std::shared_ptr<Service> other_;
  };
  auto service = std::make_shared<Releasing>(broker, other);
  broker.registerService(other);
  broker.registerService(service);
  const auto same = answering("s", "i", "");
  service.reset();
  broker.unregisterService(same);  // releases the last owner
  EXPECT_EQ(other.use_count(), 1);
}

TEST(RpcBrokerRegistry, AServiceMayCallABrokerThatIsDestroyedWithIt) {
  const auto observer = std::make_shared<RecordingRpcObserver>();
  const auto watching = std::make_shared<RecordingRpcObserver>();
  const auto other = answering("other", "i", "");
  {
    RpcBroker broker(true, {}, std::make_shared<KeepingDispatcher>());
    struct Leaving : FunctionService {
      Leaving(RpcBroker& at, std::shared_ptr<Service> released,
              std::shared_ptr<RpcBrokerObserver> detached)
          : FunctionService("s", "i", nullptr),
            broker_(at),
            other_(std::move(released)),
            observer_(std::move(detached)) {}
      ~Leaving() override {
        broker_.detach(observer_);
        broker_.unregisterService(other_);
      }
      RpcBroker& broker_;
      const std::shared_ptr<Service> other_;
      const std::shared_ptr<RpcBrokerObserver> observer_;
    };
    broker.registerService(std::make_shared<Leaving>(broker, other, observer));
    broker.attach(observer);
    broker.attach(watching);
    broker.start();
  }
  EXPECT_THAT(observer->journal.lines(), IsEmpty());
  EXPECT_THAT(watching->journal.lines(), ElementsAre("unregistered other i local"));
}

TEST(RpcBrokerRegistry, LooksUpForThisProcessOnlyWhileItRuns) {
  RpcBrokerImpl broker(true, {}, std::make_shared<KeepingDispatcher>());
  const auto service = answering("s", "i", "");
  broker.registerService(service);
  EXPECT_EQ(broker.findLocalService("s", "i"), nullptr);
  broker.start();
  EXPECT_EQ(broker.findLocalService("s", "i"), service);
  EXPECT_EQ(broker.findLocalService("s", "other"), nullptr);
  EXPECT_EQ(broker.findLocalService("i", "s"), nullptr);
  broker.stop(false, false);
  EXPECT_EQ(broker.findLocalService("s", "i"), nullptr);
}

// What is registered, locally and by a slave, and who watches, by what a call brings.
class RpcBrokerStop : public testing::Test {
 protected:
  RpcBrokerStop() {
    broker.attach(observer);
    broker.registerService(local);
    broker.start();
    slave.send(enveloped({}, registrationFrames(true, "remote", "i")));
    EXPECT_TRUE(observer->journal.waitFor(2));
    observer->journal.clear();
  }
  bool hasLocal() {
    client.send(enveloped({}, requestFrames("local", "i", "m", "")));
    return client.receive() == enveloped({}, replyFrames(0, "ok"));
  }
  bool hasRemote() {
    client.send(enveloped({}, requestFrames("remote", "i", "m", "")));
    client.send(enveloped({}, requestFrames("marker", "m", "m", "")));
    const Frames first = client.receive();
    const Frames marker = enveloped({}, replyFrames(2, "service not found: marker - m"));
    if (first != marker) return client.receive() != marker;
    return slave.receive().front() == "client";
  }

  const std::string endpoint = uniqueInproc();
  RpcBroker broker{true, {endpoint}, std::make_shared<ThreadedRpcDispatcher>(1)};
  const std::shared_ptr<RecordingRpcObserver> observer = std::make_shared<RecordingRpcObserver>();
  const std::shared_ptr<Service> local = answering("local", "i", "ok");
  NamedDealer slave{"slave", endpoint};
  NamedDealer client{"client", endpoint};
};

TEST_F(RpcBrokerStop, KeepsEverythingByDefault) {
  broker.stop();
  broker.start();
  EXPECT_TRUE(hasLocal());
  EXPECT_TRUE(hasRemote());
  EXPECT_EQ(observer->journal.lines(3).size(), 3U);  // of the call, and of the marker
}

TEST_F(RpcBrokerStop, ClearsTheServicesOfBothKinds) {
  broker.stop(true, false);
  EXPECT_EQ(local.use_count(), 1);
  broker.start();
  EXPECT_FALSE(hasLocal());
  EXPECT_FALSE(hasRemote());
  EXPECT_EQ(observer->journal.lines(3).size(), 3U);
  broker.registerService(local);
  EXPECT_TRUE(hasLocal());
}

TEST_F(RpcBrokerStop, ClearsTheObservers) {
  broker.stop(false, true);
  broker.start();
  EXPECT_TRUE(hasLocal());
  EXPECT_TRUE(hasRemote());
  EXPECT_EQ(observer->journal.size(), 0U);
}

TEST_F(RpcBrokerStop, TellsNobodyOfTheServicesThatItClears) {
  broker.stop(true, false);
  EXPECT_EQ(observer->journal.size(), 0U);
}

TEST_F(RpcBrokerStop, OfAStoppedBrokerIgnoresItsFlags) {
  broker.stop();
  broker.stop(true, true);
  broker.start();
  EXPECT_TRUE(hasLocal());
  EXPECT_TRUE(hasRemote());
  EXPECT_EQ(observer->journal.lines(3).size(), 3U);
}

TEST(RpcBrokerRegistry, WhatTheDispatcherThrowsAtAStopFollowsAfterTheClearing) {
  class Throwing : public KeepingDispatcher {
   public:
    void stop() override { throw std::domain_error("dispatcher"); }
  };
  RpcBroker broker(true, {}, std::make_shared<Throwing>());
  auto service = answering("s", "i", "");
  const std::weak_ptr<Service> alive = service;
  const auto observer = std::make_shared<RecordingRpcObserver>();
  broker.registerService(service);
  service.reset();
  broker.attach(observer);
  broker.start();
  EXPECT_EQ(textOf<std::domain_error>([&] { broker.stop(true, true); }), "dispatcher");
  EXPECT_TRUE(alive.expired());
  observer->journal.clear();
  broker.registerService(answering("s", "i", ""));
  EXPECT_EQ(observer->journal.size(), 0U);
  broker.stop();  // it has stopped: the dispatcher is not asked again
}

TEST(RpcBrokerRegistry, AStopBeforeTheFirstStartKeepsServicesAndObservers) {
  RpcBrokerImpl broker(true, {}, std::make_shared<KeepingDispatcher>());
  const auto observer = std::make_shared<RecordingRpcObserver>();
  const auto service = answering("s", "i", "");
  broker.attach(observer);
  broker.registerService(service);
  broker.stop(true, true);
  EXPECT_EQ(service.use_count(), 2);
  broker.unregisterService(service);
  EXPECT_THAT(observer->journal.lines(),
              ElementsAre("registered s i local", "unregistered s i local"));
}

}  // namespace
}  // namespace tessel::test
