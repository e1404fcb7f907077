#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

#include "support/broker_peers.h"

namespace tessel::test {
namespace {

using testing::IsEmpty;

constexpr unsigned long long kCached = 1;

// Sends what a broker must drop, and shows that it took that one message, said nothing, and serves
// the next one.
class BrokerBadInput : public testing::Test {
 protected:
  void expectDropped(const Frames& frames) {
    SCOPED_TRACE(testing::PrintToString(frames));
    at.in.send(frames);
    at.pass();
    EXPECT_THAT(at.heard(), IsEmpty());
    expectServed();
  }
  void expectServed() {
    const std::string value = std::to_string(++good_);
    at.publish("good", "one", value, kCached);
    EXPECT_EQ(at.live.receive(), notification("good:one", value, 0));
    EXPECT_EQ(at.heard(), Lines{"publish good one 1 1 0"});
    EXPECT_FALSE(at.live.readable());
  }

  HandServedBroker at;

 private:
  int good_ = 0;
};

Frames without(Frames frames, std::size_t index) {
  frames.erase(frames.begin() + static_cast<std::ptrdiff_t>(index));
  return frames;
}

Frames with(Frames frames, std::size_t index, const std::string& frame) {
  frames[index] = frame;
  return frames;
}

const Frames kPublication = publication("topic", "tag", "value", kCached);
const Frames kWithdrawal = withdrawal("topic", "tag", 0);

TEST_F(BrokerBadInput, MessagesThatEndTooEarlyAreDropped) {
  for (const Frames& whole : {kPublication, kWithdrawal}) {
    for (std::size_t size = 1; size < whole.size(); ++size) {
      expectDropped(Frames(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
    }
  }
}

TEST_F(BrokerBadInput, MessagesWithAFrameMissingAreDropped) {
  for (const Frames& whole : {kPublication, kWithdrawal}) {
    for (std::size_t i = 0; i < whole.size(); ++i) expectDropped(without(whole, i));
  }
}

TEST_F(BrokerBadInput, MessagesWithFramesTooManyAreDropped) {
  for (Frames frames : {kPublication, kWithdrawal}) {
    for (int i = 0; i < 5; ++i) {
      frames.push_back(i % 2 == 0 ? "" : "more");
      expectDropped(frames);
    }
  }
}

TEST_F(BrokerBadInput, TwoMessagesInOneAreDropped) {
  Frames frames = kPublication;
  frames.insert(frames.end(), kPublication.begin(), kPublication.end());
  expectDropped(frames);
}

TEST_F(BrokerBadInput, MessagesOfOnlyEmptyFramesAreDropped) {
  for (std::size_t size = 1; size <= 10; ++size) expectDropped(Frames(size));
}

TEST_F(BrokerBadInput, MessagesWithoutADelimiterAreDropped) {
  for (std::size_t size = 1; size <= 10; ++size) expectDropped(Frames(size, "frame"));
  Frames undelimited = without(kPublication, 0);
  expectDropped(undelimited);
  undelimited.emplace_back();  // a delimiter, but nothing behind it
  expectDropped(undelimited);
}

TEST_F(BrokerBadInput, OtherSignaturesAreDropped) {
  for (const std::string& signature :
       Frames{"", "R", "RS", "RS0", "RS01", "RS03", "SS02", "RT02", "RS12", "rs02", "RS022",
              bytes("RS02\0", 5), bytes("RS0\0", 4), "20SR", std::string(1000, 'R')}) {
    expectDropped(with(kPublication, 1, signature));
    expectDropped(with(kWithdrawal, 1, signature));
  }
}

TEST_F(BrokerBadInput, TypeFramesThatAreNotOneByteAreDropped) {
  for (const std::string& type : Frames{"", bytes("\x03\0", 2), bytes("\0\x03", 2), "\x03\x03",
                                        bytes("\x03\0\0\0", 4), std::string(1000, '\x03')}) {
    expectDropped(with(kPublication, 2, type));
  }
  expectDropped(with(kWithdrawal, 2, bytes("\x04\0", 2)));
}

TEST_F(BrokerBadInput, TheBodyOfTheOtherTypeIsDropped) {
  expectDropped(with(kPublication, 2, "\x04"));
  expectDropped(with(kWithdrawal, 2, "\x03"));
}

TEST_F(BrokerBadInput, OtherTypesAreDroppedWithWhateverFollows) {
  for (int type = 0; type < 256; ++type) {
    if (type == 3 || type == 4) continue;
    Frames frames = {"", "RS02", std::string(1, static_cast<char>(type))};
    expectDropped(frames);
    for (int size = 1; size <= 7; ++size) {
      frames.push_back(size % 2 == 0 ? "" : "body");
      expectDropped(frames);
    }
  }
}

TEST_F(BrokerBadInput, WellFormedMessagesOfTheOtherServiceAreDropped) {
  expectDropped({"", "RS02", bytes("\0", 1), bytes("\0", 1), "service", "instance", "method", "x"});
  expectDropped({"", "RS02", "\x01", bytes("\0", 1), bytes("\0", 1), "result"});
  expectDropped({"", "RS02", "\x02", "\x01", "service", "instance"});
}

TEST_F(BrokerBadInput, ManyInARowAreDropped) {
  for (int round = 0; round < 100; ++round) {
    at.in.send({"", "RS02", "\x03"});
    at.in.send({"nonsense"});
    at.in.send({"", "RS02", "\x07", "body"});
    at.in.send(without(kPublication, 6));
    at.pass(4);
  }
  EXPECT_THAT(at.heard(), IsEmpty());
  expectServed();
}

TEST_F(BrokerBadInput, RandomFramesAreDropped) {
  std::mt19937 random(1);
  const Frames pieces = {"",  "RS02", "\x03", "\x04",  "\x03",  "RS02", "",
                         "a", "b",    "RS0",  word(1), word(2), "RS02"};
  for (int round = 0; round < 3000; ++round) {
    Frames frames;
    const std::size_t size = 1 + random() % 9;
    for (std::size_t i = 0; i < size; ++i) frames.push_back(pieces[random() % pieces.size()]);
    // A few are good by chance, behind any routing frames: those are for other tests.
    const auto delimiter = std::find(frames.begin(), frames.end(), "");
    const std::size_t rest = static_cast<std::size_t>(frames.end() - delimiter);
    if (rest > 2 && delimiter[1] == "RS02" &&
        ((delimiter[2] == "\x03" && rest == 7) || (delimiter[2] == "\x04" && rest == 6))) {
      continue;
    }
    expectDropped(frames);
  }
}

TEST_F(BrokerBadInput, RoutingFramesInFrontAreNoObstacle) {
  Frames frames = publication("t", "g", "1", kCached);
  for (const std::string& routing : Frames{"peer", bytes("\0", 1), "RS02"}) {
    frames.insert(frames.begin(), routing);
    frames[frames.size() - 2] = routing;
    at.in.send(frames);
    at.pass();
    EXPECT_EQ(at.live.receive(), notification("t:g", routing, 0));
    EXPECT_EQ(at.heard(), Lines{"publish t g 1 1 0"});
  }
  at.in.send({"peer", "", "RS02", "\x04", "t", "g", word(1)});
  at.pass();
  EXPECT_EQ(at.live.receive(), notification("t:g", "", 2));
}

TEST_F(BrokerBadInput, WhatIsMissingOfAnOptionsWordIsZero) {
  for (std::size_t size = 0; size < 8; ++size) {
    const std::string value = std::to_string(size);
    const std::string cached = size == 0 ? " 0 0 0" : " 1 1 0";
    at.in.send(with(publication("t", "g", value, 0), 6, word(1).substr(0, size)));
    at.pass();
    EXPECT_EQ(at.live.receive(), notification("t:g", value, 0));
    EXPECT_EQ(at.heard(), Lines{"publish t g" + cached});
    at.in.send(with(withdrawal("t", "g", 0), 5, word(1).substr(0, size)));
    at.pass();
    EXPECT_EQ(at.live.receive(), notification("t:g", "", 2));
    EXPECT_EQ(at.heard(), Lines{"unpublish t g" + std::string(size == 0 ? " 0 0 0" : " 1 1 0")});
  }
}

TEST_F(BrokerBadInput, WhatIsTooMuchOfAnOptionsWordIsIgnored) {
  at.in.send(with(publication("t", "g", "1", 0), 6, word(1) + "\xFF"));
  at.in.send(with(publication("t", "g", "1", 0), 6, word(0) + "\xFF\xFF"));
  at.in.send(with(withdrawal("t", "g", 0), 5, word(1) + std::string(1000, '\xFF')));
  at.pass(3);
  EXPECT_EQ(at.heard(), (Lines{"publish t g 1 1 0", "publish t g 0 0 0", "unpublish t g 1 1 0"}));
}

// An option in a later byte of the word is not one of the two, whatever the byte order.
TEST_F(BrokerBadInput, OptionsAreReadLowestByteFirst) {
  for (unsigned shift = 8; shift < 64; shift += 8) {
    at.in.send(publication("t", "g", "1", 3ULL << shift));
    at.pass();
    EXPECT_EQ(at.heard(), Lines{"publish t g 0 0 0"});
  }
}

}  // namespace
}  // namespace tessel::test
