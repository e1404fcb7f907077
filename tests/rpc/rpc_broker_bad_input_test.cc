#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tessel/rpc_broker.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "support/hand_served_rpc_broker.h"
#include "support/text_of.h"

namespace tessel::test {
namespace {

using testing::IsEmpty;

const char* const kUnexpected = "this should not happen";

std::string byte(int value) { return std::string(1, static_cast<char>(value)); }

// Messages that end in their header, or whose header is wrong; without their envelope.
std::vector<Frames> badHeaders() {
  const Frames body = {"", "s", "i", "m", "p"};
  std::vector<Frames> all;
  const auto with = [&](const std::string& signature, const std::string& type) {
    Frames frames = {signature, type};
    frames.insert(frames.end(), body.begin(), body.end());
    all.push_back(frames);
  };
  for (const char* signature : {"RS01", "rS02", "RS0", "RS022", "", " RS02"}) with(signature, kNul);
  with("RS02", "");
  with("RS02", bytes("\0\0", 2));
  all.push_back({"RS02"});
  all.push_back({"RS02", kNul});
  all.push_back({""});
  all.push_back({"", "", ""});
  return all;
}

// Headers of the type, with too few body frames or too many.
std::vector<Frames> badBodies(int type, std::size_t count) {
  std::vector<Frames> all;
  for (const std::size_t frames : {std::size_t{1}, count - 1, count + 1, count + 20}) {
    Frames message = {"RS02", byte(type)};
    message.insert(message.end(), frames, "x");
    all.push_back(message);
  }
  return all;
}

std::vector<Frames> badRequests() {
  std::vector<Frames> all = badHeaders();
  for (const Frames& frames : badBodies(0, 5)) all.push_back(frames);
  return all;
}

TEST(RpcBrokerBadInput, AMasterDropsWhatItCannotReadAndServesTheNext) {
  HandServedMaster at;
  NamedDealer slave("slave", at.endpoint);
  at.registerFrom(slave, "s", "i");
  at.heard();
  std::vector<Frames> all = badRequests();
  for (const Frames& frames : badBodies(1, 3)) all.push_back(frames);
  for (const Frames& frames : badBodies(2, 3)) all.push_back(frames);
  for (const Frames& envelope : {Frames{}, Frames{"client", "more"}}) {
    for (const Frames& frames : all) {
      at.serve(at.client, enveloped(envelope, frames));
      at.expectNothingSentTo(at.client);
    }
  }
  EXPECT_THAT(at.heard(), IsEmpty());
  EXPECT_EQ(at.dispatcher->size(), 0U);
  at.expectNothingSentTo(slave);
}

TEST(RpcBrokerBadInput, AMasterDropsAMessageWithoutADelimiter) {
  HandServedMaster at;
  for (const Frames& frames : {Frames{"RS02"}, Frames{"RS02", kNul, "r", "s", "i", "m", "p"},
                               Frames{"x"}, Frames{"RS02", kNul, "r", "s", "i", "m", ""}}) {
    at.serve(at.client, frames);
    at.expectNothingSentTo(at.client);
  }
  EXPECT_EQ(at.dispatcher->size(), 0U);
}

TEST(RpcBrokerBadInput, AMasterReadsMessagesThatFollowEachOtherWithoutLoss) {
  HandServedMaster at;
  for (const Frames& frames : badRequests()) {
    at.client.send(enveloped({}, frames));
    at.client.send(enveloped({}, requestFrames("s", "i", "m", "")));
    at.pass(2);
    EXPECT_EQ(at.client.receive(), enveloped({}, replyFrames(2, "service not found: s - i")));
  }
}

TEST(RpcBrokerBadInput, ASlaveDropsWhatItCannotReadAndServesTheNext) {
  const std::string endpoint = uniqueInproc();
  RawPeer master(ZMQ_ROUTER);
  master.bind(endpoint);
  RpcBroker slave(false, {endpoint}, anyDispatcher());
  slave.registerService(answering("s", "i", ""));
  slave.start();
  const std::string identity = master.receive().front();
  for (const Frames& frames : badRequests()) {
    for (const Frames& message : {frames, requestFrames("marker", "m", "m", "")}) {
      Frames forwarded = enveloped({"client"}, message);
      forwarded.insert(forwarded.begin(), identity);
      master.send(forwarded);
    }
    Frames answer = enveloped({"client"}, replyFrames(2, "service not found: marker - m"));
    answer.insert(answer.begin(), identity);
    EXPECT_EQ(master.receive(), answer);
  }
}

TEST(RpcBrokerBadInput, ASlaveDropsRegistrationsThatItCannotRead) {
  HandServedSlave at;
  std::vector<Frames> all = badHeaders();
  for (const Frames& frames : badBodies(2, 3)) all.push_back(frames);
  for (const Frames& frames : all) {
    at.registrar.send(enveloped({}, frames));
    at.registrar.send(enveloped({}, registrationFrames(true, "marker", "m")));
    at.broker->serveOnce();
    at.broker->serveOnce();
    EXPECT_EQ(at.master.receive(),
              (Frames{at.identity, "", "RS02", "\x02", "\x01", "marker", "m"}));
  }
}

// Well-formed headers of types that a broker has no business with end its thread, and so its
// process. Here the test catches what the pass throws; the body is still there then, and the next
// pass drops it.
TEST(RpcBrokerBadInput, AMasterThrowsAtEveryTypeThatIsNotItsOwn) {
  HandServedMaster at;
  for (int type = 3; type < 256; ++type) {
    at.client.send(enveloped({}, {"RS02", byte(type), "body"}));
    EXPECT_EQ(textOf<std::logic_error>([&] { at.broker.serveOnce(); }), kUnexpected) << type;
    at.pass();
  }
  at.expectNothingSentTo(at.client);
}

TEST(RpcBrokerBadInput, ASlaveThrowsAtEverythingButARequestFromItsMaster) {
  HandServedSlave at;
  for (int type = 1; type < 256; ++type) {
    at.master.send({at.identity, "", "RS02", byte(type), "flag", "service", "instance"});
    EXPECT_EQ(textOf<std::logic_error>([&] { at.broker->serveOnce(); }), kUnexpected) << type;
    at.broker->serveOnce();
  }
}

TEST(RpcBrokerBadInput, ASlaveThrowsAtEverythingButARegistrationOnItsInternalEndpoint) {
  HandServedSlave at;
  for (int type = 0; type < 256; ++type) {
    if (type == 2) continue;
    at.registrar.send(enveloped({}, {"RS02", byte(type), "r", "s", "i", "m", "p"}));
    EXPECT_EQ(textOf<std::logic_error>([&] { at.broker->serveOnce(); }), kUnexpected) << type;
    at.broker->serveOnce();
  }
}

class RpcBrokerDeathTest : public testing::Test {
 protected:
  // Everything is made in the child, which no thread of the parent can hold up.
  RpcBrokerDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  static void waitForTheEnd() {
    eventually([] { return false; });
  }
  static void sendToMaster(const Frames& frames,
                           const std::shared_ptr<RpcBrokerObserver>& observer) {
    const std::string endpoint = uniqueInproc();
    RpcBroker broker(true, {endpoint}, anyDispatcher());
    broker.attach(observer);
    broker.start();
    NamedDealer peer("peer", endpoint);
    peer.send(enveloped({}, frames));
    waitForTheEnd();
  }
  static void sendToSlave(const Frames& frames) {
    const std::string endpoint = uniqueInproc();
    RawPeer master(ZMQ_ROUTER);
    master.bind(endpoint);
    RpcBroker slave(false, {endpoint}, anyDispatcher());
    slave.registerService(answering("s", "i", ""));
    slave.start();
    Frames message = {master.receive().front(), ""};
    message.insert(message.end(), frames.begin(), frames.end());
    master.send(message);
    waitForTheEnd();
  }
};

TEST_F(RpcBrokerDeathTest, AMessageOfAnUnknownTypeEndsTheMastersProcess) {
  EXPECT_DEATH(sendToMaster({"RS02", "\x03", "body"}, nullptr), kUnexpected);
}

TEST_F(RpcBrokerDeathTest, AReplyEndsTheSlavesProcess) {
  EXPECT_DEATH(sendToSlave(replyFrames(0, "")), kUnexpected);
}

TEST_F(RpcBrokerDeathTest, ARegistrationEndsTheSlavesProcess) {
  EXPECT_DEATH(sendToSlave(registrationFrames(true, "s", "i")), kUnexpected);
}

TEST_F(RpcBrokerDeathTest, ADispatcherThatThrowsAtARequestEndsTheProcess) {
  const auto submit = [] {
    const auto dispatcher = std::make_shared<KeepingDispatcher>();
    dispatcher->onSubmit = [] { throw std::runtime_error("thrown by the dispatcher"); };
    const std::string endpoint = uniqueInproc();
    RpcBroker broker(true, {endpoint}, dispatcher);
    broker.registerService(answering("s", "i", ""));
    broker.start();
    NamedDealer peer("peer", endpoint);
    peer.send(enveloped({}, requestFrames("s", "i", "m", "")));
    waitForTheEnd();
  };
  EXPECT_DEATH(submit(), "thrown by the dispatcher");
}

TEST_F(RpcBrokerDeathTest, AnObserverThatThrowsOnTheBrokersThreadEndsItsProcess) {
  const auto observer = std::make_shared<RecordingRpcObserver>(
      [](const std::string&) { throw std::runtime_error("thrown by the observer"); });
  EXPECT_DEATH(sendToMaster(registrationFrames(true, "s", "i"), observer),
               "thrown by the observer");
  EXPECT_DEATH(sendToMaster(requestFrames("s", "i", "m", ""), observer), "thrown by the observer");
}

}  // namespace
}  // namespace tessel::test
