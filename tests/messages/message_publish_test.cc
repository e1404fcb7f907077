#include "messages/message_publish.h"

#include <gtest/gtest.h>

#include <cstring>

#include "messages/message_kinds.h"

namespace tessel::test {
namespace {

TEST(MessagePublish, OptionsAreTheseBits) {
  EXPECT_EQ(kKeepInCache, 1U);
  EXPECT_EQ(kPublishIfEqual, 2U);
}

TEST(MessagePublish, ForSendingHoldsCopiesOfEverything) {
  std::string topic = "topic";
  std::string tag = "tag";
  std::string value = bytes("va\0lue", 6);
  MessagePublish message(topic, tag, value.data(), value.size(), 0xF123456789ABCDEFU);
  topic = tag = "";
  value[0] = '-';
  EXPECT_EQ(message.type(), 3);
  EXPECT_EQ(contentsOf(message),
            (Frames{"topic", "tag", bytes("va\0lue", 6), word(0xF123456789ABCDEFU)}));
  EXPECT_EQ(text(message.data(), message.size()), bytes("va\0lue", 6));
  EXPECT_EQ(message.valueFrame().toString(), bytes("va\0lue", 6));
}

TEST(MessagePublish, FromAPublisherIsTheseFrames) {
  MessagePublish message("topic", "tag", "va\0lue", 6, 0xF123456789ABCDEFU);
  EXPECT_EQ(sentOver(ZMQ_PUSH, message),
            (Frames{"", "RS02", "\x03", "topic", "tag", bytes("va\0lue", 6),
                    "\xEF\xCD\xAB\x89\x67\x45\x23\xF1"}));
}

TEST(MessagePublish, OfNothingIsEmptyFrames) {
  MessagePublish message("", "", nullptr, 0, 0);
  EXPECT_EQ(sentOver(ZMQ_PUSH, message),
            (Frames{"", "RS02", "\x03", "", "", "", std::string(8, '\0')}));
}

TEST(MessagePublish, IsReadFromTheseFrames) {
  Link link(ZMQ_PULL);
  link.send({"", "RS02", "\x03", "to:pic", bytes("t\0g", 3), bytes("va\0lue", 6),
             "\xEF\xCD\xAB\x89\x67\x45\x23\xF1"});
  MessagePublish message;
  ASSERT_TRUE(message.receive(link.receiver()));
  EXPECT_EQ(message.topic(), "to:pic");
  EXPECT_EQ(message.tag(), bytes("t\0g", 3));
  EXPECT_EQ(text(message.value()), bytes("va\0lue", 6));
  EXPECT_EQ(text(message.data(), message.size()), bytes("va\0lue", 6));
  EXPECT_EQ(message.options(), 0xF123456789ABCDEFU);
}

TEST(MessagePublish, TestsWhetherAnyBitOfAMaskIsSet) {
  const MessagePublish cached("t", "t", "v", 1, 1);
  EXPECT_TRUE(cached.hasOption(kKeepInCache));
  EXPECT_FALSE(cached.hasOption(kPublishIfEqual));
  EXPECT_TRUE(cached.hasOption(kKeepInCache | kPublishIfEqual));
  EXPECT_FALSE(cached.hasOption(0));
  const MessagePublish other("t", "t", "v", 1, 0x8000000000000002U);
  EXPECT_FALSE(other.hasOption(kKeepInCache));
  EXPECT_TRUE(other.hasOption(kPublishIfEqual));
  EXPECT_TRUE(other.hasOption(0x8000000000000000U));
  EXPECT_FALSE(other.hasOption(0x4000000000000000U));
}

TEST(MessagePublish, ItsValueFrameOutlivesIt) {
  ZmqFrame frame;
  {
    Link link(ZMQ_PULL);
    link.send({"", "RS02", "\x03", "t", "t", std::string(1000, 'v'), word(0)});
    MessagePublish message;
    ASSERT_TRUE(message.receive(link.receiver()));
    frame = message.valueFrame();
    EXPECT_EQ(message.size(), 1000U);  // and it keeps its own
  }
  EXPECT_EQ(frame.toString(), std::string(1000, 'v'));
}

TEST(MessagePublish, CarriesALargeValueOverTcp) {
  std::string value(64U << 20U, 'x');
  value.front() = 'a';
  value.back() = 'z';
  {
    const std::string endpoint = freeTcp();
    RawPeer peer(ZMQ_PULL);
    peer.bind(endpoint);
    ZmqSocket sender(ZMQ_PUSH, endpoint);
    MessagePublish("topic", "tag", value.data(), value.size(), 1).send(sender);
    const Frames frames = peer.receive();
    ASSERT_EQ(frames.size(), 7U);
    EXPECT_TRUE(frames[5] == value);
  }
  const std::string endpoint = freeTcp();
  ZmqSocket receiver(ZMQ_PULL);
  receiver.setReceiveTimeout(std::chrono::milliseconds(kPatience).count());
  receiver.bind(endpoint);
  RawPeer peer(ZMQ_PUSH);
  peer.connect(endpoint).send({"", "RS02", "\x03", "topic", "tag", value, word(1)});
  MessagePublish message;
  ASSERT_TRUE(message.receive(receiver));
  EXPECT_EQ(message.size(), value.size());
  EXPECT_EQ(std::memcmp(message.data(), value.data(), value.size()), 0);
}

}  // namespace
}  // namespace tessel::test
