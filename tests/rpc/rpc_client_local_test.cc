#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tessel/rpc_broker.h>
#include <tessel/rpc_client.h>
#include <tessel/rpc_error.h>

#include <chrono>
#include <exception>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/call_outcome.h"
#include "support/endpoints.h"
#include "support/no_hang.h"
#include "support/rpc_peers.h"

namespace tessel::test {
namespace {

using std::chrono::milliseconds;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

// A broker of this process that runs, with a dispatcher that never runs anything: whatever is
// answered was answered on the calling thread, or by the broker's own.
class RpcClientLocal : public testing::Test {
 protected:
  RpcClientLocal() {
    broker->attach(observer);
    broker->start();
  }
  // Registers the service, unheard.
  void offer(const std::shared_ptr<Service>& service) {
    broker->registerService(service);
    observer->journal.clear();
  }
  std::string call() { return outcomeOf(client, "s", "i"); }

  const std::string endpoint = uniqueInproc();
  const std::shared_ptr<KeepingDispatcher> dispatcher = std::make_shared<KeepingDispatcher>();
  std::shared_ptr<RpcBroker> broker =
      std::make_shared<RpcBroker>(true, Lines{endpoint}, dispatcher);
  const std::shared_ptr<RecordingRpcObserver> observer = std::make_shared<RecordingRpcObserver>();
  RpcClient client{broker, kPatience};
};

const char* const kRequestLine = "request s i method payload";

TEST_F(RpcClientLocal, RunsTheServiceOnTheCallingThread) {
  std::thread::id ran;
  offer(makeService(
      "s", "i", [&](const std::string&, const void*, std::size_t, Buffer& out, std::size_t& size) {
        ran = std::this_thread::get_id();
        give("ok", out, size);
      }));
  EXPECT_EQ(call(), "result ok");
  EXPECT_EQ(ran, std::this_thread::get_id());
  EXPECT_EQ(dispatcher->size(), 0U);
}

TEST_F(RpcClientLocal, HandsTheArgumentsOverAsTheyAre) {
  const std::string payload = "payload";
  Buffer out;
  std::size_t outSize = 0;
  bool same = false;
  offer(makeService("s", "i",
                    [&](const std::string& method, const void* data, std::size_t size,
                        Buffer& given, std::size_t& givenSize) {
                      same = method == "m" && data == payload.data() && size == payload.size() &&
                             &given == &out && &givenSize == &outSize;
                    }));
  client.CallMethod("s", "i", "m", payload.data(), payload.size(), out, outSize);
  EXPECT_TRUE(same);
}

TEST_F(RpcClientLocal, AServiceThatSetsNothingLeavesWhatWasThere) {
  offer(makeService("s", "i",
                    [](const std::string&, const void*, std::size_t, Buffer&, std::size_t&) {}));
  Buffer out;
  std::size_t size = 0;
  give("left", out, size);
  client.CallMethod("s", "i", "m", nullptr, 0, out, size);
  EXPECT_EQ(text(out, size), "left");
  EXPECT_THAT(observer->journal.lines(), ElementsAre("request s i m null 0", "reply s i m 0 left"));
}

TEST_F(RpcClientLocal, ASizeWithoutABufferIsHandedOnAsItIs) {
  offer(makeService(
      "s", "i", [&](const std::string&, const void*, std::size_t, Buffer& out, std::size_t& size) {
        out.reset();
        size = 7;
      }));
  Buffer out;
  std::size_t size = 0;
  client.CallMethod("s", "i", "method", "payload", 7, out, size);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(size, 7U);
  EXPECT_THAT(observer->journal.lines(), ElementsAre(kRequestLine, "reply s i method 0 null 7"));
}

TEST_F(RpcClientLocal, WhatAFailingServiceWroteStays) {
  offer(makeService(
      "s", "i", [](const std::string&, const void*, std::size_t, Buffer& out, std::size_t& size) {
        give("half", out, size);
        throw std::runtime_error("x");
      }));
  Buffer out;
  std::size_t size = 0;
  EXPECT_THROW(client.CallMethod("s", "i", "m", nullptr, 0, out, size), rpc_service_error);
  EXPECT_EQ(text(out, size), "half");
}

TEST_F(RpcClientLocal, TellsObserversAroundTheCall) {
  offer(makeService(
      "s", "i", [&](const std::string&, const void*, std::size_t, Buffer& out, std::size_t& size) {
        observer->journal.add("called");
        give(bytes("r\0", 2), out, size);
      }));
  EXPECT_EQ(call(), "result " + bytes("r\0", 2));
  EXPECT_THAT(observer->journal.lines(),
              ElementsAre(kRequestLine, "called", "reply s i method 0 " + bytes("r\0", 2)));
}

TEST_F(RpcClientLocal, ACustomErrorArrivesAsTheSameObject) {
  struct OwnError : rpc_custom_error {
    using rpc_custom_error::rpc_custom_error;
  };
  const std::exception_ptr error = std::make_exception_ptr(OwnError("own"));
  const void* thrown = nullptr;
  try {
    std::rethrow_exception(error);
  } catch (const OwnError& own) {
    thrown = &own;
  }
  offer(makeService("s", "i",
                    [&](const std::string&, const void*, std::size_t, Buffer&, std::size_t&) {
                      std::rethrow_exception(error);
                    }));
  Buffer out;
  std::size_t size = 0;
  try {
    client.CallMethod("s", "i", "method", "payload", 7, out, size);
    ADD_FAILURE() << "nothing thrown";
  } catch (const OwnError& own) {
    EXPECT_EQ(&own, thrown);
  }
  EXPECT_THAT(observer->journal.lines(), ElementsAre(kRequestLine, "reply s i method 3 own"));
}

TEST_F(RpcClientLocal, EveryOtherStandardExceptionArrivesAsAServiceError) {
  const auto outcomeWith = [&](const std::shared_ptr<Service>& service) {
    offer(service);
    std::string outcome = call();
    broker->unregisterService(service);
    return outcome;
  };
  EXPECT_EQ(outcomeWith(throwing("s", "i", std::runtime_error("x"))), "service x");
  EXPECT_EQ(outcomeWith(throwing("s", "i", std::logic_error(""))), "service ");
  EXPECT_EQ(outcomeWith(throwing("s", "i", rpc_service_error("own"))), "service own");
  EXPECT_EQ(outcomeWith(throwing("s", "i", rpc_broker_error("b"))), "service b");
  EXPECT_EQ(outcomeWith(throwing("s", "i", rpc_timeout())), "service RPC timeout");
  EXPECT_EQ(outcomeWith(throwing("s", "i", rpc_error("e"))), "service e");
}

TEST_F(RpcClientLocal, ObserversHearOfAFailureWithItsTextAndTheNul) {
  offer(throwing("s", "i", std::runtime_error("x")));
  EXPECT_EQ(call(), "service x");
  EXPECT_THAT(observer->journal.lines(),
              ElementsAre(kRequestLine, withNul("reply s i method 1 x")));
}

TEST_F(RpcClientLocal, AnythingElseArrivesAsAnUnknownException) {
  offer(throwing("s", "i", 42));
  EXPECT_EQ(call(), "service unknown exception");
  EXPECT_THAT(observer->journal.lines(),
              ElementsAre(kRequestLine, withNul("reply s i method 1 unknown exception")));
  EXPECT_EQ(observer->journal.lines()[1].size(), std::string("reply s i method 1 ").size() + 18);
}

TEST_F(RpcClientLocal, WhatAnObserverThrowsOnTheWayToSuccessIsMappedLikeAServicesError) {
  offer(answering("s", "i", "ok"));
  const auto atRequest = std::make_shared<RecordingRpcObserver>([](const std::string& line) {
    if (line == kRequestLine) throw rpc_custom_error("at the request");
  });
  broker->attach(atRequest);
  EXPECT_EQ(call(), "custom at the request");
  broker->detach(atRequest);
  observer->journal.clear();
  const auto atReply = std::make_shared<RecordingRpcObserver>([](const std::string& line) {
    if (line == "reply s i method 0 ok") throw std::runtime_error("at the reply");
  });
  broker->attach(atReply);
  EXPECT_EQ(call(), "service at the reply");
  EXPECT_THAT(observer->journal.lines(), ElementsAre(kRequestLine, "reply s i method 0 ok",
                                                     withNul("reply s i method 1 at the reply")));
}

TEST_F(RpcClientLocal, AnObserverThatThrowsAtAFailureDoesNotChangeIt) {
  const auto thrower = std::make_shared<RecordingRpcObserver>([](const std::string& line) {
    if (line.substr(0, 5) == "reply") throw 1;
  });
  const auto last = std::make_shared<RecordingRpcObserver>();
  const auto service = throwing("s", "i", rpc_custom_error("own"));
  broker->registerService(service);
  broker->registerService(throwing("t", "i", std::runtime_error("x")));
  broker->registerService(throwing("u", "i", 7));
  broker->attach(thrower);
  broker->attach(last);
  EXPECT_EQ(call(), "custom own");
  EXPECT_EQ(outcomeOf(client, "t", "i"), "service x");
  EXPECT_EQ(outcomeOf(client, "u", "i"), "service unknown exception");
  EXPECT_EQ(last->journal.size(), 6U);
}

TEST_F(RpcClientLocal, ObserversOfACallAreThoseOfItsBeginning) {
  const auto late = std::make_shared<RecordingRpcObserver>();
  offer(makeService("s", "i",
                    [&](const std::string&, const void*, std::size_t, Buffer&, std::size_t&) {
                      broker->detach(observer);
                      broker->attach(late);
                    }));
  call();
  EXPECT_EQ(observer->journal.size(), 2U);
  EXPECT_THAT(late->journal.lines(), IsEmpty());
  call();
  EXPECT_EQ(observer->journal.size(), 2U);
  EXPECT_EQ(late->journal.size(), 2U);
}

TEST_F(RpcClientLocal, ObserversThatHaveGoneAreLeftOut) {
  auto gone = std::make_shared<RecordingRpcObserver>();
  const auto after = std::make_shared<RecordingRpcObserver>();
  broker->attach(gone);
  broker->attach(after);
  gone.reset();
  offer(answering("s", "i", "ok"));
  after->journal.clear();
  EXPECT_EQ(call(), "result ok");
  EXPECT_EQ(after->journal.size(), 2U);
}

TEST_F(RpcClientLocal, NoLockIsHeldDuringACall) {
  const auto other = answering("other", "i", "");
  const auto use = [&] {
    broker->registerService(other);
    broker->unregisterService(other);
  };
  const auto observing = std::make_shared<RecordingRpcObserver>([&](const std::string& line) {
    if (line.find(" s i method") != std::string::npos) use();
  });
  broker->attach(observing);
  offer(makeService(
      "s", "i", [&](const std::string&, const void*, std::size_t, Buffer& out, std::size_t& size) {
        use();
        give("ok", out, size);
      }));
  withoutHanging("a call", [&] { EXPECT_EQ(call(), "result ok"); });
}

TEST_F(RpcClientLocal, AServiceMayCallAnother) {
  broker->registerService(echoing("inner", "i"));
  offer(makeService(
      "s", "i", [&](const std::string&, const void*, std::size_t, Buffer& out, std::size_t& size) {
        client.CallMethod("inner", "i", "inner", "p", 1, out, size);
      }));
  EXPECT_EQ(call(), "result inner(p)");
}

TEST_F(RpcClientLocal, AServiceMayTakeItselfBack) {
  std::weak_ptr<Service> weak;
  auto service = makeService(
      "s", "i", [&](const std::string&, const void*, std::size_t, Buffer& out, std::size_t& size) {
        broker->unregisterService(weak.lock());
        give("still here", out, size);
      });
  weak = service;
  offer(service);
  service.reset();
  EXPECT_EQ(call(), "result still here");
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(call(), "broker service not found: s - i");
}

TEST_F(RpcClientLocal, TimeoutsDoNotMatter) {
  offer(answering("s", "i", "ok"));
  for (const std::int64_t timeout : {0, -1, -2}) {
    client.setReceiveTimeout(milliseconds(timeout));
    EXPECT_EQ(call(), "result ok");
  }
}

TEST_F(RpcClientLocal, AServiceThatTheBrokerDoesNotHaveIsAskedForOverTheSocket) {
  EXPECT_EQ(call(), "broker service not found: s - i");
  EXPECT_THAT(observer->journal.lines(),
              ElementsAre(withNul("reply s i method 2 service not found")));
}

TEST_F(RpcClientLocal, AServiceOfASlaveIsReachedOverTheSocket) {
  RpcBroker slave(false, {endpoint}, std::make_shared<ThreadedRpcDispatcher>(1));
  slave.registerService(echoing("s", "i"));
  slave.start();
  ASSERT_TRUE(observer->journal.waitFor(1));
  EXPECT_EQ(call(), "result method(payload)");
}

TEST_F(RpcClientLocal, ASlavesClientReachesTheRestThroughTheMaster) {
  const auto slave = std::make_shared<RpcBroker>(false, Lines{endpoint},
                                                 std::make_shared<ThreadedRpcDispatcher>(1));
  slave->registerService(answering("s", "i", "from the slave"));
  slave->start();
  RpcClient ofSlave(slave, kPatience);
  EXPECT_EQ(outcomeOf(ofSlave, "s", "i"), "result from the slave");
  EXPECT_EQ(outcomeOf(ofSlave, "t", "i"), "broker service not found: t - i");
  // The master hears of the call; of the slave's registration too, in whatever order.
  EXPECT_THAT(observer->journal.lines(2),
              Contains(withNul("reply t i method 2 service not found")));
}

TEST_F(RpcClientLocal, ATransportClientOfTheSameBrokerUsesTheSocket) {
  offer(answering("s", "i", "ok"));
  RpcClient remote(endpoint, kPatience);
  auto served = std::async(std::launch::async, [&] { dispatcher->runOne(); });
  EXPECT_EQ(outcomeOf(remote, "s", "i"), "result ok");
  served.get();
}

TEST_F(RpcClientLocal, ABrokerThatDoesNotRunServesNoLocalCall) {
  bool called = false;
  offer(makeService(
      "s", "i",
      [&](const std::string&, const void*, std::size_t, Buffer&, std::size_t&) { called = true; }));
  broker->stop();
  client.setReceiveTimeout(milliseconds(20));
  EXPECT_EQ(call(), "timeout RPC timeout");
  EXPECT_FALSE(called);
  EXPECT_THAT(observer->journal.lines(), IsEmpty());
}

TEST_F(RpcClientLocal, ABrokerThatNeverRanServesNoLocalCall) {
  const auto idle = std::make_shared<RpcBroker>(true, Lines{}, dispatcher);
  idle->registerService(answering("s", "i", "ok"));
  RpcClient early(idle, milliseconds(20));
  EXPECT_EQ(outcomeOf(early, "s", "i"), "timeout RPC timeout");
  idle->start();
  EXPECT_EQ(outcomeOf(early, "s", "i"), "result ok");
}

TEST_F(RpcClientLocal, DoesNotKeepItsBrokerAlive) {
  const std::weak_ptr<RpcBroker> weak = broker;
  broker.reset();
  EXPECT_TRUE(weak.expired());
}

TEST_F(RpcClientLocal, TheServicesOfABrokerThatHasGoneAreNotCalled) {
  const auto service = answering("s", "i", "ok");
  offer(service);
  broker.reset();
  client.setReceiveTimeout(milliseconds(20));
  EXPECT_EQ(call(), "timeout RPC timeout");
}

// It goes by the pointer that it was given, and that one owns nothing any more, or never did.
TEST_F(RpcClientLocal, ABrokerThatItsPointerNoLongerOwnsIsReachedOverTheSocket) {
  offer(answering("s", "i", "ok"));
  std::shared_ptr<RpcBroker> borrowed(broker.get(), [](RpcBroker*) {});
  RpcClient borrower(borrowed, kPatience);
  EXPECT_EQ(outcomeOf(borrower, "s", "i"), "result ok");
  borrowed.reset();
  RpcClient ownerless(std::shared_ptr<RpcBroker>(std::shared_ptr<void>(), broker.get()), kPatience);
  for (RpcClient* each : {&borrower, &ownerless}) {
    auto served = std::async(std::launch::async, [&] { dispatcher->runOne(); });
    EXPECT_EQ(outcomeOf(*each, "s", "i"), "result ok");
    served.get();
  }
}

}  // namespace
}  // namespace tessel::test
