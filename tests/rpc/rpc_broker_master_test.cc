#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tessel/rpc_broker.h>

#include <stdexcept>
#include <string>

#include "support/hand_served_rpc_broker.h"
#include "support/no_hang.h"
#include "support/text_of.h"

namespace tessel::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(RpcBrokerMaster, EndpointsOfAProcessAreNumberedFromZero) {
  const RpcBrokerImpl first(true, {}, anyDispatcher());
  const RpcBrokerImpl second(true, {}, anyDispatcher());
  EXPECT_EQ(first.clientEndpoint(), "inproc://rpc_reply_in_0");
  EXPECT_EQ(second.clientEndpoint(), "inproc://rpc_reply_in_1");
}

TEST(RpcBrokerMaster, SlavesAndFailedConstructionsTakeANumberToo) {
  const RpcBrokerImpl first(true, {}, anyDispatcher());
  const int number = std::stoi(first.clientEndpoint().substr(22));
  const RpcBrokerImpl slave(false, {uniqueInproc()}, anyDispatcher());
  EXPECT_THROW(RpcBrokerImpl(false, {}, anyDispatcher()), std::logic_error);
  EXPECT_THROW(RpcBrokerImpl(true, {"nonsense"}, anyDispatcher()), std::runtime_error);
  EXPECT_THROW(RpcBroker(true, {}, nullptr), std::invalid_argument);
  const RpcBrokerImpl master(true, {}, anyDispatcher());
  EXPECT_EQ(master.clientEndpoint(), "inproc://rpc_reply_in_" + std::to_string(number + 5));
}

TEST(RpcBrokerMaster, BindsEveryTransportAndTheEndpointForThisProcess) {
  const std::string tcp = freeTcp();
  const std::string ipc = uniqueIpc();
  const std::string inproc = uniqueInproc();
  RpcBrokerImpl broker(true, {tcp, ipc, inproc}, anyDispatcher());
  broker.start();
  for (const std::string& endpoint : {tcp, ipc, inproc, broker.clientEndpoint()}) {
    NamedDealer client("client of " + endpoint, endpoint);
    client.send(ask("s", "i"));
    EXPECT_EQ(client.receive(), answer(2, "service not found: s - i")) << endpoint;
  }
}

TEST(RpcBrokerMaster, NeedsNoTransport) {
  RpcBrokerImpl broker(true, {}, anyDispatcher());
  NamedDealer client("client", broker.clientEndpoint());
  client.send(ask("s", "i"));
  broker.serveOnce();
  EXPECT_EQ(client.receive(), answer(2, "service not found: s - i"));
}

TEST(RpcBrokerMaster, RefusesAnEndpointInUseWithTheTextOfZeroMQ) {
  const std::string endpoint = uniqueInproc();
  const RpcBroker first(true, {endpoint}, anyDispatcher());
  EXPECT_EQ(textOf<std::runtime_error>([&] { RpcBroker(true, {endpoint}, anyDispatcher()); }),
            zmq_strerror(EADDRINUSE));
}

TEST(RpcBrokerMaster, AnswersWhatHasBeenQueuedBeforeItRuns) {
  const std::string endpoint = uniqueInproc();
  RpcBroker broker(true, {endpoint}, anyDispatcher());
  NamedDealer client("client", endpoint);
  for (int i = 0; i < 100; ++i) client.send(ask("s", std::to_string(i)));
  broker.start();
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(client.receive(), answer(2, "service not found: s - " + std::to_string(i)));
  }
}

TEST(RpcBrokerMaster, AnswersAReqThatNobodyHasTheService) {
  HandServedMaster at;
  RawPeer client(ZMQ_REQ);
  client.connect(at.endpoint);
  at.serve(client, requestFrames("service", "instance", "method", "payload"));
  EXPECT_EQ(client.receive(),
            (Frames{"RS02", "\x01", kNul, "\x02", "service not found: service - instance"}));
}

TEST(RpcBrokerMaster, AnswersForEmptyNames) {
  HandServedMaster at;
  at.serve(at.client, ask("", ""));
  EXPECT_EQ(at.client.receive(), answer(2, "service not found:  - "));
}

TEST(RpcBrokerMaster, AnAnswerThatNothingWasFoundEchoesTheReservedFrame) {
  HandServedMaster at;
  for (const std::string& reserved : {std::string(), bytes("\0\x01\xFF", 3)}) {
    at.serve(at.client, enveloped({}, requestFrames("s", "i", "m", "", reserved)));
    EXPECT_EQ(at.client.receive(),
              enveloped({}, replyFrames(2, "service not found: s - i", reserved)));
  }
}

TEST(RpcBrokerMaster, HandsACallOfItsOwnServiceToTheDispatcherAndRoutesTheReply) {
  HandServedMaster at;
  at.broker.registerService(echoing("service", "instance"));
  at.serve(at.client, ask("service", "instance"));
  ASSERT_EQ(at.dispatcher->size(), 1U);
  EXPECT_FALSE(at.client.readable());
  at.run();
  EXPECT_EQ(at.client.receive(), answer(0, "method(payload)"));
}

TEST(RpcBrokerMaster, AnswersAReqFromAService) {
  HandServedMaster at;
  at.broker.registerService(echoing("service", "instance"));
  RawPeer client(ZMQ_REQ);
  client.connect(at.endpoint);
  at.serve(client, requestFrames("service", "instance", "method", "payload"));
  at.run();
  EXPECT_EQ(client.receive(), replyFrames(0, "method(payload)"));
}

TEST(RpcBrokerMaster, RoutesThroughEnvelopesOfSeveralFrames) {
  HandServedMaster at;
  at.broker.registerService(echoing("service", "instance"));
  const Frames envelope = {"first", "second", std::string(300, '3')};
  at.serve(at.client, enveloped(envelope, requestFrames("service", "instance", "m", "p")));
  at.run();
  EXPECT_EQ(at.client.receive(), enveloped(envelope, replyFrames(0, "m(p)")));
  at.serve(at.client, enveloped(envelope, requestFrames("nobody", "", "m", "p")));
  EXPECT_EQ(at.client.receive(),
            enveloped(envelope, replyFrames(2, "service not found: nobody - ")));
}

TEST(RpcBrokerMaster, RepliesReachWhoAskedInWhateverOrderTheyCome) {
  HandServedMaster at;
  at.broker.registerService(echoing("service", "instance"));
  NamedDealer other("other", at.endpoint);
  at.serve(at.client, ask("service", "instance", "1"));
  at.serve(other, ask("service", "instance", "2"));
  const auto first = at.dispatcher->take();
  const auto second = at.dispatcher->take();
  second->execute();
  at.pass();
  EXPECT_EQ(other.receive(), answer(0, "method(2)"));
  EXPECT_FALSE(at.client.readable());
  first->execute();
  at.pass();
  EXPECT_EQ(at.client.receive(), answer(0, "method(1)"));
  at.expectNothingSentTo(other);
}

TEST(RpcBrokerMaster, TellsInstancesApart) {
  HandServedMaster at;
  at.broker.registerService(answering("ab", "c", "ab c"));
  at.broker.registerService(answering("a", "bc", "a bc"));
  at.broker.registerService(answering("", "abc", "abc"));
  for (const Frames& names : {Frames{"ab", "c"}, Frames{"a", "bc"}, Frames{"", "abc"}}) {
    at.serve(at.client, ask(names[0], names[1]));
    at.run();
    const std::string space = names[0].empty() ? "" : " ";
    EXPECT_EQ(at.client.receive(), answer(0, names[0] + space + names[1]));
  }
  at.serve(at.client, ask("abc", ""));
  EXPECT_EQ(at.client.receive(), answer(2, "service not found: abc - "));
}

TEST(RpcBrokerMaster, AServiceUnregisteredBeforeItsCallIsRunWasNotFound) {
  HandServedMaster at;
  auto service = echoing("service", "instance");
  at.broker.registerService(service);
  at.serve(at.client, ask("service", "instance"));
  at.broker.unregisterService(service);
  service.reset();
  at.heard();
  at.run();
  EXPECT_EQ(at.client.receive(), answer(2, "service not found: service - instance"));
  EXPECT_THAT(at.heard(),
              ElementsAre(withNul("reply service instance method 2 service not found")));
}

TEST(RpcBrokerMaster, AServiceReplacedBeforeItsCallIsRunIsNotCalledByAccident) {
  HandServedMaster at;
  auto service = answering("service", "instance", "old");
  at.broker.registerService(service);
  at.serve(at.client, ask("service", "instance"));
  at.broker.unregisterService(service);
  service.reset();
  at.broker.registerService(answering("service", "instance", "new"));
  at.run();
  EXPECT_EQ(at.client.receive(), answer(2, "service not found: service - instance"));
}

TEST(RpcBrokerMaster, ForwardsToASlaveWithTheClientsEnvelopeBehindItsIdentity) {
  HandServedMaster at;
  NamedDealer slave("slave", at.endpoint);
  at.registerFrom(slave, "service", "instance");
  at.serve(at.client, ask("service", "instance"));
  EXPECT_EQ(slave.receive(),
            (Frames{"client", "", "RS02", kNul, kNul, "service", "instance", "method", "payload"}));
  at.serve(slave, enveloped({"client"}, replyFrames(0, "result")));
  EXPECT_EQ(at.client.receive(), (Frames{"", "RS02", "\x01", kNul, kNul, "result"}));
}

TEST(RpcBrokerMaster, ForwardsOnlyTheCallsOfThatService) {
  HandServedMaster at;
  NamedDealer slave("slave", at.endpoint);
  at.registerFrom(slave, "service", "instance");
  at.serve(at.client, ask("service", "other"));
  EXPECT_EQ(at.client.receive(), answer(2, "service not found: service - other"));
  at.expectNothingSentTo(slave);
}

TEST(RpcBrokerMaster, ForwardsEnvelopesOfSeveralFramesAndTheReservedFrame) {
  HandServedMaster at;
  NamedDealer slave("slave", at.endpoint);
  at.registerFrom(slave, "s", "i");
  at.serve(at.client, enveloped({"a", "b"}, requestFrames("s", "i", "m", "p", "reserved")));
  EXPECT_EQ(slave.receive(),
            enveloped({"client", "a", "b"}, requestFrames("s", "i", "m", "p", "reserved")));
  at.serve(slave, enveloped({"client", "a", "b"}, replyFrames(0, "r", "reserved")));
  EXPECT_EQ(at.client.receive(), enveloped({"a", "b"}, replyFrames(0, "r", "reserved")));
}

TEST(RpcBrokerMaster, RoutesRepliesFromAnyDealer) {
  HandServedMaster at;
  NamedDealer slave("slave", at.endpoint);
  RawPeer worker(ZMQ_DEALER);
  worker.connect(at.endpoint);
  at.registerFrom(slave, "s", "i");
  at.serve(at.client, ask("s", "i"));
  slave.receive();
  at.serve(worker, enveloped({"client"}, replyFrames(0, "from the worker")));
  EXPECT_EQ(at.client.receive(), answer(0, "from the worker"));
}

TEST(RpcBrokerMaster, PassesEveryStatusOn) {
  HandServedMaster at;
  NamedDealer slave("slave", at.endpoint);
  for (int status = 0; status < 256; ++status) {
    at.serve(slave, enveloped({"client"}, replyFrames(status, "text")));
    EXPECT_EQ(at.client.receive(), answer(status, "text"));
  }
}

TEST(RpcBrokerMaster, LargeCallsAndRepliesPassWhole) {
  HandServedMaster at;
  NamedDealer slave("slave", at.endpoint);
  const std::string large(std::size_t{8} << 20, 'l');
  at.registerFrom(slave, "s", "i");
  at.serve(at.client, ask("s", "i", large));
  EXPECT_TRUE(slave.receive().back() == large);
  at.serve(slave, enveloped({"client"}, replyFrames(0, large)));
  EXPECT_TRUE(at.client.receive().back() == large);
}

TEST(RpcBrokerMaster, ServesLocallyWhatASlaveHasToo) {
  HandServedMaster at;
  NamedDealer slave("slave", at.endpoint);
  at.registerFrom(slave, "service", "instance");
  const auto local = answering("service", "instance", "local");
  at.broker.registerService(local);
  at.serve(at.client, ask("service", "instance"));
  at.run();
  EXPECT_EQ(at.client.receive(), answer(0, "local"));
  at.expectNothingSentTo(slave);
  at.broker.unregisterService(local);
  at.serve(at.client, ask("service", "instance"));
  EXPECT_EQ(slave.receive().front(), "client");
}

TEST(RpcBrokerMaster, ALaterSlaveTakesOver) {
  HandServedMaster at;
  NamedDealer first("first", at.endpoint);
  NamedDealer second("second", at.endpoint);
  at.registerFrom(first, "s", "i");
  at.registerFrom(second, "s", "i");
  at.serve(at.client, ask("s", "i", "payload"));
  EXPECT_EQ(second.receive(), enveloped({"client"}, requestFrames("s", "i", "method", "payload")));
  at.expectNothingSentTo(first);
}

TEST(RpcBrokerMaster, AWithdrawalOfTheFirstSlaveRemovesTheServiceForBoth) {
  HandServedMaster at;
  NamedDealer first("first", at.endpoint);
  NamedDealer second("second", at.endpoint);
  at.registerFrom(first, "s", "i");
  at.registerFrom(second, "s", "i");
  at.withdrawFrom(first, "s", "i");
  at.serve(at.client, ask("s", "i"));
  EXPECT_EQ(at.client.receive(), answer(2, "service not found: s - i"));
  at.expectNothingSentTo(first);
  at.expectNothingSentTo(second);
}

TEST(RpcBrokerMaster, AWithdrawalConcernsOnlyItsOwnService) {
  HandServedMaster at;
  NamedDealer slave("slave", at.endpoint);
  at.registerFrom(slave, "ab", "c");
  at.registerFrom(slave, "a", "bc");
  at.withdrawFrom(slave, "ab", "c");
  at.serve(at.client, ask("ab", "c"));
  EXPECT_EQ(at.client.receive(), answer(2, "service not found: ab - c"));
  at.serve(at.client, ask("a", "bc"));
  EXPECT_EQ(slave.receive(), enveloped({"client"}, requestFrames("a", "bc", "method", "payload")));
}

TEST(RpcBrokerMaster, AWithdrawalOfNothingChangesNothingAndNobodyHears) {
  HandServedMaster at;
  NamedDealer slave("slave", at.endpoint);
  const auto local = answering("local", "i", "ok");
  at.broker.registerService(local);
  at.registerFrom(slave, "s", "i");
  at.heard();
  at.withdrawFrom(slave, "s", "other");
  at.withdrawFrom(slave, "local", "i");  // not a slave's to withdraw
  EXPECT_THAT(at.heard(), IsEmpty());
  at.serve(at.client, ask("s", "i"));
  slave.receive();
  at.serve(at.client, ask("local", "i"));
  at.run();
  EXPECT_EQ(at.client.receive(), answer(0, "ok"));
}

TEST(RpcBrokerMaster, AnyFlagButZeroRegisters) {
  HandServedMaster at;
  NamedDealer slave("slave", at.endpoint);
  for (const std::string& flag :
       {std::string("\x02"), std::string("\xFF"), bytes("\x01\0", 2), bytes("\x80\0\0", 3)}) {
    at.serve(slave, {"", "RS02", "\x02", flag, "s", "i"});
    EXPECT_THAT(at.heard(), ElementsAre("registered s i remote slave"));
  }
  at.serve(slave, {"", "RS02", "\x02", bytes("\0\x01", 2), "s", "i"});
  EXPECT_THAT(at.heard(), ElementsAre("unregistered s i remote slave"));
}

// Over TCP a short frame is read into memory that still holds the byte of the frame before it.
TEST(RpcBrokerMaster, AnEmptyFlagWithdraws) {
  const std::string endpoint = freeTcp();
  const auto observer = std::make_shared<RecordingRpcObserver>();
  RpcBroker broker(true, {endpoint}, anyDispatcher());
  broker.attach(observer);
  broker.start();
  NamedDealer slave("slave", endpoint);
  slave.send(enveloped({}, registrationFrames(true, "s", "i")));
  slave.send({"", "RS02", "\x02", "", "s", "i"});
  EXPECT_THAT(observer->journal.lines(2),
              ElementsAre("registered s i remote slave", "unregistered s i remote slave"));
}

TEST(RpcBrokerMaster, KnowsASlaveByTheLastFrameOfItsEnvelope) {
  HandServedMaster at;
  NamedDealer between("between", at.endpoint);
  NamedDealer slave("slave", at.endpoint);
  at.serve(between, enveloped({"slave"}, registrationFrames(true, "s", "i")));
  EXPECT_THAT(at.heard(), ElementsAre("registered s i remote slave"));
  at.serve(at.client, ask("s", "i"));
  EXPECT_EQ(slave.receive().front(), "client");
  at.expectNothingSentTo(between);
}

TEST(RpcBrokerMaster, ACallForASlaveThatHasGoneIsLostAndNothingElse) {
  HandServedMaster at;
  {
    NamedDealer slave("slave", at.endpoint);
    at.registerFrom(slave, "s", "i");
  }
  at.serve(at.client, ask("s", "i"));
  at.expectNothingSentTo(at.client);
}

TEST(RpcBrokerMaster, AReplyForAClientThatHasGoneIsLostAndNothingElse) {
  HandServedMaster at;
  NamedDealer slave("slave", at.endpoint);
  at.serve(slave, enveloped({"nobody"}, replyFrames(0, "result")));
  at.expectNothingSentTo(at.client);
  at.expectNothingSentTo(slave);
}

TEST(RpcBrokerMaster, AReplyForNobodyIsDropped) {
  HandServedMaster at;
  NamedDealer slave("slave", at.endpoint);
  at.serve(slave, enveloped({}, replyFrames(0, "result")));
  at.expectNothingSentTo(at.client);
  at.expectNothingSentTo(slave);
}

// Clients that do not read must not cost the broker memory without end.
TEST(RpcBrokerMaster, RepliesBeyondTheHighWaterMarksAreDropped) {
  HandServedMaster at;
  RawPeer sleeper(ZMQ_DEALER);
  sleeper.connect(at.endpoint);
  for (int i = 0; i < 3000; ++i) at.serve(sleeper, ask("none", std::to_string(i)));
  const int sent = 2000;  // a thousand on each side
  for (int i = 0; i < sent; ++i) {
    ASSERT_EQ(sleeper.receive(), answer(2, "service not found: none - " + std::to_string(i)));
  }
  at.expectNothingSentTo(sleeper);
}

TEST(RpcBrokerMaster, ACallMayComeFromASlave) {
  HandServedMaster at;
  NamedDealer slave("slave", at.endpoint);
  at.registerFrom(slave, "s", "i");
  at.serve(slave, ask("s", "i"));
  EXPECT_EQ(slave.receive(), enveloped({"slave"}, requestFrames("s", "i", "method", "payload")));
  at.serve(slave, enveloped({"slave"}, replyFrames(0, "to myself")));
  EXPECT_EQ(slave.receive(), answer(0, "to myself"));
}

// The dispatcher of one broker thread holds it up while thousands of replies are sent: nobody
// waits.
TEST(RpcBrokerMaster, WorkersNeverWaitForTheBrokerToTakeTheirReplies) {
  constexpr int kReplies = 3000;
  HandServedMaster at;
  at.broker.registerService(answering("s", "i", "ok"));
  for (int i = 0; i < kReplies; ++i) at.serve(at.client, ask("s", "i"));
  withoutHanging("a worker", [&] {
    for (int i = 0; i < kReplies; ++i) at.dispatcher->runOne();
    // Here, before the end of this thread closes the socket that the replies went by.
    at.pass(kReplies);
  });
  for (int i = 0; i < kReplies; ++i) ASSERT_EQ(at.client.receive(), answer(0, "ok"));
}

}  // namespace
}  // namespace tessel::test
