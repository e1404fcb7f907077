#include "messages/value_key.h"

#include <gtest/gtest.h>

namespace tessel::test {
namespace {

std::string split(const std::string& key) {
  const TopicAndTag parts = splitKey(key);
  return parts.topic + "|" + parts.tag;
}

TEST(ValueKey, JoinsTopicAndTagByAColon) {
  EXPECT_EQ(joinKey("topic", "tag"), "topic:tag");
  EXPECT_EQ(joinKey("", ""), ":");
  EXPECT_EQ(joinKey("topic", ""), "topic:");
  EXPECT_EQ(joinKey("", "tag"), ":tag");
  EXPECT_EQ(joinKey(std::string("a\0b", 3), "c"), std::string("a\0b:c", 5));
}

TEST(ValueKey, SplitsAtTheFirstColonOnly) {
  EXPECT_EQ(split("topic:tag"), "topic|tag");
  EXPECT_EQ(split("x:y:z"), "x|y:z");
  EXPECT_EQ(split("::"), "|:");
  EXPECT_EQ(split(":"), "|");
  EXPECT_EQ(split("topic:"), "topic|");
  EXPECT_EQ(split(":tag"), "|tag");
  EXPECT_EQ(split(std::string("a\0b:c\0d", 7)), std::string("a\0b|c\0d", 7));
}

TEST(ValueKey, WithoutAColonIsAllTopic) {
  EXPECT_EQ(split("topic"), "topic|");
  EXPECT_EQ(split(""), "|");
}

TEST(ValueKey, TheTagForAnEmptyOneIsCalledDefault) { EXPECT_STREQ(kDefaultTag, "default"); }

}  // namespace
}  // namespace tessel::test
