#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "pubsub/dispatcher_fixture.h"

namespace tessel {
namespace {

using namespace test;

// Whatever comes, nothing is refused, nothing is read beyond its end, and what follows arrives.
class DispatcherBadInput : public DispatcherTest {
 protected:
  DispatcherBadInput() {
    start();
    subscribe(broker.updates, everything, "");
    subscribe(broker.cache, all, "t:a");
  }
  ~DispatcherBadInput() override { dispatcher.stop(); }

  // Sends it on the updates socket, a good one behind it, and tells what came of the first.
  Lines updatesGive(const Frames& frames) {
    everything->journal.clear();
    broker.updates.send(frames);
    broker.updates.send(valueMessage("good:one", "1"));
    settle();
    Lines lines = everything->journal.lines();
    EXPECT_GE(lines.size(), 2U);
    EXPECT_EQ(lines.back(), "value ~ default .");
    lines.pop_back();
    EXPECT_EQ(lines.back(), "value good one 1");
    lines.pop_back();
    return lines;
  }
  // The same on the cache socket, for a subscriber that has had nothing yet.
  Lines cacheGives(const Frames& frames) {
    const auto subscriber = recorder(SubscriptionMode::AllValues, "t", "a");
    subscribe(broker.cache, subscriber, "t:a");
    broker.cache.send(frames);
    broker.cache.send(valueMessage("t:a", "good"));
    settle();
    Lines lines = subscriber->journal.lines();
    EXPECT_GE(lines.size(), 1U);
    EXPECT_EQ(lines.back(), "value good");
    lines.pop_back();
    dispatcher.unregisterSubscriber(subscriber);
    return lines;
  }

  std::shared_ptr<RecordingMultiSubscriber> everything =
      std::make_shared<RecordingMultiSubscriber>("");
  std::shared_ptr<RecordingSubscriber> all = recorder(SubscriptionMode::AllValues, "t", "a");
};

TEST_F(DispatcherBadInput, OfAKeyAloneIsAnEmptyValue) {
  EXPECT_EQ(updatesGive({"t:a"}), Lines{"value t a "});
  EXPECT_EQ(cacheGives({"t:a"}), Lines{"value "});
}

TEST_F(DispatcherBadInput, WithoutFlagsIsLive) {
  EXPECT_EQ(updatesGive({"t:a", "1"}), Lines{"value t a 1"});
  EXPECT_EQ(cacheGives({"t:a", "1"}), Lines{"value 1"});
  EXPECT_EQ(updatesGive({"t:a", ""}), Lines{"value t a "});
}

TEST_F(DispatcherBadInput, OfMoreFramesLosesTheRest) {
  EXPECT_EQ(updatesGive({"t:a", "1", word(0), "x"}), Lines{"value t a 1"});
  EXPECT_EQ(updatesGive({"t:a", "1", word(0), "", "", ""}), Lines{"value t a 1"});
  EXPECT_EQ(updatesGive({"t:a", "1", word(2), "t:a", "2", word(0)}), Lines{"deleted t a"});
  EXPECT_EQ(cacheGives({"t:a", "1", word(0), "t:a", "2", word(0)}), Lines{"value 1"});
  Frames many = valueMessage("t:a", "1");
  for (int i = 0; i < 1000; ++i) many.push_back(std::to_string(i));
  EXPECT_EQ(updatesGive(many), Lines{"value t a 1"});
  EXPECT_EQ(cacheGives(many), Lines{"value 1"});
}

TEST_F(DispatcherBadInput, OfAnEmptyKeyIsTopicAndTagEmpty) {
  EXPECT_EQ(updatesGive({""}), Lines{"value   "});
  EXPECT_EQ(updatesGive({"", "1"}), Lines{"value   1"});
  EXPECT_EQ(updatesGive({"", "1", word(0)}), Lines{"value   1"});
  EXPECT_EQ(updatesGive({"", "1", word(2)}), Lines{"deleted  "});
}

TEST_F(DispatcherBadInput, OfAKeyWithoutAColonIsAllTopic) {
  EXPECT_EQ(updatesGive(valueMessage("bare", "1")), Lines{"value bare  1"});
  EXPECT_EQ(updatesGive(valueMessage("bare", "", kDeletedFlag)), Lines{"deleted bare "});
}

TEST_F(DispatcherBadInput, OfShortFlagsIsFilledUpWithZeros) {
  EXPECT_EQ(updatesGive({"t:a", "1", ""}), Lines{"value t a 1"});
  EXPECT_EQ(cacheGives({"t:a", "1", ""}), Lines{"value 1"});
  for (std::size_t size = 1; size < 8; ++size) {
    const std::string rest(size - 1, '\0');
    EXPECT_EQ(updatesGive({"t:a", "1", bytes("\0", 1) + rest}), Lines{"value t a 1"}) << size;
    EXPECT_EQ(updatesGive({"t:a", "1", "\x01" + rest}), Lines{}) << size;
    EXPECT_EQ(updatesGive({"t:a", "1", "\x02" + rest}), Lines{"deleted t a"}) << size;
    EXPECT_EQ(updatesGive({"t:a", "1", "\x03" + rest}), Lines{}) << size;
    EXPECT_EQ(cacheGives({"t:a", "1", "\x01" + rest}), Lines{"value 1"}) << size;
  }
}

TEST_F(DispatcherBadInput, OfOneFlagsByteThatHoldsThreeIsAReplayedDeletion) {
  EXPECT_EQ(cacheGives({"t:a", "1", "\x03"}), Lines{"deleted"});
  // And so nothing for one that has had a value.
  const std::size_t before = all->journal.size();
  broker.cache.send({"t:a", "1", "\x03"});
  settle();
  EXPECT_EQ(all->journal.size(), before);
}

TEST_F(DispatcherBadInput, OfFlagsHasItsLeastByteFirst) {
  EXPECT_EQ(updatesGive({"t:a", "1", bytes("\0\x02", 2)}), Lines{"value t a 1"});
  EXPECT_EQ(updatesGive({"t:a", "1", bytes("\0\0\0\0\0\0\0\x03", 8)}), Lines{"value t a 1"});
  EXPECT_EQ(updatesGive({"t:a", "1", bytes("\x02\0\0\0\0\0\0\0", 8)}), Lines{"deleted t a"});
}

TEST_F(DispatcherBadInput, OfLongFlagsCountsTheFirstEightBytes) {
  EXPECT_EQ(updatesGive({"t:a", "1", word(0) + "\x03"}), Lines{"value t a 1"});
  EXPECT_EQ(updatesGive({"t:a", "1", word(2) + std::string(1000000, 'x')}), Lines{"deleted t a"});
}

TEST_F(DispatcherBadInput, ThatComesInARowIsReadInARow) {
  everything->journal.clear();
  for (int i = 0; i < 50; ++i) {
    broker.updates.send({"a"});
    broker.updates.send({"b", "1"});
    broker.updates.send({"c", "1", "", "more"});
    broker.updates.send({""});
  }
  settle();
  Lines expected;
  for (int i = 0; i < 50; ++i) {
    for (const char* line : {"value a  ", "value b  1", "value c  1", "value   "}) {
      expected.emplace_back(line);
    }
  }
  expected.emplace_back("value ~ default .");
  EXPECT_EQ(everything->journal.lines(), expected);
}

}  // namespace
}  // namespace tessel
