#include "messages/message_base.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <type_traits>

#include "messages/message_kinds.h"
#include "support/zmq_errors.h"

namespace tessel::test {
namespace {

static_assert(std::is_abstract_v<MessageBase>, "only its classes are messages");
static_assert(std::has_virtual_destructor_v<MessageBase>, "messages are held by their base");
static_assert(!std::is_copy_constructible_v<MessagePublish>, "its frames have one owner");

TEST(MessageBase, ForReceivingHasItsTypeAndNoEnvelope) {
  for (const auto& kind : allKinds()) {
    const auto message = kind->forReceiving();
    EXPECT_EQ(message->type(), kind->type());
    EXPECT_TRUE(message->envelope().empty());
    EXPECT_TRUE(message->senderIdentity().empty());
    EXPECT_EQ(kind->contents(*message).size(), kind->body().size());
  }
}

TEST(MessageBase, ReadsHeaderAndBody) {
  for (const int linkType : kLinkTypes) {
    for (const auto& kind : allKinds()) {
      SCOPED_TRACE(kind->name());
      Link link(linkType);
      link.send(Frames{"a", "b", ""} + kind->message());
      const auto message = kind->forReceiving();
      ASSERT_TRUE(message->receive(link.receiver()));
      EXPECT_EQ(message->type(), kind->type());
      EXPECT_EQ(kind->contents(*message), kind->body());
      EXPECT_EQ(texts(message->envelope()), link.envelope() + (Frames{"a", "b"}));
      EXPECT_EQ(text(message->senderIdentity()), "b");
      EXPECT_TRUE(link.empty());
    }
  }
}

TEST(MessageBase, OverAHeaderReadsOnlyTheBody) {
  for (const auto& kind : allKinds()) {
    SCOPED_TRACE(kind->name());
    Link link(ZMQ_ROUTER);
    link.send(Frames{""} + kind->message());
    MessageHeader header;
    ASSERT_EQ(readMessageHeader(link.receiver(), header), HeaderRead::kRead);
    const auto message = kind->over(std::move(header));
    EXPECT_EQ(message->type(), kind->type());
    EXPECT_EQ(text(message->senderIdentity()), "peer");
    ASSERT_TRUE(message->receive(link.receiver()));
    EXPECT_EQ(kind->contents(*message), kind->body());
    EXPECT_TRUE(link.empty());
  }
}

TEST(MessageBase, ReceivingNothingWithinTheTimeoutIsFalse) {
  for (const auto& kind : allKinds()) {
    Link link(ZMQ_PULL);
    link.receiver().setReceiveTimeout(0);
    EXPECT_FALSE(kind->forReceiving()->receive(link.receiver()));
  }
}

TEST(MessageBase, WhatWasReceivedIsSentOnWithItsEnvelopeInOrder) {
  for (const auto& kind : allKinds()) {
    SCOPED_TRACE(kind->name());
    Link link(ZMQ_ROUTER);
    link.send(Frames{"a", "b", ""} + kind->message());
    const auto message = kind->forReceiving();
    ASSERT_TRUE(message->receive(link.receiver()));
    message->send(link.receiver());  // back to where it came from
    EXPECT_EQ(link.sender().receive(), (Frames{"a", "b", ""} + kind->message()));
  }
}

TEST(MessageBase, SendsADelimiterOnEverySocketButAClients) {
  for (const auto& kind : allKinds()) {
    for (const int type : {ZMQ_PUSH, ZMQ_DEALER, ZMQ_ROUTER, ZMQ_REQ}) {
      SCOPED_TRACE(kind->name() + " " + std::to_string(type));
      Link link(ZMQ_PULL);
      link.send(Frames{""} + kind->message());
      const auto message = kind->forReceiving();
      ASSERT_TRUE(message->receive(link.receiver()));
      const Frames identity = type == ZMQ_DEALER || type == ZMQ_REQ ? Frames{"me"} : Frames{};
      // From the REQ the one delimiter is the socket's own.
      EXPECT_EQ(sentOver(type, *message), identity + Frames{""} + kind->message());
    }
  }
}

TEST(MessageBase, OnAClientSocketTheEnvelopeIsNotSent) {
  MessageUnpublish message("topic", "tag", 1);
  message.insertEnvelopeFront(ZmqFrame(std::string("route")));
  EXPECT_EQ(sentOver(ZMQ_REQ, message),
            (Frames{"me", "", "RS02", "\x04", "topic", "tag", word(1)}));
}

TEST(MessageBase, TheEnvelopeGoesOutInFrontOfTheDelimiter) {
  MessageUnpublish message("topic", "tag", 1);
  message.insertEnvelopeFront(ZmqFrame(std::string("second")));
  message.insertEnvelopeFront(ZmqFrame(std::string("first")));
  EXPECT_EQ(texts(message.envelope()), (Frames{"first", "second"}));
  EXPECT_EQ(text(message.senderIdentity()), "second");
  EXPECT_EQ(sentOver(ZMQ_PUSH, message),
            (Frames{"first", "second", "", "RS02", "\x04", "topic", "tag", word(1)}));
}

TEST(MessageBase, TakesEnvelopeFramesOffTheFront) {
  MessageUnpublish message("topic", "tag", 1);
  message.removeEnvelopeFront();  // nothing there
  EXPECT_TRUE(message.envelope().empty());
  for (const char* frame : {"c", "b", "a"}) {
    message.insertEnvelopeFront(ZmqFrame(std::string(frame)));
  }
  message.removeEnvelopeFront();
  EXPECT_EQ(texts(message.envelope()), (Frames{"b", "c"}));
  message.removeEnvelopeFront();
  message.removeEnvelopeFront();
  message.removeEnvelopeFront();
  EXPECT_TRUE(message.envelope().empty());
  EXPECT_TRUE(message.senderIdentity().empty());
}

TEST(MessageBase, AnEmptyEnvelopeFrameOfTheReceiverGivesNoSender) {
  Link link(ZMQ_PULL);
  link.send(Frames{""} + allKinds()[2]->message());
  MessageRegistration message;
  ASSERT_TRUE(message.receive(link.receiver()));
  EXPECT_TRUE(message.senderIdentity().empty());
}

TEST(MessageBase, IsSentOnceForItsFramesAreThenGone) {
  for (const auto& kind : allKinds()) {
    SCOPED_TRACE(kind->name());
    Link link(ZMQ_PULL);
    link.send(Frames{"route", ""} + kind->message());
    const auto message = kind->forReceiving();
    ASSERT_TRUE(message->receive(link.receiver()));
    const std::string endpoint = uniqueInproc();
    RawPeer peer(ZMQ_PULL);
    peer.bind(endpoint);
    ZmqSocket sender(ZMQ_PUSH, endpoint);
    message->send(sender);
    EXPECT_EQ(peer.receive(), (Frames{"route", ""} + kind->message()));
    message->send(sender);
    EXPECT_EQ(peer.receive(), (Frames{"", "", "RS02", ""} + Frames(kind->body().size())));
  }
}

TEST(MessageBase, SendingThrowsTheZmqText) {
  ZmqSocket cannotSend(ZMQ_PULL);
  ZmqSocket router(ZMQ_ROUTER);
  router.setOption(ZMQ_ROUTER_MANDATORY, 1);
  for (const auto& kind : allKinds()) {
    EXPECT_ZMQ_ERROR(kind->forReceiving()->send(cannotSend), ENOTSUP);
    EXPECT_ZMQ_ERROR(kind->forReceiving()->sendUnlessAbandoned(cannotSend), ENOTSUP);
    const auto routed = kind->forReceiving();
    routed->insertEnvelopeFront(ZmqFrame(std::string("nobody")));
    EXPECT_ZMQ_ERROR(routed->send(router), EHOSTUNREACH);
  }
}

TEST(MessageBase, ARequestSocketWhoseReplyWasNotAwaitedIsMadeAnew) {
  const std::string endpoint = uniqueInproc();
  RawPeer server(ZMQ_ROUTER);
  server.bind(endpoint);
  ZmqSocket client(ZMQ_REQ, endpoint);
  client.setReceiveTimeout(std::chrono::milliseconds(kPatience).count());
  for (int call = 0; call < 20; ++call) {
    MessageUnpublish(std::to_string(call), "tag", 0).send(client);
    const Frames asked = server.receive();
    ASSERT_EQ(asked.size(), 7U);
    EXPECT_EQ(asked[4], std::to_string(call));
  }
  MessageUnpublish("last", "tag", 0).send(client);
  const std::string identity = server.receive().at(0);
  server.send(Frames{identity, ""} + allKinds()[1]->message());
  MessageReply reply;
  EXPECT_TRUE(reply.receive(client));
}

TEST(MessageBase, SendingOverASocketThatCouldNotConnectThrowsInsteadOfWaiting) {
  ZmqSocket socket(ZMQ_PUSH);
  EXPECT_ZMQ_ERROR(socket.connect("foo://bar"), EPROTONOSUPPORT);
  EXPECT_ZMQ_ERROR(MessageUnpublish("a", "b", 0).send(socket), EPROTONOSUPPORT);
  EXPECT_ZMQ_ERROR(MessageUnpublish("a", "b", 0).sendUnlessAbandoned(socket), EPROTONOSUPPORT);
  ZmqSocket client(ZMQ_REQ);
  EXPECT_ZMQ_ERROR(client.connect("foo://bar"), EPROTONOSUPPORT);
  EXPECT_ZMQ_ERROR(MessageUnpublish("a", "b", 0).send(client), EPROTONOSUPPORT);
}

TEST(MessageBase, MessagesReachWhoeverBindsTheNameNextWhole) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket sender(ZMQ_PUSH, endpoint);
  for (int round = 0; round < 200; ++round) {
    ZmqSocket binder(ZMQ_PULL);
    binder.bind(endpoint);
    binder.setReceiveTimeout(std::chrono::milliseconds(kPatience).count());
    const std::string number = std::to_string(round);
    MessagePublish(number, "tag", number.data(), number.size(), 1).send(sender);
    MessagePublish received;
    ASSERT_TRUE(received.receive(binder)) << round;
    EXPECT_EQ(contentsOf(received), (Frames{number, "tag", number, word(1)}));
  }
}

TEST(MessageBase, SendingWaitsWhileTheQueueIsFullAndLosesNothing) {
  const std::string endpoint = uniqueInproc();
  constexpr int kMessages = 3000;  // more than the two ends hold
  RawPeer peer(ZMQ_PULL);
  peer.bind(endpoint);
  std::atomic<int> sent{0};
  std::thread sending([&] {
    ZmqSocket sender(ZMQ_PUSH, endpoint);
    for (int i = 0; i < kMessages; ++i) {
      MessagePublish(std::to_string(i), "tag", nullptr, 0, 0).send(sender);
      ++sent;
    }
  });
  EXPECT_TRUE(eventually([&] { return sent.load() >= 2000; }));
  for (int i = 0; i < kMessages; ++i) {
    ASSERT_EQ(peer.receive(), (Frames{"", "RS02", "\x03", std::to_string(i), "tag", "", word(0)}));
  }
  sending.join();
}

TEST(MessageBase, GivesTheMessageUpWhenTheQueueIsFullAndNobodyIsBound) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket sender(ZMQ_PUSH, endpoint);
  int taken = 0;
  while (MessageUnpublish(std::to_string(taken), "tag", 0).sendUnlessAbandoned(sender)) ++taken;
  EXPECT_GE(taken, 100);
  // No part of what was given up is left behind in the queue.
  ZmqSocket binder(ZMQ_PULL);
  binder.bind(endpoint);
  binder.setReceiveTimeout(std::chrono::milliseconds(kPatience).count());
  EXPECT_TRUE(MessageUnpublish("after", "tag", 0).sendUnlessAbandoned(sender));
  for (int i = 0; i < taken; ++i) {
    MessageUnpublish received;
    ASSERT_TRUE(received.receive(binder));
    ASSERT_EQ(received.topic(), std::to_string(i));
  }
  MessageUnpublish last;
  ASSERT_TRUE(last.receive(binder));
  EXPECT_EQ(last.topic(), "after");
}

}  // namespace
}  // namespace tessel::test
