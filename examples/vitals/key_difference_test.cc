#include "key_difference.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "board.h"
#include "clock.h"
#include "summary.h"

namespace vitals {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

Reading reading(std::int64_t since) { return {Unit::Count, 1, 0, since}; }

TEST(KeyDifference, IsNoneForEqualSets) {
  EXPECT_TRUE(compareKeys({}, {}).none());
  EXPECT_TRUE(compareKeys({"cpu:all", "net:lo.in"}, {"net:lo.in", "cpu:all"}).none());
}

TEST(KeyDifference, NamesWhatIsMissingAndWhatIsTooMuch) {
  const KeyDifference difference = compareKeys({"a:1", "b:1", "c:1"}, {"b:1", "d:1"});
  EXPECT_FALSE(difference.none());
  EXPECT_THAT(difference.missing, ElementsAre("a:1", "c:1"));
  EXPECT_THAT(difference.unexpected, ElementsAre("d:1"));
}

// With a call that had its right answer.
Picture pictureOf(const Board& board) {
  Picture picture = board.picture();
  picture.calls.right = 1;
  return picture;
}

// A board as a join leaves it: these keys were published, and these came at once.
Picture joined(const Keys& published, const Keys& received, const Keys& publishedAtTheEnd) {
  Board board;
  board.beginJoin(published);
  for (const std::string& key : published) board.addRow(key);
  for (const std::string& key : received) board.takeValue(key, reading(1));
  board.takeKeys(publishedAtTheEnd);
  return pictureOf(board);
}

TEST(Join, IsGoodWhenEveryValueCame) {
  const Picture picture = joined({"a:1", "b:1"}, {"b:1", "a:1"}, {"a:1", "b:1"});
  EXPECT_EQ(picture.join.received, 2U);
  EXPECT_TRUE(summarize(picture, HubStatistics(), false).good);
}

TEST(Join, IsBadWhenAValueIsMissed) {
  const Summary summary =
      summarize(joined({"a:1", "b:1"}, {"b:1"}, {"a:1", "b:1"}), HubStatistics(), false);
  EXPECT_FALSE(summary.good);
  EXPECT_THAT(summary.text, HasSubstr("1 of 2 cached values"));
  EXPECT_THAT(summary.text, HasSubstr("missed: a:1"));
}

TEST(Join, DoesNotExpectWhatVanishedMeanwhile) {
  EXPECT_TRUE(summarize(joined({"a:1", "b:1"}, {"b:1"}, {"b:1"}), HubStatistics(), false).good);
}

TEST(Join, IsJudgedByWhatCameBeforeItsEnd) {
  Board board;
  board.beginJoin({"a:1"});
  board.addRow("a:1");
  board.takeKeys({"a:1"});
  board.takeValue("a:1", reading(now()));
  EXPECT_THAT(board.picture().join.difference.missing, ElementsAre("a:1"));
}

TEST(Summary, IsBadWithoutAJoin) {
  EXPECT_FALSE(summarize(pictureOf(Board()), HubStatistics(), false).good);
}

TEST(Summary, IsBadWithoutTheHubsLastWord) {
  EXPECT_FALSE(summarize(joined({"a:1"}, {"a:1"}, {"a:1"}), std::nullopt, false).good);
}

TEST(Summary, IsBadWhenAWithdrawalIsMissed) {
  Board board;
  board.beginJoin({"a:1", "b:1"});
  for (const char* key : {"a:1", "b:1"}) {
    board.addRow(key);
    board.takeValue(key, reading(1));
  }
  board.takeKeys({"a:1", "b:1"});
  board.takeWithdrawal("a:1");
  EXPECT_FALSE(summarize(pictureOf(board), HubStatistics(), true).good);
  board.takeWithdrawal("b:1");
  EXPECT_TRUE(summarize(pictureOf(board), HubStatistics(), true).good);
}

TEST(Board, MeasuresTheLatencyOfLiveValuesOnly) {
  Board board;
  board.addRow("a:1");
  board.takeValue("a:1", reading(1));  // from long ago, so out of the cache
  EXPECT_EQ(board.picture().liveValues, 0U);
  board.takeValue("a:1", reading(now()));
  EXPECT_EQ(board.picture().liveValues, 1U);
}

TEST(Latencies, TellTheTimeWithinWhichAShareArrived) {
  Latencies latencies;
  EXPECT_EQ(latencies.microseconds(0.5), 0);
  for (int i = 1; i <= 100; ++i) latencies.add(i * 1000);
  EXPECT_EQ(latencies.microseconds(0.50), 50);
  EXPECT_EQ(latencies.microseconds(0.99), 99);
  EXPECT_EQ(latencies.microseconds(1), 100);
}

}  // namespace
}  // namespace vitals
