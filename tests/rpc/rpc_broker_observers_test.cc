#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tessel/rpc_broker.h>
#include <tessel/rpc_client.h>
#include <tessel/rpc_error.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "support/hand_served_rpc_broker.h"
#include "support/sleeping_thread.h"
#include "support/text_of.h"
#include "support/threads.h"

namespace tessel::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

static_assert(std::is_abstract<RpcBrokerObserver>::value, "the application brings it");
static_assert(std::has_virtual_destructor<RpcBrokerObserver>::value, "held polymorphically");

TEST(RpcBrokerObservers, HearOfLocalServicesWithoutAnIdentity) {
  HandServedMaster at;
  const auto service = answering("service", "instance", "");
  at.broker.registerService(service);
  EXPECT_THAT(at.heard(), ElementsAre("registered service instance local"));
  at.broker.unregisterService(service);
  EXPECT_THAT(at.heard(), ElementsAre("unregistered service instance local"));
}

TEST(RpcBrokerObservers, HearOfRemoteServicesWithTheSlavesIdentity) {
  HandServedMaster at;
  const std::string identity = bytes("\x01\0name", 6);
  NamedDealer slave(identity, at.endpoint);
  at.registerFrom(slave, "service", "instance");
  EXPECT_THAT(at.heard(), ElementsAre("registered service instance remote " + identity));
  at.withdrawFrom(slave, "service", "instance");
  EXPECT_THAT(at.heard(), ElementsAre("unregistered service instance remote " + identity));
}

TEST(RpcBrokerObservers, HearOfASlaveThatRegistersAgainAndOfOneThatTakesOver) {
  HandServedMaster at;
  NamedDealer first("first", at.endpoint);
  NamedDealer second("second", at.endpoint);
  at.registerFrom(first, "s", "i");
  at.registerFrom(first, "s", "i");
  at.registerFrom(second, "s", "i");
  EXPECT_THAT(at.heard(), ElementsAre("registered s i remote first", "registered s i remote first",
                                      "registered s i remote second"));
}

TEST(RpcBrokerObservers, HearWhichSlaveWithdrewAndNotWhichHadTheService) {
  HandServedMaster at;
  NamedDealer first("first", at.endpoint);
  NamedDealer second("second", at.endpoint);
  at.registerFrom(first, "s", "i");
  at.registerFrom(second, "s", "i");
  at.heard();
  at.withdrawFrom(first, "s", "i");
  at.withdrawFrom(second, "s", "i");
  EXPECT_THAT(at.heard(), ElementsAre("unregistered s i remote first"));
}

TEST(RpcBrokerObservers, HearOfAServiceUnregisteredThatWasNeverThere) {
  HandServedMaster at;
  at.broker.unregisterService(answering("s", "i", ""));
  EXPECT_THAT(at.heard(), ElementsAre("unregistered s i local"));
}

TEST(RpcBrokerObservers, HearNothingOfADuplicate) {
  HandServedMaster at;
  at.broker.registerService(answering("s", "i", ""));
  at.heard();
  EXPECT_THROW(at.broker.registerService(answering("s", "i", "")), std::logic_error);
  EXPECT_THAT(at.heard(), IsEmpty());
}

TEST(RpcBrokerObservers, HearOfACallAroundTheService) {
  HandServedMaster at;
  at.broker.registerService(makeService(
      "s", "i", [&](const std::string&, const void*, std::size_t, Buffer& out, std::size_t& size) {
        at.observer->journal.add("called");
        give("result", out, size);
      }));
  at.heard();
  at.serve(at.client, ask("s", "i", bytes("p\0", 2)));
  EXPECT_THAT(at.heard(), IsEmpty());
  at.run();
  EXPECT_THAT(at.heard(), ElementsAre("request s i method " + bytes("p\0", 2), "called",
                                      "reply s i method 0 result"));
}

TEST(RpcBrokerObservers, HearOfAServiceThatNobodyHas) {
  HandServedMaster at;
  at.serve(at.client, ask("service", "instance"));
  EXPECT_THAT(at.heard(),
              ElementsAre(withNul("reply service instance method 2 service not found")));
}

TEST(RpcBrokerObservers, HearThatNothingWasFoundBeforeTheCallerDoes) {
  HandServedMaster at;
  bool early = false;
  const auto watcher = std::make_shared<RecordingRpcObserver>(
      [&](const std::string&) { early = early || at.client.readable(); });
  at.broker.attach(watcher);
  at.serve(at.client, ask("s", "i"));
  EXPECT_EQ(at.client.receive(), answer(2, "service not found: s - i"));
  EXPECT_EQ(watcher->journal.size(), 1U);
  EXPECT_FALSE(early);
}

TEST(RpcBrokerObservers, HearNothingOfCallsAndRepliesThatPassThrough) {
  HandServedMaster at;
  NamedDealer slave("slave", at.endpoint);
  at.registerFrom(slave, "s", "i");
  at.heard();
  at.serve(at.client, ask("s", "i"));
  at.serve(slave, enveloped({"client"}, replyFrames(0, "result")));
  EXPECT_EQ(at.client.receive(), answer(0, "result"));
  EXPECT_THAT(at.heard(), IsEmpty());
}

TEST(RpcBrokerObservers, AreCalledInOrderOfAttachment) {
  HandServedMaster at;
  Journal journal;
  std::vector<std::shared_ptr<RecordingRpcObserver>> three;
  for (const char* name : {"1", "2", "3"}) {
    three.push_back(std::make_shared<RecordingRpcObserver>(
        [&journal, name](const std::string&) { journal.add(name); }));
    at.broker.attach(three.back());
  }
  at.broker.registerService(answering("s", "i", ""));
  EXPECT_THAT(journal.lines(), ElementsAre("1", "2", "3"));
  at.serve(at.client, ask("s", "other"));
  EXPECT_THAT(journal.lines(), ElementsAre("1", "2", "3", "1", "2", "3"));
}

TEST(RpcBrokerObservers, AttachedTwiceHearTwiceAndAreDetachedAtOnce) {
  HandServedMaster at;
  at.broker.attach(at.observer);
  const auto service = answering("s", "i", "");
  at.broker.registerService(service);
  EXPECT_EQ(at.heard().size(), 2U);
  at.broker.detach(at.observer);
  at.broker.unregisterService(service);
  EXPECT_THAT(at.heard(), IsEmpty());
}

TEST(RpcBrokerObservers, DetachingOneLeavesTheOthers) {
  HandServedMaster at;
  const auto other = std::make_shared<RecordingRpcObserver>();
  at.broker.attach(other);
  at.broker.detach(at.observer);
  at.broker.registerService(answering("s", "i", ""));
  EXPECT_THAT(at.heard(), IsEmpty());
  EXPECT_EQ(other->journal.size(), 1U);
}

TEST(RpcBrokerObservers, AreNotKeptAliveAndLeaveTheOthersInOrder) {
  HandServedMaster at;
  auto gone = std::make_shared<RecordingRpcObserver>();
  const auto after = std::make_shared<RecordingRpcObserver>();
  at.broker.attach(gone);
  at.broker.attach(after);
  EXPECT_EQ(gone.use_count(), 1);
  gone.reset();
  at.broker.registerService(answering("s", "i", ""));
  EXPECT_EQ(at.heard().size(), 1U);
  EXPECT_EQ(after->journal.size(), 1U);
}

TEST(RpcBrokerObservers, ANullPointerIsNoObserver) {
  HandServedMaster at;
  at.broker.attach(nullptr);
  at.broker.detach(nullptr);
  at.broker.registerService(answering("s", "i", ""));
  EXPECT_EQ(at.heard().size(), 1U);
}

TEST(RpcBrokerObservers, HearOnTheThreadThatCausedTheEvent) {
  RpcBroker broker(true, {}, std::make_shared<ThreadedRpcDispatcher>(1));
  std::vector<std::thread::id> threads;
  const auto observer = std::make_shared<RecordingRpcObserver>(
      [&](const std::string&) { threads.push_back(std::this_thread::get_id()); });
  broker.attach(observer);
  broker.start();
  const auto service = answering("s", "i", "");
  broker.registerService(service);
  broker.unregisterService(service);
  EXPECT_THAT(threads, ElementsAre(std::this_thread::get_id(), std::this_thread::get_id()));
}

TEST(RpcBrokerObservers, HearOnTheBrokersThreadOfASlavesServicesAndOfWhatNobodyHas) {
  const std::string endpoint = uniqueInproc();
  const auto dispatcher = std::make_shared<KeepingDispatcher>();
  RpcBroker broker(true, {endpoint}, dispatcher);
  Journal brokersThread;  // by which requests are submitted
  Journal heardOn;
  const auto recorder = std::make_shared<RecordingRpcObserver>(
      [&](const std::string&) { heardOn.add(std::to_string(thisThread())); });
  dispatcher->onSubmit = [&] { brokersThread.add(std::to_string(thisThread())); };
  broker.registerService(answering("s", "i", "ok"));
  broker.attach(recorder);
  broker.start();
  NamedDealer peer("peer", endpoint);
  peer.send(enveloped({}, registrationFrames(true, "remote", "i")));
  peer.send(ask("nobody", "has it"));
  peer.send(enveloped({}, registrationFrames(false, "remote", "i")));
  peer.send(ask("s", "i"));
  const Lines submitter = brokersThread.lines(1);
  ASSERT_EQ(submitter.size(), 1U);
  EXPECT_THAT(recorder->journal.lines(),
              ElementsAre("registered remote i remote peer",
                          withNul("reply nobody has it method 2 service not found"),
                          "unregistered remote i remote peer"));
  EXPECT_THAT(heardOn.lines(), ElementsAre(submitter[0], submitter[0], submitter[0]));
  EXPECT_NE(submitter[0], std::to_string(thisThread()));
}

// So that all of them agree on what is registered.
TEST(RpcBrokerObservers, HoldUpWhoRegistersAttachesCallsOrLooksUpWhileTheyHearOfARegistration) {
  const std::string endpoint = uniqueInproc();
  const auto dispatcher = std::make_shared<KeepingDispatcher>();
  const auto broker = std::make_shared<RpcBroker>(true, Lines{endpoint}, dispatcher);
  Gate hearing;
  Gate gate;
  const auto observer = std::make_shared<RecordingRpcObserver>([&](const std::string& line) {
    if (line != "registered held i local") return;
    hearing.open();
    gate.pass();
  });
  broker->attach(observer);
  broker->registerService(answering("there", "i", "ok"));
  broker->start();
  NamedDealer calling("client", endpoint);
  RpcClient client(broker, kPatience);
  Journal done;
  {
    ScopedThread registering([&] { broker->registerService(answering("held", "i", "")); });
    hearing.pass();
    calling.send(ask("there", "i"));
    const auto registers = runUntilAsleep([&] {
      broker->registerService(answering("another", "i", ""));
      done.add("registered");
    });
    const auto attaches = runUntilAsleep([&] {
      broker->attach(observer);
      done.add("attached");
    });
    const auto looksUp = runUntilAsleep([&] {
      Buffer out;
      std::size_t size = 0;
      client.CallMethod("there", "i", "m", "", 0, out, size);
      done.add("looked up");
    });
    EXPECT_EQ(done.size(), 0U);
    EXPECT_EQ(dispatcher->size(), 0U);
    gate.open();
  }
  EXPECT_EQ(done.size(), 3U);
  EXPECT_TRUE(eventually([&] { return dispatcher->size() == 1; }));
}

TEST(RpcBrokerObservers, WhatTheyThrowAtARegistrationReachesItsCaller) {
  HandServedMaster at;
  const auto thrower = std::make_shared<RecordingRpcObserver>(
      [](const std::string&) { throw std::domain_error("observer"); });
  at.broker.attach(thrower);
  const auto service = answering("s", "i", "ok");
  EXPECT_EQ(textOf<std::domain_error>([&] { at.broker.registerService(service); }), "observer");
  EXPECT_EQ(textOf<std::domain_error>([&] { at.broker.unregisterService(service); }), "observer");
  at.broker.detach(thrower);  // no lock is left behind
  EXPECT_EQ(textOf<std::logic_error>([&] { at.broker.registerService(service); }),
            "service already registered");
  at.broker.unregisterService(service);
  at.broker.registerService(service);
}

TEST(RpcBrokerObservers, OfASlaveHearOfItsOwnServices) {
  RpcBrokerImpl slave(false, {uniqueInproc()}, std::make_shared<KeepingDispatcher>());
  const auto observer = std::make_shared<RecordingRpcObserver>();
  slave.attach(observer);
  const auto service = answering("s", "i", "");
  slave.registerService(service);
  slave.unregisterService(service);
  EXPECT_THAT(observer->journal.lines(),
              ElementsAre("registered s i local", "unregistered s i local"));
}

TEST(RpcBrokerObservers, OfACallHearItsEndBeforeTheCallerDoes) {
  const std::string endpoint = uniqueInproc();
  RpcBroker broker(true, {endpoint}, std::make_shared<ThreadedRpcDispatcher>(1));
  Gate gate;
  const auto observer = std::make_shared<RecordingRpcObserver>([&](const std::string& line) {
    if (line == "reply s i method 0 ok") gate.pass();
  });
  broker.registerService(answering("s", "i", "ok"));
  broker.attach(observer);
  broker.start();
  NamedDealer client("client", endpoint);
  client.send(ask("s", "i"));
  ASSERT_TRUE(observer->journal.waitFor(2));
  // Two markers: the broker reads its peers in turn, so whatever was sent comes before the second.
  for (int i = 0; i < 2; ++i) {
    client.send(ask("marker", "m"));
    EXPECT_EQ(client.receive(), answer(2, "service not found: marker - m"));
  }
  gate.open();
  EXPECT_EQ(client.receive(), answer(0, "ok"));
}

TEST(RpcBrokerObservers, ManyMayWatchOneBroker) {
  HandServedMaster at;
  std::vector<std::shared_ptr<RecordingRpcObserver>> many;
  for (int i = 0; i < 50; ++i) {
    many.push_back(std::make_shared<RecordingRpcObserver>());
    at.broker.attach(many.back());
  }
  at.serve(at.client, ask("s", "i"));
  for (const auto& one : many) {
    EXPECT_THAT(one->journal.lines(), ElementsAre(withNul("reply s i method 2 service not found")));
  }
}

}  // namespace
}  // namespace tessel::test
