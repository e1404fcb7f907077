#include "messages/message_unpublish.h"

#include <gtest/gtest.h>

#include "messages/message_kinds.h"

namespace tessel::test {
namespace {

TEST(MessageUnpublish, OptionsAreTheseBits) { EXPECT_EQ(kRemoveFromCache, 1U); }

TEST(MessageUnpublish, FromAPublisherIsTheseFrames) {
  MessageUnpublish message("topic", "tag", 0xF123456789ABCDEFU);
  EXPECT_EQ(message.type(), 4);
  EXPECT_EQ(contentsOf(message), (Frames{"topic", "tag", word(0xF123456789ABCDEFU)}));
  EXPECT_EQ(sentOver(ZMQ_PUSH, message),
            (Frames{"", "RS02", "\x04", "topic", "tag", "\xEF\xCD\xAB\x89\x67\x45\x23\xF1"}));
}

TEST(MessageUnpublish, OfNothingIsEmptyFrames) {
  MessageUnpublish message("", "", 0);
  EXPECT_EQ(sentOver(ZMQ_PUSH, message),
            (Frames{"", "RS02", "\x04", "", "", std::string(8, '\0')}));
}

TEST(MessageUnpublish, IsReadFromTheseFrames) {
  Link link(ZMQ_PULL);
  link.send({"", "RS02", "\x04", bytes("to\0pic", 6), "t:g", "\xEF\xCD\xAB\x89\x67\x45\x23\xF1"});
  MessageUnpublish message;
  ASSERT_TRUE(message.receive(link.receiver()));
  EXPECT_EQ(message.topic(), bytes("to\0pic", 6));
  EXPECT_EQ(message.tag(), "t:g");
  EXPECT_EQ(message.options(), 0xF123456789ABCDEFU);
}

TEST(MessageUnpublish, TestsWhetherAnyBitOfAMaskIsSet) {
  const MessageUnpublish removing("t", "t", 0x8000000000000001U);
  EXPECT_TRUE(removing.hasOption(kRemoveFromCache));
  EXPECT_FALSE(removing.hasOption(2));
  EXPECT_TRUE(removing.hasOption(3));
  EXPECT_TRUE(removing.hasOption(0x8000000000000000U));
  EXPECT_FALSE(MessageUnpublish("t", "t", 2).hasOption(kRemoveFromCache));
}

}  // namespace
}  // namespace tessel::test
