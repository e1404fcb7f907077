#include "messages/message_registration.h"

#include <gtest/gtest.h>

#include "messages/message_kinds.h"

namespace tessel::test {
namespace {

TEST(MessageRegistration, ForSendingIsTheseFrames) {
  for (const int type : {ZMQ_PUSH, ZMQ_DEALER}) {
    const Frames front = type == ZMQ_DEALER ? Frames{"me", ""} : Frames{""};
    MessageRegistration registering(true, "service", "instance");
    EXPECT_EQ(registering.type(), 2);
    EXPECT_EQ(contentsOf(registering), (Frames{"\x01", "service", "instance"}));
    EXPECT_EQ(sentOver(type, registering),
              front + (Frames{"RS02", "\x02", "\x01", "service", "instance"}));
    MessageRegistration withdrawing(false, "", "");
    EXPECT_FALSE(withdrawing.registered());
    EXPECT_EQ(sentOver(type, withdrawing),
              front + (Frames{"RS02", "\x02", bytes("\0", 1), "", ""}));
  }
}

TEST(MessageRegistration, ForReceivingIsEmpty) {
  EXPECT_EQ(contentsOf(MessageRegistration()), (Frames{bytes("\0", 1), "", ""}));
}

TEST(MessageRegistration, EveryByteButZeroRegisters) {
  Link link(ZMQ_ROUTER);
  for (int flag = 0; flag < 256; ++flag) {
    link.send({"", "RS02", "\x02", std::string(1, static_cast<char>(flag)), "s", "i"});
    MessageRegistration message;
    ASSERT_TRUE(message.receive(link.receiver()));
    EXPECT_EQ(message.registered(), flag != 0) << flag;
    EXPECT_EQ(message.serviceName(), "s");
    EXPECT_EQ(message.instanceName(), "i");
  }
}

TEST(MessageRegistration, OnlyTheFirstByteOfTheFlagCounts) {
  Link link(ZMQ_ROUTER);
  link.send({"", "RS02", "\x02", bytes("\0\x01", 2), "s", "i"});
  MessageRegistration message;
  ASSERT_TRUE(message.receive(link.receiver()));
  EXPECT_FALSE(message.registered());
}

TEST(MessageRegistration, KnowsItsSender) {
  Link link(ZMQ_ROUTER);
  link.send({"", "RS02", "\x02", "\x01", "s", "i"});
  MessageRegistration message;
  ASSERT_TRUE(message.receive(link.receiver()));
  EXPECT_EQ(text(message.senderIdentity()), "peer");
}

TEST(MessageRegistration, KnowsASenderThatTheRouterNamed) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket master(ZMQ_ROUTER);
  master.setReceiveTimeout(std::chrono::milliseconds(kPatience).count());
  master.bind(endpoint);
  RawPeer slave(ZMQ_DEALER);
  slave.connect(endpoint).send({"", "RS02", "\x02", "\x01", "s", "i"});
  MessageRegistration message;
  ASSERT_TRUE(message.receive(master));
  const std::vector<std::uint8_t> identity = message.senderIdentity();
  EXPECT_EQ(identity.size(), 5U);  // those that ZeroMQ gives have five bytes, the first 0
  MessageRegistration back(true, "s", "i");
  back.insertEnvelopeFront(ZmqFrame(identity));
  back.send(master);
  EXPECT_EQ(slave.receive(), (Frames{"", "RS02", "\x02", "\x01", "s", "i"}));
}

}  // namespace
}  // namespace tessel::test
