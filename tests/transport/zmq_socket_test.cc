#include "transport/zmq_socket.h"

#include <gtest/gtest.h>
#include <zmq.h>

#include <atomic>
#include <chrono>
#include <limits>
#include <memory>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/deadline.h"
#include "support/endpoints.h"
#include "support/raw_peer.h"
#include "support/resources.h"
#include "support/socket_budget.h"
#include "support/threads.h"
#include "support/zmq_errors.h"

namespace tessel::test {
namespace {

static_assert(!std::is_copy_constructible_v<ZmqSocket>, "a socket has one owner");
static_assert(!std::is_copy_assignable_v<ZmqSocket>, "a socket has one owner");

int option(const ZmqSocket& socket, int name) {
  int value = -12345;
  std::size_t size = sizeof value;
  EXPECT_EQ(zmq_getsockopt(socket.handle(), name, &value, &size), 0);
  return value;
}

// What a wildcard port became.
std::string boundEndpoint(const ZmqSocket& socket) {
  char endpoint[256];
  std::size_t size = sizeof endpoint;
  EXPECT_EQ(zmq_getsockopt(socket.handle(), ZMQ_LAST_ENDPOINT, endpoint, &size), 0);
  return endpoint;
}

void sendText(ZmqSocket& socket, const std::string& text) {
  ZmqFrame frame(text);
  socket.sendFirst(frame, 0);
}

std::string receiveText(ZmqSocket& socket) {
  socket.setReceiveTimeout(std::chrono::milliseconds(kPatience).count());
  ZmqFrame frame;
  return socket.receive(frame, 0) ? frame.toString() : "nothing came";
}

const int kAllTypes[] = {ZMQ_PAIR,   ZMQ_PUB,  ZMQ_SUB,  ZMQ_REQ,  ZMQ_REP, ZMQ_DEALER,
                         ZMQ_ROUTER, ZMQ_PULL, ZMQ_PUSH, ZMQ_XPUB, ZMQ_XSUB};

// ---- making one

TEST(ZmqSocket, OfEveryTypeDiscardsUnsentMessagesAndWaitsForEver) {
  for (const int type : kAllTypes) {
    const ZmqSocket socket(type);
    EXPECT_EQ(socket.type(), type);
    EXPECT_EQ(option(socket, ZMQ_TYPE), type);
    EXPECT_EQ(option(socket, ZMQ_LINGER), 0) << type;
    EXPECT_EQ(option(socket, ZMQ_RCVTIMEO), -1) << type;
    EXPECT_EQ(socket.receiveTimeout(), -1);
    EXPECT_EQ(socket.endpoint(), "");
    EXPECT_NE(socket.handle(), nullptr);
  }
}

TEST(ZmqSocket, OfAnUnknownTypeThrowsTheZmqText) { EXPECT_ZMQ_ERROR(ZmqSocket(999), EINVAL); }

TEST(ZmqSocket, ThrowsTheZmqTextWhenThereAreNoMoreSockets) {
  const SocketBudget everySocket;
  EXPECT_ZMQ_ERROR(ZmqSocket(ZMQ_PULL), EMFILE);
}

// What a closed one gives back may be somebody else's by then.
TEST(ZmqSocket, WaitsASecondForTheSocketOfAnotherThatWasJustClosedBeforeItGivesUp) {
  auto last = std::make_unique<ZmqSocket>(ZMQ_PULL);
  const SocketBudget everyOther;
  const auto begin = std::chrono::steady_clock::now();
  last.reset();
  void* place = nullptr;
  ASSERT_TRUE(eventually([&] {
    place = zmq_socket(ZmqContext::handle(), ZMQ_PAIR);
    return place != nullptr;
  }));
  EXPECT_ZMQ_ERROR(ZmqSocket(ZMQ_PULL), EMFILE);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
  zmq_close(place);
}

TEST(ZmqSocket, ReleasesTheSocketWhenTheConstructorCannotConnect) {
  const OpenSockets sockets;
  for (int i = 0; i < 10; ++i) EXPECT_ZMQ_ERROR(ZmqSocket(ZMQ_PUSH, "no endpoint"), EINVAL);
  EXPECT_TRUE(sockets.become(0));
}

TEST(ZmqSocket, IsClosedWithTheObject) {
  const std::string endpoint = uniqueInproc();
  RawPeer peer(ZMQ_PULL);
  peer.bind(endpoint);
  const OpenSockets sockets;
  {
    const ZmqSocket one(ZMQ_PULL);
    const ZmqSocket other(ZMQ_PUSH, endpoint);
    EXPECT_TRUE(sockets.become(2, peer));
  }
  EXPECT_TRUE(sockets.become(0, peer));
}

TEST(ZmqSocket, CloseLeavesNoHandleAndMayBeRepeated) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket socket(ZMQ_PULL);
  socket.bind(endpoint);
  socket.close();
  EXPECT_EQ(socket.handle(), nullptr);
  socket.close();
  EXPECT_EQ(socket.handle(), nullptr);
  ZmqFrame frame;
  EXPECT_ZMQ_ERROR(socket.receive(frame, 0), ENOTSOCK);
}

// ---- connect and bind

TEST(ZmqSocket, ConstructorConnects) {
  const std::string endpoint = uniqueInproc();
  RawPeer peer(ZMQ_PULL);
  peer.bind(endpoint);
  ZmqSocket socket(ZMQ_PUSH, endpoint);
  EXPECT_EQ(socket.endpoint(), endpoint);
  sendText(socket, "hello");
  EXPECT_EQ(peer.receive(), Frames{"hello"});
}

TEST(ZmqSocket, ConnectKeepsTheLastEndpointGiven) {
  ZmqSocket socket(ZMQ_DEALER);
  const std::string first = uniqueInproc();
  const std::string second = freeTcp();
  socket.connect(first);
  EXPECT_EQ(socket.endpoint(), first);
  ZmqSocket(ZMQ_ROUTER).bind(first);
  socket.connect(second);
  EXPECT_EQ(socket.endpoint(), second);
}

TEST(ZmqSocket, ConnectKeepsTheEndpointAlsoWhenItFails) {
  ZmqSocket socket(ZMQ_PUSH);
  EXPECT_ZMQ_ERROR(socket.connect("foo://bar"), EPROTONOSUPPORT);
  EXPECT_EQ(socket.endpoint(), "foo://bar");
  EXPECT_NE(socket.handle(), nullptr);
}

TEST(ZmqSocket, BindDoesNotKeepTheEndpoint) {
  ZmqSocket socket(ZMQ_PULL);
  socket.bind(uniqueInproc());
  socket.bind("tcp://127.0.0.1:*");
  EXPECT_EQ(socket.endpoint(), "");
}

TEST(ZmqSocket, BindThrowsTheZmqText) {
  ZmqSocket socket(ZMQ_PULL);
  EXPECT_ZMQ_ERROR(socket.bind("foo://bar"), EPROTONOSUPPORT);
  EXPECT_ZMQ_ERROR(socket.bind("bar"), EINVAL);
  EXPECT_ZMQ_ERROR(socket.bind("tcp://no-such-interface:1"), ENODEV);
}

TEST(ZmqSocket, BindThrowsForAnInprocNameInUse) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket holder(ZMQ_PULL);
  holder.bind(endpoint);
  ZmqSocket late(ZMQ_PULL);
  EXPECT_EQ(zmqErrorOf([&] { late.bind(endpoint); }), "Address already in use");
  // The one that was refused takes nothing from the holder.
  late.close();
  ZmqSocket sender(ZMQ_PUSH, endpoint);
  sendText(sender, "to the holder");
  EXPECT_EQ(receiveText(holder), "to the holder");
}

TEST(ZmqSocket, BindThrowsForATcpPortInUse) {
  void* const otherContext = zmq_ctx_new();
  {
    const std::string endpoint = freeTcp();
    RawPeer holder(ZMQ_PULL, otherContext);
    holder.bind(endpoint);
    ZmqSocket late(ZMQ_PULL);
    EXPECT_EQ(zmqErrorOf([&] { late.bind(endpoint); }), "Address already in use");
    // Also just after this process has closed a bound socket, when it waits a moment first.
    ZmqSocket(ZMQ_PULL).bind("tcp://127.0.0.1:*");
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(zmqErrorOf([&] { late.bind(endpoint); }), "Address already in use");
    EXPECT_LT(std::chrono::steady_clock::now() - begun, kPatience);
  }
  zmq_ctx_term(otherContext);
}

TEST(ZmqSocket, WaitsALittleForAPortThatIsJustComingFree) {
  void* const otherContext = zmq_ctx_new();
  const std::string endpoint = freeTcp();
  std::thread closer;
  {
    ZmqSocket(ZMQ_PULL).bind("tcp://127.0.0.1:*");  // something bound was closed just now
    std::atomic<bool> binding{false};
    void* const holder = zmq_socket(otherContext, ZMQ_PULL);
    ASSERT_EQ(zmq_bind(holder, endpoint.c_str()), 0);
    closer = std::thread([&] {
      while (!binding) std::this_thread::yield();
      zmq_close(holder);
      zmq_ctx_term(otherContext);
    });
    binding = true;
    ZmqSocket socket(ZMQ_PULL);
    EXPECT_EQ(zmqErrorOf([&] { socket.bind(endpoint); }), "nothing thrown");
    closer.join();
  }
}

void expectToBindAgainAndAgain(const std::string& endpoint, int rounds) {
  for (int round = 0; round < rounds; ++round) {
    ZmqSocket socket(ZMQ_PULL);
    ASSERT_EQ(zmqErrorOf([&] { socket.bind(endpoint); }), "nothing thrown") << round;
    RawPeer peer(ZMQ_PUSH);
    peer.connect(endpoint).send({std::to_string(round)});
    EXPECT_EQ(receiveText(socket), std::to_string(round));
  }
}

TEST(ZmqSocket, BindsTheSameTcpPortAgainAtOnce) { expectToBindAgainAndAgain(freeTcp(), 50); }

TEST(ZmqSocket, BindsAWildcardPortAgainAtOnceByItsNumber) {
  std::string endpoint = "tcp://127.0.0.1:*";
  for (int round = 0; round < 20; ++round) {
    ZmqSocket socket(ZMQ_XPUB);
    ASSERT_EQ(zmqErrorOf([&] { socket.bind(endpoint); }), "nothing thrown") << round;
    endpoint = boundEndpoint(socket);
  }
}

TEST(ZmqSocket, BindsTheSameIpcNameAgainAtOnce) { expectToBindAgainAndAgain(uniqueIpc(), 20); }

TEST(ZmqSocket, BindsTheSameInprocNameAgainAtOnce) {
  const std::string endpoint = uniqueInproc();
  for (int round = 0; round < 200; ++round) {
    ZmqSocket socket(ZMQ_PULL);
    ASSERT_EQ(zmqErrorOf([&] { socket.bind(endpoint); }), "nothing thrown") << round;
  }
}

TEST(ZmqSocket, FreesEveryEndpointThatItBound) {
  const std::string tcp = freeTcp();
  const std::string first = uniqueInproc();
  const std::string second = uniqueInproc();
  for (int round = 0; round < 20; ++round) {
    ZmqSocket socket(ZMQ_PULL);
    for (const std::string& endpoint : {first, tcp, second}) {
      ASSERT_EQ(zmqErrorOf([&] { socket.bind(endpoint); }), "nothing thrown") << endpoint;
    }
  }
}

// ---- options

TEST(ZmqSocket, SetsOptionsAsTheyStand) {
  ZmqSocket socket(ZMQ_SUB);
  socket.setOption(ZMQ_RCVHWM, 17);
  EXPECT_EQ(option(socket, ZMQ_RCVHWM), 17);
  const int forty = 40;
  socket.setOption(ZMQ_SNDHWM, &forty, sizeof forty);
  EXPECT_EQ(option(socket, ZMQ_SNDHWM), 40);
  socket.setOption(ZMQ_SUBSCRIBE, std::string("a\0b", 3));

  const std::string endpoint = uniqueInproc();
  RawPeer peer(ZMQ_XPUB);
  peer.bind(endpoint);
  socket.connect(endpoint);
  EXPECT_EQ(peer.receive(), Frames{bytes("\x01"
                                         "a\0b",
                                         4)});
}

TEST(ZmqSocket, ThrowsTheZmqTextForAnOptionThatIsRefused) {
  ZmqSocket socket(ZMQ_PUSH);
  EXPECT_ZMQ_ERROR(socket.setOption(ZMQ_SUBSCRIBE, std::string("a")), EINVAL);
  EXPECT_ZMQ_ERROR(socket.setOption(ZMQ_SNDHWM, std::string("a")), EINVAL);
}

TEST(ZmqSocket, KeepsAndSetsTheReceiveTimeout) {
  ZmqSocket socket(ZMQ_PULL);
  const auto check = [&](std::int64_t given, int expected) {
    socket.setReceiveTimeout(given);
    EXPECT_EQ(socket.receiveTimeout(), expected) << given;
    EXPECT_EQ(option(socket, ZMQ_RCVTIMEO), expected) << given;
  };
  check(0, 0);
  check(250, 250);
  check(-1, -1);
  check(2147483647, 2147483647);
  check(2147483648, -1);
  check(5, 5);
  check(std::numeric_limits<std::int64_t>::max(), -1);
  check(-4294967296 + 7, 7);  // what does not fit below is cut to 32 bits
}

TEST(ZmqSocket, ThrowsTheZmqTextForAReceiveTimeoutBelowMinusOne) {
  ZmqSocket socket(ZMQ_PULL);
  EXPECT_ZMQ_ERROR(socket.setReceiveTimeout(-2), EINVAL);
}

// ---- receive

TEST(ZmqSocket, WithATimeoutOfZeroAReceiveReturnsFalseAtOnceWhenNothingIsQueued) {
  ZmqSocket socket(ZMQ_PULL);
  socket.bind(uniqueInproc());
  socket.setReceiveTimeout(0);
  ZmqFrame frame;
  EXPECT_FALSE(socket.receive(frame, 0));
}

TEST(ZmqSocket, AReceiveReturnsFalseAfterItsTimeout) {
  ZmqSocket socket(ZMQ_PULL);
  socket.bind(uniqueInproc());
  socket.setReceiveTimeout(30);
  const auto begun = std::chrono::steady_clock::now();
  ZmqFrame frame;
  EXPECT_FALSE(socket.receive(frame, 0));
  EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(29));
}

TEST(ZmqSocket, AReceiveThatMustNotWaitReturnsFalseWhenNothingIsQueued) {
  ZmqSocket socket(ZMQ_PULL);
  socket.bind(uniqueInproc());
  ZmqFrame frame;
  EXPECT_FALSE(socket.receive(frame, ZMQ_DONTWAIT));
}

TEST(ZmqSocket, WithoutATimeoutAReceiveWaits) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket socket(ZMQ_PULL);
  socket.bind(endpoint);
  socket.setReceiveTimeout(2147483648);
  std::thread sender([&] { RawPeer(ZMQ_PUSH).connect(endpoint).send({"late"}); });
  ZmqFrame frame;
  EXPECT_TRUE(socket.receive(frame, 0));
  EXPECT_EQ(frame.toString(), "late");
  sender.join();
}

TEST(ZmqSocket, AReceiveReplacesWhatTheFrameHeld) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket socket(ZMQ_PULL);
  socket.bind(endpoint);
  RawPeer(ZMQ_PUSH).connect(endpoint).send({"", "new"});
  ZmqFrame frame(std::string(100, 'x'));
  ASSERT_TRUE(socket.receive(frame, 0));
  EXPECT_EQ(frame.size(), 0U);
  ASSERT_TRUE(socket.receive(frame, 0));
  EXPECT_EQ(frame.toString(), "new");
}

TEST(ZmqSocket, ReceivesIntoASharedFrame) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket socket(ZMQ_PULL);
  socket.bind(endpoint);
  RawPeer(ZMQ_PUSH).connect(endpoint).send({"a"});
  const auto frame = std::make_shared<ZmqFrame>();
  EXPECT_TRUE(socket.receive(frame, 0));
  EXPECT_EQ(frame->toString(), "a");
  EXPECT_EQ(frame.use_count(), 1);
  EXPECT_FALSE(socket.receive(frame, ZMQ_DONTWAIT));
}

TEST(ZmqSocket, AReceiveThrowsTheZmqTextOfOtherErrors) {
  ZmqSocket cannotReceive(ZMQ_PUSH);
  ZmqFrame frame;
  EXPECT_ZMQ_ERROR(cannotReceive.receive(frame, 0), ENOTSUP);
  EXPECT_ZMQ_ERROR(cannotReceive.receive(std::make_shared<ZmqFrame>(), 0), ENOTSUP);
  ZmqSocket request(ZMQ_REQ, uniqueInproc());
  EXPECT_ZMQ_ERROR(request.receive(frame, 0), EFSM);
}

// ---- send

TEST(ZmqSocket, ASendTakesTheFrame) {
  const std::string endpoint = uniqueInproc();
  RawPeer peer(ZMQ_PULL);
  peer.bind(endpoint);
  ZmqSocket socket(ZMQ_PUSH, endpoint);
  ZmqFrame frame(std::string(100, 'x'));
  EXPECT_TRUE(socket.send(frame, ZMQ_SNDMORE));
  EXPECT_EQ(frame.size(), 0U);
  EXPECT_TRUE(socket.send(frame, 0));
  EXPECT_EQ(peer.receive(), (Frames{std::string(100, 'x'), ""}));
}

TEST(ZmqSocket, ASendReturnsFalseAndKeepsTheFrameWhenItWouldHaveToWait) {
  ZmqSocket socket(ZMQ_PUSH);  // with nobody to send to
  ZmqFrame frame(std::string("kept"));
  EXPECT_FALSE(socket.send(frame, ZMQ_DONTWAIT));
  EXPECT_EQ(frame.toString(), "kept");
  socket.setOption(ZMQ_SNDTIMEO, 10);
  EXPECT_FALSE(socket.send(frame, 0));
  EXPECT_EQ(frame.toString(), "kept");
}

TEST(ZmqSocket, ASendReleasesASharedFrame) {
  const std::string endpoint = uniqueInproc();
  RawPeer peer(ZMQ_PULL);
  peer.bind(endpoint);
  ZmqSocket socket(ZMQ_PUSH, endpoint);
  auto frame = std::make_shared<ZmqFrame>(std::string("shared"));
  const std::weak_ptr<ZmqFrame> watch = frame;
  EXPECT_TRUE(socket.send(std::move(frame), 0));
  EXPECT_TRUE(watch.expired());
  EXPECT_EQ(peer.receive(), Frames{"shared"});

  ZmqSocket cannotSend(ZMQ_PULL);
  auto refused = std::make_shared<ZmqFrame>();
  const std::weak_ptr<ZmqFrame> refusedWatch = refused;
  EXPECT_ZMQ_ERROR(cannotSend.send(std::move(refused), 0), ENOTSUP);
  EXPECT_TRUE(refusedWatch.expired());
}

TEST(ZmqSocket, ASendThrowsTheZmqTextOfOtherErrors) {
  ZmqSocket cannotSend(ZMQ_PULL);
  ZmqFrame frame(std::string("a"));
  EXPECT_ZMQ_ERROR(cannotSend.send(frame, 0), ENOTSUP);
  EXPECT_ZMQ_ERROR(cannotSend.sendFirst(frame, 0), ENOTSUP);
  EXPECT_ZMQ_ERROR(cannotSend.sendFirst(frame, 0, WhenFull::kGiveUpIfAbandoned), ENOTSUP);
  ZmqSocket router(ZMQ_ROUTER);
  router.setOption(ZMQ_ROUTER_MANDATORY, 1);
  EXPECT_ZMQ_ERROR(router.send(frame, ZMQ_SNDMORE), EHOSTUNREACH);
}

// ---- discardPending

TEST(ZmqSocket, DiscardingReturnsAtOnceWhenNothingIsQueued) {
  ZmqSocket socket(ZMQ_PULL);
  socket.bind(uniqueInproc());
  socket.discardPending();
}

TEST(ZmqSocket, DiscardingDropsTheRestOfTheMessageAndNoMore) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket socket(ZMQ_PULL);
  socket.bind(endpoint);
  RawPeer peer(ZMQ_PUSH);
  peer.connect(endpoint).send({"a", "b", "c", "", "d"});
  peer.send({"next", "of it"});
  ZmqFrame frame;
  ASSERT_TRUE(socket.receive(frame, 0));
  socket.discardPending();
  ASSERT_TRUE(socket.receive(frame, 0));
  EXPECT_EQ(frame.toString(), "next");
  EXPECT_TRUE(frame.more());
  socket.discardPending();
  EXPECT_FALSE(socket.receive(frame, ZMQ_DONTWAIT));
}

// ---- reconnect

TEST(ZmqSocket, ReconnectKeepsTypeLingerTimeoutAndEndpoint) {
  const std::string endpoint = freeTcp();
  ZmqSocket socket(ZMQ_REQ, endpoint);
  socket.setReceiveTimeout(1234);
  socket.reconnect();
  EXPECT_EQ(socket.type(), ZMQ_REQ);
  EXPECT_EQ(option(socket, ZMQ_TYPE), ZMQ_REQ);
  EXPECT_EQ(option(socket, ZMQ_LINGER), 0);
  EXPECT_EQ(socket.receiveTimeout(), 1234);
  EXPECT_EQ(option(socket, ZMQ_RCVTIMEO), 1234);
  EXPECT_EQ(socket.endpoint(), endpoint);
  EXPECT_EQ(boundEndpoint(socket), endpoint);  // ZeroMQ's last endpoint, connected ones too
}

TEST(ZmqSocket, ReconnectMakesARequestSocketUsableAfterALostReply) {
  for (const std::string& endpoint : {uniqueInproc(), freeTcp()}) {
    RawPeer peer(ZMQ_ROUTER);
    peer.bind(endpoint);
    ZmqSocket socket(ZMQ_REQ, endpoint);
    socket.setReceiveTimeout(1);
    sendText(socket, "first");
    EXPECT_EQ(peer.receive().back(), "first");
    ZmqFrame reply;
    EXPECT_FALSE(socket.receive(reply, 0));
    ZmqFrame again(std::string("again"));
    EXPECT_ZMQ_ERROR(socket.send(again, 0), EFSM);
    socket.reconnect();
    sendText(socket, "second");
    const Frames second = peer.receive();
    EXPECT_EQ(second.back(), "second");
    peer.send({second[0], "", "reply"});
    EXPECT_EQ(receiveText(socket), "reply");
  }
}

TEST(ZmqSocket, ReconnectClosesTheOldSocket) {
  const std::string endpoint = uniqueInproc();
  RawPeer peer(ZMQ_ROUTER);
  peer.bind(endpoint);
  const OpenSockets sockets;
  {
    ZmqSocket socket(ZMQ_REQ, endpoint);
    for (int i = 0; i < 20; ++i) socket.reconnect();
    EXPECT_TRUE(sockets.become(1, peer));
  }
  EXPECT_TRUE(sockets.become(0, peer));
}

TEST(ZmqSocket, ReconnectThrowsTheZmqTextOfAConnectThatFails) {
  ZmqSocket socket(ZMQ_PUSH);
  EXPECT_ZMQ_ERROR(socket.connect("foo://bar"), EPROTONOSUPPORT);
  EXPECT_ZMQ_ERROR(socket.reconnect(), EPROTONOSUPPORT);
}

TEST(ZmqSocket, ASendLimitThatWasLiftedStaysSoAfterAReconnect) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket socket(ZMQ_DEALER);
  EXPECT_EQ(option(socket, ZMQ_SNDHWM), 1000);
  socket.liftSendLimit();
  EXPECT_EQ(option(socket, ZMQ_SNDHWM), 0);
  socket.connect(endpoint);
  socket.reconnect();
  EXPECT_EQ(option(socket, ZMQ_SNDHWM), 0);
  ZmqFrame frame;
  for (int i = 0; i < 3000; ++i) ASSERT_TRUE(socket.send(frame, ZMQ_DONTWAIT)) << i;
}

TEST(ZmqSocket, ARequestSocketThatIsOwedAReplySendsOnANewOne) {
  const std::string endpoint = uniqueInproc();
  RawPeer peer(ZMQ_ROUTER);
  peer.bind(endpoint);
  ZmqSocket socket(ZMQ_REQ, endpoint);
  sendText(socket, "first");
  EXPECT_EQ(peer.receive().back(), "first");
  sendText(socket, "second");
  const Frames second = peer.receive();
  EXPECT_EQ(second.back(), "second");
  peer.send({second.at(0), "", "reply"});
  EXPECT_EQ(receiveText(socket), "reply");
}

// ---- a socket that never connected

TEST(ZmqSocket, SendingAfterAFailedConnectThrowsWhatTheConnectThrew) {
  ZmqSocket socket(ZMQ_PUSH);
  EXPECT_ZMQ_ERROR(socket.connect("foo://bar"), EPROTONOSUPPORT);
  ZmqFrame frame(std::string("a"));
  EXPECT_ZMQ_ERROR(socket.sendFirst(frame, 0), EPROTONOSUPPORT);
  EXPECT_ZMQ_ERROR(socket.sendFirst(frame, 0), EPROTONOSUPPORT);
  EXPECT_ZMQ_ERROR(socket.sendFirst(frame, 0, WhenFull::kGiveUpIfAbandoned), EPROTONOSUPPORT);
  EXPECT_EQ(frame.toString(), "a");

  const std::string endpoint = uniqueInproc();
  RawPeer peer(ZMQ_PULL);
  peer.bind(endpoint);
  socket.connect(endpoint);  // a connect that succeeds makes it good
  socket.sendFirst(frame, 0);
  EXPECT_EQ(peer.receive(), Frames{"a"});
}

// ---- in-process peers that go

TEST(ZmqSocket, MessagesReachWhoeverBindsTheInprocNameNext) {
  const std::string endpoint = uniqueInproc();
  for (const int type : {ZMQ_PUSH, ZMQ_DEALER}) {
    const int peerType = type == ZMQ_PUSH ? ZMQ_PULL : ZMQ_DEALER;
    ZmqSocket sender(type, endpoint);
    for (int round = 0; round < 200; ++round) {
      ZmqSocket binder(peerType);
      binder.bind(endpoint);
      sendText(sender, std::to_string(round));
      ASSERT_EQ(receiveText(binder), std::to_string(round));
    }
  }
}

TEST(ZmqSocket, ARequestReachesWhoeverBindsTheInprocNameNext) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket client(ZMQ_REQ, endpoint);
  for (int round = 0; round < 50; ++round) {
    ZmqSocket server(ZMQ_REP);
    server.bind(endpoint);
    sendText(client, std::to_string(round));
    ASSERT_EQ(receiveText(server), std::to_string(round));
    sendText(server, "reply");
    ASSERT_EQ(receiveText(client), "reply");
  }
}

TEST(ZmqSocket, ARequestWhosePeerWentBeforeItRepliedCanBeSentAgain) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket client(ZMQ_REQ, endpoint);
  {
    ZmqSocket server(ZMQ_REP);
    server.bind(endpoint);
    sendText(client, "lost");
  }
  ZmqSocket server(ZMQ_REP);
  server.bind(endpoint);
  sendText(client, "found");
  EXPECT_EQ(receiveText(server), "found");
}

TEST(ZmqSocket, ARequestWhosePeerWentBeforeItWasWholeHasLostItsReply) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket request(ZMQ_REQ);
  ZmqSocket peer(ZMQ_ROUTER);
  peer.bind(endpoint);
  request.connect(endpoint);
  zmq_pollitem_t noticing[] = {{request.handle(), 0, ZMQ_POLLIN, 0},
                               {peer.handle(), 0, ZMQ_POLLIN, 0}};
  zmq_poll(noticing, 2, 0);  // the peer notices its connection
  ZmqFrame first("begun", 5);
  request.sendFirst(first, ZMQ_SNDMORE);
  // Sockets are closed in the background one after the other: once the second has gone, the
  // request's connection knows of the first.
  ZmqSocket second(ZMQ_PAIR);
  const int before = openDescriptors();
  peer.close();
  second.close();
  ASSERT_TRUE(eventually([&] { return openDescriptors() < before; }));
  zmq_poll(noticing, 1, 0);
  ZmqFrame last("ended", 5);
  EXPECT_TRUE(request.send(last, 0));
  ZmqFrame reply;
  ASSERT_EQ(zmq_msg_recv(reply.raw(), request.handle(), ZMQ_DONTWAIT), -1);
  ASSERT_EQ(zmq_errno(), EFSM);  // as ZeroMQ says it
  EXPECT_FALSE(request.receive(reply, 0));
  request.reconnect();
  ZmqSocket next(ZMQ_REP);
  next.bind(endpoint);
  sendText(request, "again");
  EXPECT_EQ(receiveText(next), "again");
}

TEST(ZmqSocket, MessagesSentWhileNobodyIsBoundWaitForTheNext) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket sender(ZMQ_PUSH, endpoint);
  for (int round = 0; round < 50; ++round) {
    ZmqSocket(ZMQ_PULL).bind(endpoint);
    sendText(sender, "between");
    ZmqSocket binder(ZMQ_PULL);
    binder.bind(endpoint);
    ASSERT_EQ(receiveText(binder), "between");
  }
}

TEST(ZmqSocket, ASenderHeldUpByAFullQueueGoesOnWhenItsPeerIsReplaced) {
  const std::string endpoint = uniqueInproc();
  for (int round = 0; round < 3; ++round) {
    auto binder = std::make_unique<ZmqSocket>(ZMQ_PULL);
    binder->bind(endpoint);
    std::atomic<int> sent{0};
    std::atomic<int> held{0};
    Gate received;
    std::thread sending([&] {
      ZmqSocket sender(ZMQ_PUSH, endpoint);
      ZmqFrame filler;
      while (sender.send(filler, ZMQ_DONTWAIT)) ++sent;
      held = thisThread();
      sendText(sender, "after");
      received.pass();  // what waits for somebody to bind goes with its socket
    });
    ASSERT_TRUE(eventually([&] { return held != 0; }));
    EXPECT_GE(sent.load(), 2000);
    waitUntilAsleep(held);  // for room
    binder = std::make_unique<ZmqSocket>(ZMQ_PULL);
    binder->bind(endpoint);
    EXPECT_EQ(receiveText(*binder), "after");
    received.open();
    sending.join();
  }
}

TEST(ZmqSocket, ASenderHeldUpByAFullQueueGoesOnWhenItsPeerReads) {
  const std::string endpoint = uniqueInproc();
  RawPeer peer(ZMQ_PULL);
  peer.bind(endpoint);
  std::atomic<bool> held{false};
  int queued = 0;
  std::thread sending([&] {
    ZmqSocket sender(ZMQ_PUSH, endpoint);
    ZmqFrame filler;
    while (sender.send(filler, ZMQ_DONTWAIT)) ++queued;
    held = true;
    sendText(sender, "after");
  });
  ASSERT_TRUE(eventually([&] { return held.load(); }));
  for (int i = 0; i < queued; ++i) ASSERT_EQ(peer.receive(), Frames{""});
  EXPECT_EQ(peer.receive(), Frames{"after"});
  sending.join();
}

TEST(ZmqSocket, GivesUpOnlyWhenTheQueueIsFullAndNobodyIsBound) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket sender(ZMQ_PUSH, endpoint);
  ZmqFrame frame(std::string("kept"));
  int taken = 0;
  ZmqFrame filler;
  while (sender.sendFirst(filler, 0, WhenFull::kGiveUpIfAbandoned)) ++taken;
  EXPECT_EQ(taken, 1000);  // what ZeroMQ holds for a name that nobody has bound
  EXPECT_FALSE(sender.sendFirst(frame, 0, WhenFull::kGiveUpIfAbandoned));
  EXPECT_EQ(frame.toString(), "kept");

  ZmqSocket binder(ZMQ_PULL);
  binder.bind(endpoint);
  EXPECT_TRUE(sender.sendFirst(frame, 0, WhenFull::kGiveUpIfAbandoned));
  for (int i = 0; i < taken; ++i) ASSERT_EQ(receiveText(binder), "");
  EXPECT_EQ(receiveText(binder), "kept");
}

TEST(ZmqSocket, ASenderThatMayGiveUpWaitsWhileSomebodyIsBound) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket binder(ZMQ_PULL);
  binder.bind(endpoint);
  std::atomic<int> held{0};
  int queued = 0;
  bool sent = false;
  std::thread sending([&] {
    ZmqSocket sender(ZMQ_PUSH, endpoint);
    ZmqFrame filler;
    while (sender.send(filler, ZMQ_DONTWAIT)) ++queued;
    held = thisThread();
    ZmqFrame frame(std::string("after"));
    sent = sender.sendFirst(frame, 0, WhenFull::kGiveUpIfAbandoned);
  });
  ASSERT_TRUE(eventually([&] { return held != 0; }));
  waitUntilAsleep(held);  // for room, not having given up
  for (int i = 0; i < queued; ++i) ASSERT_EQ(receiveText(binder), "");
  EXPECT_EQ(receiveText(binder), "after");
  sending.join();
  EXPECT_TRUE(sent);
}

TEST(ZmqSocket, ASenderThatMayGiveUpDoesSoWhenItsPeerGoesWhileItWaits) {
  const std::string endpoint = uniqueInproc();
  auto binder = std::make_unique<ZmqSocket>(ZMQ_PULL);
  binder->bind(endpoint);
  std::atomic<bool> held{false};
  std::atomic<bool> done{false};
  std::thread sending([&] {
    ZmqSocket sender(ZMQ_PUSH, endpoint);
    ZmqFrame filler;
    while (sender.send(filler, ZMQ_DONTWAIT)) {
    }
    held = true;
    // Connected anew there is room again, but only for so many.
    while (sender.sendFirst(filler, 0, WhenFull::kGiveUpIfAbandoned)) {
    }
    done = true;
  });
  ASSERT_TRUE(eventually([&] { return held.load(); }));
  binder.reset();
  EXPECT_TRUE(eventually([&] { return done.load(); }));
  sending.join();
}

TEST(ZmqSocket, ATcpSenderWithoutAPeerDoesNotGiveUp) {
  const std::string endpoint = freeTcp();
  std::atomic<bool> held{false};
  int queued = 0;
  bool sent = false;
  std::thread sending([&] {
    ZmqSocket sender(ZMQ_PUSH, endpoint);
    ZmqFrame filler;
    while (sender.send(filler, ZMQ_DONTWAIT)) ++queued;
    held = true;
    ZmqFrame frame(std::string("after"));
    sent =
        sender.sendFirst(frame, ZMQ_SNDMORE, WhenFull::kGiveUpIfAbandoned) && sender.send(frame, 0);
    held = false;
    while (!held) std::this_thread::yield();  // linger 0: not closed before all was read
  });
  ASSERT_TRUE(eventually([&] { return held.load(); }));
  RawPeer peer(ZMQ_PULL);
  peer.bind(endpoint);
  for (int i = 0; i < queued; ++i) ASSERT_EQ(peer.receive(), Frames{""});
  EXPECT_EQ(peer.receive(), (Frames{"after", ""}));
  EXPECT_TRUE(eventually([&] { return !held.load(); }));
  held = true;
  sending.join();
  EXPECT_TRUE(sent);
}

TEST(ZmqSocket, KnowsWhenItsInprocPeerHasGone) {
  const std::string endpoint = uniqueInproc();
  EXPECT_FALSE(ZmqSocket(ZMQ_PUSH).peerGone());
  EXPECT_FALSE(ZmqSocket(ZMQ_PUSH, freeTcp()).peerGone());
  ZmqSocket sender(ZMQ_PUSH, endpoint);
  EXPECT_FALSE(sender.peerGone());  // not yet there
  {
    ZmqSocket binder(ZMQ_PULL);
    binder.bind(endpoint);
    EXPECT_FALSE(sender.peerGone());
  }
  EXPECT_TRUE(sender.peerGone());
  sender.reconnect();
  EXPECT_FALSE(sender.peerGone());
  ZmqSocket(ZMQ_PULL).bind(endpoint);
  EXPECT_TRUE(sender.peerGone());
  sender.connect(freeTcp());  // which has nothing to do with it
  EXPECT_FALSE(sender.peerGone());
}

// Those that a process has at a time are 1023.
TEST(ZmqSocket, GivesItsPlaceBackAlsoWhereNobodyHasBoundTheInprocName) {
  for (const int type : {ZMQ_PUSH, ZMQ_REQ, ZMQ_DEALER, ZMQ_SUB}) {
    const std::string endpoint = uniqueInproc();
    const OpenSockets sockets;
    ClosingPace pace;
    for (int i = 0; i < 1100; ++i) {
      ZmqSocket socket(type, endpoint);
      if (type == ZMQ_SUB) {
        socket.setOption(ZMQ_SUBSCRIBE, "a");
      } else {
        sendText(socket, "to nobody");
      }
      pace.keep();
    }
    EXPECT_TRUE(sockets.become(0)) << type;
  }
}

TEST(ZmqSocket, GivesItsPlaceBackWhenNoOtherIsLeft) {
  const std::string endpoint = uniqueInproc();
  auto waiting = std::make_unique<ZmqSocket>(ZMQ_PUSH, endpoint);
  sendText(*waiting, "to nobody");
  const SocketBudget everyOther;
  for (int round = 0; round < 20; ++round) {
    waiting.reset();
    ASSERT_EQ(zmqErrorOf([&] { waiting = std::make_unique<ZmqSocket>(ZMQ_PUSH, endpoint); }),
              "nothing thrown")
        << round;
  }
}

TEST(ZmqSocket, ThatWaitsForAnInprocNameKeepsItsMessagesWhenOthersGiveUp) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket stays(ZMQ_PUSH, endpoint);
  sendText(stays, "first");
  for (int i = 0; i < 20; ++i) {
    ZmqSocket goes(ZMQ_PUSH, endpoint);
    sendText(goes, "dropped");
  }
  EXPECT_FALSE(stays.peerGone());
  sendText(stays, "second");
  ZmqSocket binder(ZMQ_PULL);
  binder.bind(endpoint);
  EXPECT_EQ(receiveText(binder), "first");
  EXPECT_EQ(receiveText(binder), "second");
  sendText(stays, "third");
  EXPECT_EQ(receiveText(binder), "third");
  ZmqFrame none;
  EXPECT_FALSE(binder.receive(none, ZMQ_DONTWAIT));
}

TEST(ZmqSocket, IsMadeAndClosedWhileTheInprocNameIsBoundAndUnbound) {
  const std::string endpoint = uniqueInproc();
  const OpenSockets sockets;
  std::atomic<bool> done{false};
  {
    ZmqSocket stays(ZMQ_PUSH, endpoint);
    std::vector<std::unique_ptr<ScopedThread>> others;
    for (int i = 0; i < 3; ++i) {
      others.push_back(std::make_unique<ScopedThread>([&] {
        ClosingPace pace;
        while (!done) {
          sendText(*std::make_unique<ZmqSocket>(ZMQ_PUSH, endpoint), "of another");
          pace.keep();
        }
      }));
    }
    for (int round = 0; round < 300; ++round) {
      ZmqSocket binder(ZMQ_PULL);
      binder.bind(endpoint);
      sendText(stays, std::to_string(round));
      std::string got = "of another";
      while (got == "of another") got = receiveText(binder);
      ASSERT_EQ(got, std::to_string(round));
    }
    done = true;
  }
  EXPECT_TRUE(sockets.become(0));
}

TEST(ZmqSocket, ThatIsToldOfItsInprocPeerConnectsAgainAndKeepsWhatHasArrived) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket subscriber(ZMQ_SUB);
  subscriber.setReceiveTimeout(std::chrono::milliseconds(kPatience).count());
  subscriber.setOption(ZMQ_SUBSCRIBE, "");
  std::atomic<int> told{0};
  subscriber.onPeerGone([&] { ++told; });
  subscriber.connect(endpoint);
  const void* const handle = subscriber.handle();
  for (int round = 1; round <= 3; ++round) {
    {
      ZmqSocket binder(ZMQ_XPUB);
      binder.bind(endpoint);
      binder.setReceiveTimeout(std::chrono::milliseconds(kPatience).count());
      EXPECT_EQ(receiveText(binder), "\x01");
      subscriber.connectAgainIfPeerGone();  // which it has not
      sendText(binder, "read later");
      EXPECT_EQ(told, round - 1);
    }
    EXPECT_EQ(told, round);
    EXPECT_TRUE(subscriber.peerGone());
    subscriber.connectAgainIfPeerGone();
    EXPECT_FALSE(subscriber.peerGone());
    EXPECT_EQ(receiveText(subscriber), "read later");
  }
  EXPECT_EQ(subscriber.handle(), handle);
}

TEST(ZmqSocket, IsNotToldOfItsInprocPeerOnceItIsClosedOrConnectedElsewhere) {
  const std::string endpoint = uniqueInproc();
  int told = 0;
  for (const bool closes : {false, true}) {
    ZmqSocket binder(ZMQ_PULL);
    binder.bind(endpoint);
    ZmqSocket sender(ZMQ_PUSH);
    sender.onPeerGone([&] { ++told; });
    sender.connect(endpoint);
    if (closes) {
      sender.close();
    } else {
      sender.connect(uniqueInproc());
    }
    binder.close();
  }
  EXPECT_EQ(told, 0);
}

TEST(ZmqSocket, WaitsALittleForTheSocketOfAnotherThatWasJustClosed) {
  // The places of closed sockets come free a moment later; with all taken, each round needs the
  // one that the round before has just given up.
  auto last = std::make_unique<ZmqSocket>(ZMQ_PULL);
  const SocketBudget everyOther;
  for (int round = 0; round < 50; ++round) {
    last.reset();
    ASSERT_EQ(zmqErrorOf([&] { last = std::make_unique<ZmqSocket>(ZMQ_PULL); }), "nothing thrown")
        << round;
  }
}

}  // namespace
}  // namespace tessel::test
