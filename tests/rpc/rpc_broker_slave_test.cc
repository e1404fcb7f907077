#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tessel/rpc_broker.h>
#include <tessel/rpc_client.h>
#include <tessel/rpc_error.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "rpc/rpc_broker_impl.h"
#include "support/endpoints.h"
#include "support/hand_served_rpc_broker.h"
#include "support/no_hang.h"
#include "support/rpc_peers.h"
#include "support/socket_budget.h"
#include "support/text_of.h"
#include "support/threads.h"
#include "support/zmq_errors.h"

namespace tessel::test {
namespace {

using testing::ElementsAre;

// A bare ROUTER as the master of a slave that runs.
class RpcBrokerSlave : public testing::Test {
 protected:
  RpcBrokerSlave() {
    master.set(ZMQ_RCVHWM, 0);
    masterEndpoint = bindTcp(master);
    slave = std::make_unique<RpcBroker>(false, Lines{masterEndpoint},
                                        std::make_shared<ThreadedRpcDispatcher>(1));
  }

  // What the slave sends next, without its identity, which is kept.
  Frames next() {
    Frames frames = master.receive();
    if (frames.empty()) return frames;
    sender = frames.front();
    frames.erase(frames.begin());
    return frames;
  }
  static Frames offer(const std::string& service, const std::string& instance) {
    return {"", "RS02", "\x02", "\x01", service, instance};
  }
  static Frames withdrawal(const std::string& service, const std::string& instance) {
    return {"", "RS02", "\x02", kNul, service, instance};
  }
  // Starts the slave with a service, and learns the slave's identity.
  std::string startWith(const std::shared_ptr<Service>& service) {
    slave->registerService(service);
    slave->start();
    EXPECT_EQ(next(), offer(service->getServiceName(), service->getInstanceName()));
    return sender;
  }
  // As a master forwards a call: behind the slave's identity, with the client's envelope.
  void forward(const std::string& slaveIdentity, const Frames& envelope, const Frames& request) {
    Frames frames = enveloped(envelope, request);
    frames.insert(frames.begin(), slaveIdentity);
    master.send(frames);
  }
  // ZeroMQ closes in the background, so those given back may not be there at once.
  template <typename Call>
  static void onceThereAreSockets(const Call& call) {
    ASSERT_TRUE(eventually([&] {
      try {
        call();
        return true;
      } catch (const std::runtime_error&) {
        return false;
      }
    }));
  }
  // That nothing else is on its way: the announcement of a marker comes first.
  void expectNothingSent() {
    slave->registerService(answering("marker", "m", ""));
    EXPECT_EQ(next(), offer("marker", "m"));
  }

  RawPeer master{ZMQ_ROUTER};
  std::string masterEndpoint;
  std::unique_ptr<RpcBroker> slave;
  std::string sender;
};

TEST_F(RpcBrokerSlave, AnnouncesItsServicesWhenItStartsInTheOrderOfTheirNames) {
  for (const Frames& names :
       {Frames{"b", "1"}, Frames{"a", "2"}, Frames{"ab", ""}, Frames{"a", "1"}, Frames{"", "z"}}) {
    slave->registerService(answering(names[0], names[1], ""));
  }
  slave->start();
  EXPECT_EQ(next(), (Frames{"", "RS02", "\x02", "\x01", "", "z"}));
  EXPECT_EQ(next(), offer("a", "1"));
  EXPECT_EQ(next(), offer("a", "2"));
  EXPECT_EQ(next(), offer("ab", ""));
  EXPECT_EQ(next(), offer("b", "1"));
  expectNothingSent();
}

TEST_F(RpcBrokerSlave, WithdrawsItsServicesWhenItStops) {
  slave->registerService(answering("b", "1", ""));
  slave->registerService(answering("a", "2", ""));
  slave->start();
  slave->registerService(answering("a", "1", ""));
  slave->stop();
  EXPECT_EQ(next(), offer("a", "2"));
  EXPECT_EQ(next(), offer("b", "1"));
  EXPECT_EQ(next(), offer("a", "1"));
  EXPECT_EQ(next(), (Frames{"", "RS02", "\x02", kNul, "a", "1"}));
  EXPECT_EQ(next(), withdrawal("a", "2"));
  EXPECT_EQ(next(), withdrawal("b", "1"));
  slave->start();
  for (const char* instance : {"1", "2"}) EXPECT_EQ(next(), offer("a", instance));
  EXPECT_EQ(next(), offer("b", "1"));
  expectNothingSent();
}

TEST_F(RpcBrokerSlave, WithdrawsItsServicesWhenItIsDestroyed) {
  // In the process, since a socket that closes at once may keep what goes further.
  const std::string endpoint = uniqueInproc();
  master.bind(endpoint);
  slave = std::make_unique<RpcBroker>(false, Lines{endpoint}, anyDispatcher());
  startWith(answering("s", "i", ""));
  slave.reset();
  EXPECT_EQ(next(), withdrawal("s", "i"));
}

TEST_F(RpcBrokerSlave, AnnouncesWhatIsRegisteredWhileItRuns) {
  slave->start();
  const auto service = answering("s", "i", "");
  slave->registerService(service);
  EXPECT_EQ(next(), offer("s", "i"));
  slave->unregisterService(service);
  EXPECT_EQ(next(), withdrawal("s", "i"));
  expectNothingSent();
}

TEST_F(RpcBrokerSlave, SaysNothingOfWhatIsRegisteredWhileItIsStopped) {
  const auto gone = answering("gone", "i", "");
  slave->registerService(gone);
  slave->registerService(answering("kept", "i", ""));
  slave->unregisterService(gone);
  slave->start();
  EXPECT_EQ(next(), offer("kept", "i"));
  slave->stop();
  EXPECT_EQ(next(), withdrawal("kept", "i"));
  slave->registerService(answering("later", "i", ""));
  slave->start();
  EXPECT_EQ(next(), offer("kept", "i"));
  EXPECT_EQ(next(), offer("later", "i"));
  expectNothingSent();
}

TEST_F(RpcBrokerSlave, AnnouncesNothingForAServiceThatIsAlreadyRegistered) {
  startWith(answering("s", "i", ""));
  EXPECT_EQ(textOf<std::logic_error>([&] { slave->registerService(answering("s", "i", "")); }),
            "service already registered");
  expectNothingSent();
}

TEST_F(RpcBrokerSlave, WithdrawsAlsoAServiceThatWasNeverRegistered) {
  slave->start();
  slave->unregisterService(answering("s", "i", ""));
  EXPECT_EQ(next(), withdrawal("s", "i"));
}

TEST_F(RpcBrokerSlave, AnnouncesBeforeItsObserversHearAndTakesBackAfterwards) {
  slave->start();
  const auto thrower = std::make_shared<RecordingRpcObserver>(
      [](const std::string&) { throw std::domain_error("observer"); });
  slave->attach(thrower);
  const auto service = answering("s", "i", "");
  EXPECT_EQ(textOf<std::domain_error>([&] { slave->registerService(service); }), "observer");
  EXPECT_EQ(next(), offer("s", "i"));
  EXPECT_EQ(textOf<std::domain_error>([&] { slave->unregisterService(service); }), "observer");
  slave->detach(thrower);
  expectNothingSent();
  EXPECT_EQ(textOf<std::logic_error>([&] { slave->registerService(service); }),
            "service already registered");
}

// The master may be what an observer waits for.
TEST_F(RpcBrokerSlave, AnnouncesWhileItsObserversAreTold) {
  slave->start();
  Frames heard;
  const auto observer =
      std::make_shared<RecordingRpcObserver>([&](const std::string&) { heard = next(); });
  slave->attach(observer);
  slave->registerService(answering("s", "i", ""));
  EXPECT_EQ(heard, offer("s", "i"));
  slave->detach(observer);
}

TEST_F(RpcBrokerSlave, WhatCannotBeAnnouncedIsNotRegistered) {
  slave->start();
  const auto service = answering("s", "i", "ok");
  {
    const SocketBudget everySocket;
    const ScopedThread withoutASocketYet([&] {
      EXPECT_ZMQ_ERROR(slave->registerService(service), EMFILE);
      EXPECT_ZMQ_ERROR(slave->registerService(service), EMFILE);
    });
  }
  onceThereAreSockets([&] { slave->registerService(service); });
  EXPECT_EQ(next(), offer("s", "i"));
  expectNothingSent();
}

TEST_F(RpcBrokerSlave, WhatCannotBeTakenBackStaysRegistered) {
  const auto service = answering("s", "i", "ok");
  startWith(service);
  {
    const SocketBudget everySocket;
    const ScopedThread withoutASocketYet(
        [&] { EXPECT_ZMQ_ERROR(slave->unregisterService(service), EMFILE); });
  }
  EXPECT_EQ(textOf<std::logic_error>([&] { slave->registerService(service); }),
            "service already registered");
  onceThereAreSockets([&] { slave->unregisterService(service); });
  EXPECT_EQ(next(), withdrawal("s", "i"));
  expectNothingSent();
}

TEST_F(RpcBrokerSlave, AnnouncesWithOneIdentityWhateverThreadRegisters) {
  const std::string identity = startWith(answering("s", "0", ""));
  std::thread([&] { slave->registerService(answering("s", "1", "")); }).join();
  EXPECT_EQ(next(), offer("s", "1"));
  EXPECT_EQ(sender, identity);
}

TEST_F(RpcBrokerSlave, AStopThatClearsTheServicesWithdrawsThemFirst) {
  startWith(answering("s", "i", ""));
  slave->stop(true, false);
  EXPECT_EQ(next(), withdrawal("s", "i"));
  slave->start();
  expectNothingSent();
}

TEST_F(RpcBrokerSlave, RepliesThroughASocketOfItsWorker) {
  const std::string identity = startWith(echoing("s", "i"));
  forward(identity, {"client"}, requestFrames("s", "i", "m", "p"));
  EXPECT_EQ(next(), (Frames{"client", "", "RS02", "\x01", kNul, kNul, "m(p)"}));
  const std::string worker = sender;
  EXPECT_NE(worker, identity);
  forward(identity, {"other", "frames"}, requestFrames("s", "i", "m", "q", "reserved"));
  EXPECT_EQ(next(), enveloped({"other", "frames"}, replyFrames(0, "m(q)", "reserved")));
  EXPECT_EQ(sender, worker);
}

TEST_F(RpcBrokerSlave, RepliesWithEveryKindOfFailure) {
  const std::string identity = startWith(throwing("s", "text", std::runtime_error("x")));
  slave->registerService(throwing("s", "custom", rpc_custom_error("c")));
  EXPECT_EQ(next(), offer("s", "custom"));
  slave->registerService(throwing("s", "int", 1));
  EXPECT_EQ(next(), offer("s", "int"));
  forward(identity, {"client"}, requestFrames("s", "text", "m", ""));
  EXPECT_EQ(next(), enveloped({"client"}, replyFrames(1, "x")));
  forward(identity, {"client"}, requestFrames("s", "custom", "m", ""));
  EXPECT_EQ(next(), enveloped({"client"}, replyFrames(3, "c")));
  forward(identity, {"client"}, requestFrames("s", "int", "m", ""));
  EXPECT_EQ(next(), enveloped({"client"}, replyFrames(1, "unknown exception")));
}

TEST_F(RpcBrokerSlave, AnswersItselfThatItHasNoSuchService) {
  const std::string identity = startWith(echoing("s", "i"));
  const auto observer = std::make_shared<RecordingRpcObserver>();
  slave->attach(observer);
  forward(identity, {"client"}, requestFrames("s", "other", "m", "p", "r"));
  EXPECT_EQ(next(), enveloped({"client"}, replyFrames(2, "service not found: s - other", "r")));
  EXPECT_EQ(sender, identity);
  EXPECT_THAT(observer->journal.lines(),
              ElementsAre(withNul("reply s other m 2 service not found")));
}

TEST_F(RpcBrokerSlave, ARequestWithoutAnEnvelopeIsAnsweredWithoutOne) {
  const std::string identity = startWith(echoing("s", "i"));
  forward(identity, {}, requestFrames("s", "i", "m", "p"));
  EXPECT_EQ(next(), enveloped({}, replyFrames(0, "m(p)")));
  forward(identity, {}, requestFrames("s", "other", "m", "p"));
  EXPECT_EQ(next(), enveloped({}, replyFrames(2, "service not found: s - other")));
}

TEST_F(RpcBrokerSlave, ServesWhatItHasAlsoAfterANewStart) {
  startWith(echoing("s", "i"));
  slave->stop();
  EXPECT_EQ(next(), withdrawal("s", "i"));
  slave->start();
  EXPECT_EQ(next(), offer("s", "i"));
  forward(sender, {"client"}, requestFrames("s", "i", "m", "p"));
  EXPECT_EQ(next(), enveloped({"client"}, replyFrames(0, "m(p)")));
}

TEST_F(RpcBrokerSlave, ForwardsRegistrationsFromItsInternalEndpointAsTheyCome) {
  slave->start();
  // The fixture's slave is the only broker so far in a process of its own; others may have been.
  RpcBrokerImpl probe(true, {}, anyDispatcher());
  const int number = std::stoi(probe.clientEndpoint().substr(22)) - 1;
  RawPeer registrar(ZMQ_PUSH);
  registrar.connect("inproc://rpc_broker_internal_" + std::to_string(number));
  registrar.send(enveloped({}, registrationFrames(true, "s", "i")));
  EXPECT_EQ(next(), offer("s", "i"));
  registrar.send({"", "RS02", "\x02", "", "s", "i"});
  EXPECT_EQ(next(), (Frames{"", "RS02", "\x02", "", "s", "i"}));
  registrar.send(enveloped({"a", "b"}, registrationFrames(false, "s", "i")));
  EXPECT_EQ(next(), enveloped({"a", "b"}, registrationFrames(false, "s", "i")));
}

TEST_F(RpcBrokerSlave, ThousandsOfServicesAreAnnouncedWithoutAMaster) {
  constexpr int kServices = 3000;
  const std::string endpoint = freeTcp();
  slave = std::make_unique<RpcBroker>(false, Lines{endpoint}, anyDispatcher());
  for (int i = 0; i < kServices; ++i) {
    slave->registerService(answering("s", std::to_string(i), ""));
  }
  slave->start();
  withoutHanging("stop", [&] { slave->stop(); });
  // Nothing is lost either: offers, then withdrawals, once there is a master.
  master.bind(endpoint);
  for (int i = 0; i < kServices; ++i) ASSERT_EQ(next()[3], "\x01");
  for (int i = 0; i < kServices; ++i) ASSERT_EQ(next()[3], kNul);
}

// The dispatcher holds the broker's thread up meanwhile.
TEST_F(RpcBrokerSlave, RegisteringNeverWaitsForTheBrokersThread) {
  constexpr int kServices = 2500;
  Gate gate;
  Gate entered;
  const auto dispatcher = std::make_shared<KeepingDispatcher>();
  dispatcher->onSubmit = [&] {
    entered.open();
    gate.pass();
  };
  slave = std::make_unique<RpcBroker>(false, Lines{masterEndpoint}, dispatcher);
  const std::string identity = startWith(echoing("s", "i"));
  forward(identity, {"client"}, requestFrames("s", "i", "m", "p"));
  entered.pass();
  withoutHanging("registerService", [&] {
    for (int i = 0; i < kServices; ++i) {
      slave->registerService(answering("more", std::to_string(i), ""));
    }
    gate.open();
    for (int i = 0; i < kServices; ++i) EXPECT_EQ(next(), offer("more", std::to_string(i)));
  });
}

// The withdrawals and the offers use up what tells of the request, so the thread must not go by
// what it last found before the stop.
TEST_F(RpcBrokerSlave, AnswersWhatCameWhileItWasStopped) {
  // In the process, where what is sent has arrived.
  const std::string endpoint = uniqueInproc();
  master.bind(endpoint);
  slave = std::make_unique<RpcBroker>(false, Lines{endpoint}, anyDispatcher());
  std::atomic<int> thread{0};
  const auto observer =
      std::make_shared<RecordingRpcObserver>([&](const std::string&) { thread = thisThread(); });
  const std::string identity = startWith(answering("s", "i", ""));
  slave->attach(observer);
  forward(identity, {}, requestFrames("none", "before", "m", ""));
  EXPECT_EQ(next(), answer(2, "service not found: none - before"));
  EXPECT_TRUE(waitUntilAsleep(thread));  // so that it has found nothing
  slave->detach(observer);
  slave->stop();
  EXPECT_EQ(next(), withdrawal("s", "i"));
  forward(identity, {}, requestFrames("none", "while stopped", "m", ""));
  // Sending does not look at what has come when that was done within the last moment.
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  slave->start();
  EXPECT_EQ(next(), offer("s", "i"));
  EXPECT_EQ(next(), answer(2, "service not found: none - while stopped"));
}

TEST(RpcBrokerSlaveConstruction, TakesExactlyOneTransport) {
  for (const Lines& transports :
       {Lines{}, Lines{uniqueInproc(), uniqueInproc()}, Lines{"", "", ""}}) {
    EXPECT_EQ(textOf<std::logic_error>([&] { RpcBroker(false, transports, anyDispatcher()); }),
              "only one transport is allowed in slave mode!");
  }
}

TEST(RpcBrokerSlaveConstruction, RefusesAnEndpointThatCannotBeConnected) {
  EXPECT_EQ(textOf<std::runtime_error>([&] { RpcBroker(false, {"nonsense"}, anyDispatcher()); }),
            zmq_strerror(EINVAL));
}

TEST(RpcBrokerSlaveConstruction, SendsItsClientsToItsMaster) {
  const std::string endpoint = uniqueInproc();
  const RpcBrokerImpl slave(false, {endpoint}, anyDispatcher());
  EXPECT_EQ(slave.clientEndpoint(), endpoint);
}

// Master, slave and client, all real.
class RpcBrokerPair : public testing::Test {
 protected:
  std::string call(const std::string& service, const std::string& instance) {
    Buffer out;
    std::size_t size = 0;
    client.CallMethod(service, instance, "m", "p", 1, out, size);
    return text(out, size);
  }
  std::unique_ptr<RpcBroker> makeSlave() {
    return std::make_unique<RpcBroker>(false, Lines{endpoint},
                                       std::make_shared<ThreadedRpcDispatcher>(2));
  }
  const std::string endpoint = freeTcp();
  RpcBroker master{true, {endpoint}, std::make_shared<ThreadedRpcDispatcher>(2)};
  RpcClient client{endpoint, kPatience};
};

TEST_F(RpcBrokerPair, AServiceOfASlaveIsCallableWhileTheSlaveRuns) {
  const auto observer = std::make_shared<RecordingRpcObserver>();
  master.attach(observer);
  master.start();
  const auto slave = makeSlave();
  slave->registerService(echoing("s", "i"));
  EXPECT_THROW(call("s", "i"), rpc_broker_error);
  observer->journal.clear();
  slave->start();
  ASSERT_TRUE(observer->journal.waitFor(1));
  EXPECT_EQ(call("s", "i"), "m(p)");
  slave->stop();
  ASSERT_TRUE(observer->journal.waitFor(2));
  EXPECT_EQ(textOf<rpc_broker_error>([&] { call("s", "i"); }), "service not found: s - i");
  slave->start();
  ASSERT_TRUE(observer->journal.waitFor(4));
  EXPECT_EQ(call("s", "i"), "m(p)");
}

TEST_F(RpcBrokerPair, FailuresOfASlavesServiceReachTheClientAsTheyAre) {
  const auto observer = std::make_shared<RecordingRpcObserver>();
  master.attach(observer);
  master.start();
  const auto slave = makeSlave();
  slave->registerService(throwing("s", "custom", rpc_custom_error("own")));
  slave->registerService(throwing("s", "text", std::runtime_error("x")));
  slave->start();
  ASSERT_TRUE(observer->journal.waitFor(2));
  EXPECT_EQ(textOf<rpc_service_error>([&] { call("s", "text"); }), "x");
  try {
    call("s", "custom");
    ADD_FAILURE() << "nothing thrown";
  } catch (const rpc_custom_error& error) {
    EXPECT_EQ(text(error.data(), error.size()), "own");
  }
  // What passes through the master is the slave's to tell.
  EXPECT_EQ(observer->journal.size(), 2U);
}

// Requests that follow each other are served without a look at who is readable, and what was seen
// before the first of them says nothing of a registration that comes meanwhile.
TEST(RpcBrokerSlaveServedByHand, AnnouncesWhatIsRegisteredWhileRequestsKeepComing) {
  HandServedSlave at;
  at.broker->serveOnce();  // finds nothing, so the next waits
  for (const char* instance : {"1", "2"}) at.master.send(at.atMaster(ask("none", instance)));
  at.broker->serveOnce();
  at.registrar.send(enveloped({}, registrationFrames(true, "new", "i")));
  at.broker->serveOnce();
  for (const char* instance : {"1", "2"}) {
    EXPECT_EQ(at.master.receive(),
              at.atMaster(answer(2, std::string("service not found: none - ") + instance)));
  }
  EXPECT_EQ(at.master.receive(), at.atMaster(enveloped({}, registrationFrames(true, "new", "i"))));
}

}  // namespace
}  // namespace tessel::test
