#include "messages/message_header.h"

#include <gtest/gtest.h>

#include <type_traits>

#include "messages/message_kinds.h"
#include "support/zmq_errors.h"

namespace tessel::test {
namespace {

static_assert(!std::is_copy_constructible_v<MessageHeader>, "its frames have one owner");
static_assert(!std::is_copy_assignable_v<MessageHeader>, "its frames have one owner");
static_assert(std::is_move_constructible_v<MessageHeader>, "messages take one over");

// The header of a good message that was sent over the link with `envelope` in front.
const Frames kGood = {"", "RS02", "\x03", "body"};

TEST(MessageHeader, ForSendingHoldsTheTypeAndItsFrame) {
  for (const int type : {0, 1, 2, 3, 4, 200}) {
    const MessageHeader header(type);
    EXPECT_FALSE(header.received);
    EXPECT_TRUE(header.envelope.empty());
    EXPECT_EQ(header.type, type);
    EXPECT_EQ(header.typeFrame.toString(), std::string(1, static_cast<char>(type)));
  }
}

TEST(MessageHeader, ForReceivingIsEmpty) {
  const MessageHeader header;
  EXPECT_FALSE(header.received);
  EXPECT_TRUE(header.envelope.empty());
  EXPECT_EQ(header.typeFrame.size(), 0U);
}

TEST(MessageHeader, MovesWithAllItHolds) {
  MessageHeader source(3);
  source.received = true;
  source.envelope.emplace_back(std::string("a"));
  const MessageHeader target(std::move(source));
  EXPECT_TRUE(target.received);
  EXPECT_EQ(texts(target.envelope), Frames{"a"});
  EXPECT_EQ(target.type, 3);
  EXPECT_EQ(target.typeFrame.toString(), "\x03");
}

TEST(MessageHeader, TheSignatureIsFourCharacters) { EXPECT_EQ(kProtocolSignature, "RS02"); }

TEST(MessageHeader, TheTypeCodesAreThoseOnTheWire) {
  EXPECT_EQ(kMessageRequest, 0);
  EXPECT_EQ(kMessageReply, 1);
  EXPECT_EQ(kMessageRegistration, 2);
  EXPECT_EQ(kMessagePublish, 3);
  EXPECT_EQ(kMessageUnpublish, 4);
}

TEST(MessageHeader, IsReadUpToTheBody) {
  for (const int type : kLinkTypes) {
    SCOPED_TRACE(type);
    Link link(type);
    link.send(kGood);
    MessageHeader header;
    ASSERT_EQ(readMessageHeader(link.receiver(), header), HeaderRead::kRead);
    EXPECT_TRUE(header.received);
    EXPECT_EQ(header.type, 3);
    EXPECT_EQ(header.typeFrame.toString(), "\x03");
    EXPECT_EQ(texts(header.envelope), link.envelope());
    EXPECT_EQ(link.rest(), Frames{"body"});
  }
}

TEST(MessageHeader, KeepsTheEnvelopeInOrderWithoutTheDelimiter) {
  for (const int type : kLinkTypes) {
    SCOPED_TRACE(type);
    Link link(type);
    link.send(Frames{"first", "second", bytes("\0", 1)} + kGood);
    MessageHeader header;
    ASSERT_EQ(readMessageHeader(link.receiver(), header), HeaderRead::kRead);
    EXPECT_EQ(texts(header.envelope),
              link.envelope() + (Frames{"first", "second", bytes("\0", 1)}));
    EXPECT_EQ(link.rest(), Frames{"body"});
  }
}

TEST(MessageHeader, TakesEveryTypeCode) {
  Link link(ZMQ_PULL);
  for (int type = 0; type < 256; ++type) {
    link.send({"", "RS02", std::string(1, static_cast<char>(type)), "body"});
    MessageHeader header;
    ASSERT_EQ(readMessageHeader(link.receiver(), header), HeaderRead::kRead);
    EXPECT_EQ(header.type, type);
    EXPECT_EQ(link.rest(), Frames{"body"});
  }
}

TEST(MessageHeader, OnARequestSocketThereIsNoEnvelope) {
  const std::string endpoint = uniqueInproc();
  RawPeer server(ZMQ_ROUTER);
  server.bind(endpoint);
  ZmqSocket client(ZMQ_REQ, endpoint);
  client.setReceiveTimeout(std::chrono::milliseconds(kPatience).count());
  ZmqFrame question(std::string("?"));
  client.send(question, 0);
  const std::string identity = server.receive().at(0);
  server.send({identity, "", "RS02", "\x01", "body"});
  MessageHeader header;
  ASSERT_EQ(readMessageHeader(client, header), HeaderRead::kRead);
  EXPECT_EQ(header.type, 1);
  EXPECT_TRUE(header.envelope.empty());
  ZmqFrame body;
  ASSERT_TRUE(client.receive(body, 0));
  EXPECT_EQ(body.toString(), "body");
}

TEST(MessageHeader, OnAReplySocketThereIsNoEnvelope) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket server(ZMQ_REP);
  server.setReceiveTimeout(std::chrono::milliseconds(kPatience).count());
  server.bind(endpoint);
  RawPeer client(ZMQ_REQ);
  client.connect(endpoint).send({"RS02", bytes("\0", 1), "body"});
  MessageHeader header;
  ASSERT_EQ(readMessageHeader(server, header), HeaderRead::kRead);
  EXPECT_EQ(header.type, 0);
  EXPECT_TRUE(header.envelope.empty());
}

TEST(MessageHeader, SaysWhenNothingIsThere) {
  for (const int type : kLinkTypes) {
    SCOPED_TRACE(type);
    Link link(type);
    MessageHeader header;
    EXPECT_EQ(readMessageHeader(link.receiver(), header, ZMQ_DONTWAIT), HeaderRead::kNothing);
    link.receiver().setReceiveTimeout(1);
    EXPECT_EQ(readMessageHeader(link.receiver(), header), HeaderRead::kNothing);
    EXPECT_FALSE(header.received);
    link.send(kGood);
    EXPECT_EQ(readMessageHeader(link.receiver(), header), HeaderRead::kRead);
  }
}

TEST(MessageHeader, SaysThatAMalformedOneWasThereAlsoWhenItMustNotWait) {
  Link link(ZMQ_PULL);
  MessageHeader header;
  link.send({"no delimiter"});
  EXPECT_EQ(readMessageHeader(link.receiver(), header, ZMQ_DONTWAIT), HeaderRead::kMalformed);
  link.send({"", "RS03", "\x03", "body"});
  EXPECT_EQ(readMessageHeader(link.receiver(), header, ZMQ_DONTWAIT), HeaderRead::kMalformed);
  EXPECT_FALSE(header.received);
  EXPECT_EQ(readMessageHeader(link.receiver(), header, ZMQ_DONTWAIT), HeaderRead::kNothing);
}

TEST(MessageHeader, PassesOnWhatTheSocketThrows) {
  ZmqSocket cannotReceive(ZMQ_PUSH);
  MessageHeader header;
  EXPECT_ZMQ_ERROR(readMessageHeader(cannotReceive, header), ENOTSUP);
}

}  // namespace
}  // namespace tessel::test
