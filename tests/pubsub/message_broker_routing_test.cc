#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tessel/message_broker.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/broker_peers.h"

namespace tessel::test {
namespace {

using testing::IsEmpty;

// Options as publishers send them.
constexpr unsigned long long kUncached = 0;
constexpr unsigned long long kCached = 1;
constexpr unsigned long long kEvenIfEqual = 2;
constexpr unsigned long long kStay = 0;
constexpr unsigned long long kRemove = 1;

TEST(BrokerRouting, APublicationReachesBothSidesAsKeyValueAndEightZeroBytes) {
  HandServedBroker at;
  at.subscribe("topic:tag");
  at.publish("topic", "tag", "value", kUncached);
  const Frames expected = {"topic:tag", "value", std::string(8, '\0')};
  EXPECT_EQ(at.live.receive(), expected);
  EXPECT_EQ(at.cached.receive(), expected);
  at.expectNothingSent();
}

TEST(BrokerRouting, AWithdrawalReachesBothSidesAsKeyNothingAndTheFlagTwo) {
  HandServedBroker at;
  at.subscribe("topic:tag");
  at.withdraw("topic", "tag", kStay);
  const Frames expected = {"topic:tag", "", bytes("\x02\0\0\0\0\0\0\0", 8)};
  EXPECT_EQ(at.live.receive(), expected);
  EXPECT_EQ(at.cached.receive(), expected);
  at.expectNothingSent();
}

TEST(BrokerRouting, AReplayIsKeyValueAndTheFlagOne) {
  HandServedBroker at;
  at.publish("topic", "tag", "value", kCached);
  at.subscribe("topic:tag");
  EXPECT_EQ(at.cached.receive(), (Frames{"topic:tag", "value", bytes("\x01\0\0\0\0\0\0\0", 8)}));
}

TEST(BrokerRouting, FirstValueOfAKeyIsSentAndKept) {
  HandServedBroker at;
  at.publish("t", "g", "1", kCached);
  EXPECT_EQ(at.live.receive(), notification("t:g", "1", 0));
  EXPECT_EQ(at.heard(), Lines{"publish t g 1 1 0"});
}

TEST(BrokerRouting, ARepeatOfTheCachedValueReachesOnlyTheObservers) {
  HandServedBroker at;
  at.subscribe("t:g");
  at.publish("t", "g", "1", kCached);
  at.publish("t", "g", "1", kCached);
  EXPECT_EQ(at.live.receive(), notification("t:g", "1", 0));
  EXPECT_EQ(at.cached.receive(), notification("t:g", "1", 0));
  at.expectNothingSent();
  EXPECT_EQ(at.heard(), (Lines{"subscribe t g", "publish t g 1 1 0", "publish t g 1 0 1"}));
}

TEST(BrokerRouting, ARepeatIsSentIfThePublisherWantsThat) {
  HandServedBroker at;
  at.subscribe("t:g");
  at.publish("t", "g", "1", kCached | kEvenIfEqual);
  at.publish("t", "g", "1", kCached | kEvenIfEqual);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(at.live.receive(), notification("t:g", "1", 0));
    EXPECT_EQ(at.cached.receive(), notification("t:g", "1", 0));
  }
  at.expectNothingSent();
  EXPECT_EQ(at.heard(), (Lines{"subscribe t g", "publish t g 1 1 0", "publish t g 1 0 0"}));
}

TEST(BrokerRouting, ANewValueReplacesTheCachedOne) {
  HandServedBroker at;
  at.publish("t", "g", "1", kCached);
  at.publish("t", "g", "2", kCached);
  at.publish("t", "g", "1", kCached);
  EXPECT_EQ(at.live.receive(), notification("t:g", "1", 0));
  EXPECT_EQ(at.live.receive(), notification("t:g", "2", 0));
  EXPECT_EQ(at.live.receive(), notification("t:g", "1", 0));
  EXPECT_EQ(at.heard(), (Lines{"publish t g 1 1 0", "publish t g 1 1 0", "publish t g 1 1 0"}));
  at.subscribe("t:g");
  EXPECT_EQ(at.cached.receive(), notification("t:g", "1", 1));
}

TEST(BrokerRouting, ValuesAreEqualOnlyByteForByte) {
  HandServedBroker at;
  const Frames values = {
      "a", bytes("a\0", 2),  bytes("a\0b", 3), bytes("a\0c", 3), "a", "", "b", bytes("\0", 1),
      "",  bytes("\0\0", 2), "\xFF\xFE",       "\xFF\xFF"};
  for (const std::string& value : values) {
    at.publish("t", "g", value, kCached);
    EXPECT_EQ(at.live.receive(), notification("t:g", value, 0));
    EXPECT_EQ(at.heard(), Lines{"publish t g 1 1 0"});
    at.publish("t", "g", value, kCached);
    EXPECT_EQ(at.heard(), Lines{"publish t g 1 0 1"});
  }
  at.expectNothingSent();
}

TEST(BrokerRouting, AnUncachedPublicationLeavesTheCacheAlone) {
  HandServedBroker at;
  at.publish("t", "g", "kept", kCached);
  at.publish("t", "g", "passing", kUncached);
  EXPECT_EQ(at.live.receive(), notification("t:g", "kept", 0));
  EXPECT_EQ(at.live.receive(), notification("t:g", "passing", 0));
  EXPECT_EQ(at.heard(), (Lines{"publish t g 1 1 0", "publish t g 0 0 0"}));
  at.subscribe("t:g");
  EXPECT_EQ(at.cached.receive(), notification("t:g", "kept", 1));
  at.publish("t", "g", "kept", kCached);  // still a repeat
  EXPECT_EQ(at.heard(), (Lines{"subscribe t g", "publish t g 1 0 1"}));
}

TEST(BrokerRouting, AnUncachedPublicationIsSentEvenIfItEqualsTheCachedValue) {
  HandServedBroker at;
  at.publish("t", "g", "1", kCached);
  at.publish("t", "g", "1", kUncached);
  at.publish("t", "g", "1", kEvenIfEqual);  // which means nothing without the cache
  for (int i = 0; i < 3; ++i) EXPECT_EQ(at.live.receive(), notification("t:g", "1", 0));
  EXPECT_EQ(at.heard(), (Lines{"publish t g 1 1 0", "publish t g 0 0 0", "publish t g 0 0 0"}));
}

TEST(BrokerRouting, AnUncachedPublicationIsNotReplayed) {
  HandServedBroker at;
  at.publish("t", "g", "1", kUncached);
  at.publish("t", "g", "2", kEvenIfEqual);
  EXPECT_EQ(at.live.receive(), notification("t:g", "1", 0));
  EXPECT_EQ(at.live.receive(), notification("t:g", "2", 0));
  at.subscribe("t:g");
  at.expectNothingSent();
}

TEST(BrokerRouting, OtherOptionBitsAreIgnored) {
  HandServedBroker at;
  at.publish("t", "g", "1", ~3ULL);
  at.publish("t", "g", "1", ~2ULL);
  at.publish("t", "g", "1", ~2ULL);
  at.publish("t", "g", "1", ~0ULL);
  at.publish("t", "g", "1", ~1ULL);
  at.withdraw("t", "g", ~1ULL);
  at.withdraw("t", "g", ~0ULL);
  at.withdraw("t", "g", ~0ULL);
  EXPECT_EQ(at.heard(), (Lines{"publish t g 0 0 0", "publish t g 1 1 0", "publish t g 1 0 1",
                               "publish t g 1 0 0", "publish t g 0 0 0", "unpublish t g 0 0 0",
                               "unpublish t g 1 1 0", "unpublish t g 1 0 0"}));
}

TEST(BrokerRouting, EachKeyIsCachedByItself) {
  HandServedBroker at;
  at.publish("t", "g", "1", kCached);
  at.publish("t", "h", "1", kCached);
  at.publish("u", "g", "1", kCached);
  EXPECT_EQ(at.heard(), (Lines{"publish t g 1 1 0", "publish t h 1 1 0", "publish u g 1 1 0"}));
  at.publish("t", "h", "2", kCached);
  at.subscribe("t:g");
  EXPECT_EQ(at.cached.receive(), notification("t:g", "1", 1));
  at.subscribe("t:h");
  EXPECT_EQ(at.cached.receive(), notification("t:h", "2", 1));
  at.subscribe("u:g");
  EXPECT_EQ(at.cached.receive(), notification("u:g", "1", 1));
  EXPECT_FALSE(at.cached.readable());
}

TEST(BrokerRouting, TheKeyCountsNotTheCutBetweenTopicAndTag) {
  HandServedBroker at;
  at.publish("a", "b:c", "1", kCached);
  at.publish("a:b", "c", "1", kCached);
  EXPECT_EQ(at.live.receive(), notification("a:b:c", "1", 0));
  at.expectNothingSent();
  at.withdraw("a:b", "c", kRemove);
  EXPECT_EQ(at.live.receive(), notification("a:b:c", "", 2));
  EXPECT_EQ(at.heard(),
            (Lines{"publish a b:c 1 1 0", "publish a:b c 1 0 1", "unpublish a:b c 1 1 0"}));
}

TEST(BrokerRouting, TopicAndTagMayBeEmpty) {
  HandServedBroker at;
  at.publish("", "", "1", kCached);
  EXPECT_EQ(at.live.receive(), notification(":", "1", 0));
  at.subscribe(":");
  EXPECT_EQ(at.cached.receive(), notification(":", "1", 1));
  at.withdraw("", "", kRemove);
  EXPECT_EQ(at.live.receive(), notification(":", "", 2));
  EXPECT_EQ(at.heard(), (Lines{"publish   1 1 0", "subscribe  ", "unpublish   1 1 0"}));
}

TEST(BrokerRouting, TopicTagAndValueMayHoldAnyBytes) {
  HandServedBroker at;
  const std::string topic = bytes("\0t\xFF", 3);
  const std::string tag = bytes("g\0\x80", 3);
  std::string value;
  for (int i = 0; i < 1024; ++i) value.push_back(static_cast<char>(i & 0xFF));
  at.publish(topic, tag, value, kCached);
  EXPECT_EQ(at.live.receive(), notification(topic + ":" + tag, value, 0));
  at.subscribe(topic + ":" + tag);
  EXPECT_EQ(at.cached.receive(), notification(topic + ":" + tag, value, 1));
  EXPECT_EQ(at.heard(),
            (Lines{"publish " + topic + " " + tag + " 1 1 0", "subscribe " + topic + " " + tag}));
}

TEST(BrokerRouting, AnEmptyValueIsCachedAndReplayed) {
  HandServedBroker at;
  at.publish("t", "g", "", kCached);
  EXPECT_EQ(at.live.receive(), notification("t:g", "", 0));
  at.subscribe("t:g");
  EXPECT_EQ(at.cached.receive(), notification("t:g", "", 1));
  at.publish("t", "g", "", kCached);
  EXPECT_EQ(at.heard(), (Lines{"publish t g 1 1 0", "subscribe t g", "publish t g 1 0 1"}));
}

TEST(BrokerRouting, AWithdrawalFromTheCacheIsPassedOnAndForgetsTheValue) {
  HandServedBroker at;
  at.subscribe("t:g");
  at.publish("t", "g", "1", kCached);
  at.withdraw("t", "g", kRemove);
  for (RawPeer* peer : {&at.live, &at.cached}) {
    EXPECT_EQ(peer->receive(), notification("t:g", "1", 0));
    EXPECT_EQ(peer->receive(), notification("t:g", "", 2));
  }
  EXPECT_EQ(at.heard(), (Lines{"subscribe t g", "publish t g 1 1 0", "unpublish t g 1 1 0"}));
  RawPeer later(ZMQ_SUB);
  later.connect(at.cacheEndpoint);
  at.subscribe(later, "t:g");
  at.expectNothingSent();
  EXPECT_FALSE(later.readable());
  at.publish("t", "g", "1", kCached);  // no repeat any more
  EXPECT_EQ(later.receive(), notification("t:g", "1", 0));
  EXPECT_EQ(at.heard(), (Lines{"subscribe t g", "publish t g 1 1 0"}));
}

TEST(BrokerRouting, AWithdrawalFromTheCacheOfWhatIsNotThereReachesOnlyTheObservers) {
  HandServedBroker at;
  at.subscribe("t:g");
  at.withdraw("t", "g", kRemove);
  at.publish("t", "g", "1", kCached);
  at.withdraw("t", "g", kRemove);
  at.withdraw("t", "g", kRemove);
  for (RawPeer* peer : {&at.live, &at.cached}) {
    EXPECT_EQ(peer->receive(), notification("t:g", "1", 0));
    EXPECT_EQ(peer->receive(), notification("t:g", "", 2));
  }
  at.expectNothingSent();
  EXPECT_EQ(at.heard(), (Lines{"subscribe t g", "unpublish t g 1 0 0", "publish t g 1 1 0",
                               "unpublish t g 1 1 0", "unpublish t g 1 0 0"}));
}

TEST(BrokerRouting, AWithdrawalThatSparesTheCacheIsAlwaysPassedOn) {
  HandServedBroker at;
  at.withdraw("t", "g", kStay);  // of a key that the cache does not hold
  EXPECT_EQ(at.live.receive(), notification("t:g", "", 2));
  at.publish("t", "g", "1", kCached);
  EXPECT_EQ(at.live.receive(), notification("t:g", "1", 0));
  at.withdraw("t", "g", kStay);  // and of one that it holds
  EXPECT_EQ(at.live.receive(), notification("t:g", "", 2));
  at.withdraw("t", "g", 2);
  EXPECT_EQ(at.live.receive(), notification("t:g", "", 2));
  EXPECT_EQ(at.heard(), (Lines{"unpublish t g 0 0 0", "publish t g 1 1 0", "unpublish t g 0 0 0",
                               "unpublish t g 0 0 0"}));
  at.subscribe("t:g");
  EXPECT_EQ(at.cached.receive(), notification("t:g", "1", 1));
}

TEST(BrokerRouting, AWithdrawalTouchesOnlyItsKey) {
  HandServedBroker at;
  at.publish("t", "g", "1", kCached);
  at.publish("t", "h", "2", kCached);
  at.withdraw("t", "g", kRemove);
  at.subscribe("t:h");
  EXPECT_EQ(at.cached.receive(), notification("t:h", "2", 1));
}

TEST(BrokerRouting, ASubscriberGetsTheCachedValueBeforeLaterOnes) {
  HandServedBroker at;
  at.publish("t", "g", "1", kCached);
  at.subscribe("t:g");
  at.publish("t", "g", "2", kCached);
  at.publish("t", "g", "3", kUncached);
  EXPECT_EQ(at.cached.receive(), notification("t:g", "1", 1));
  EXPECT_EQ(at.cached.receive(), notification("t:g", "2", 0));
  EXPECT_EQ(at.cached.receive(), notification("t:g", "3", 0));
}

TEST(BrokerRouting, ReplaysAreNotSentToTheLiveSide) {
  HandServedBroker at;
  at.publish("t", "g", "1", kCached);
  EXPECT_EQ(at.live.receive(), notification("t:g", "1", 0));
  at.subscribe("t:g");
  EXPECT_EQ(at.cached.receive(), notification("t:g", "1", 1));
  at.expectNothingSent();
}

TEST(BrokerRouting, SubscribingOnTheLiveSideReplaysNothingAndIsNotObserved) {
  HandServedBroker at;
  at.publish("t", "g", "1", kCached);
  RawPeer later(ZMQ_SUB);
  later.connect(at.updatesEndpoint).subscribe("t:g");
  // Becomes live with a pass that looks at all sockets, which one of the next few is.
  while (!later.readable()) at.publish("t", "g", "live", kUncached);
  EXPECT_EQ(later.receive(), notification("t:g", "live", 0));
  at.heard();
  at.publish("t", "g", "1", kCached);
  EXPECT_EQ(at.heard(), Lines{"publish t g 1 0 1"});
}

TEST(BrokerRouting, EachNewSubscriberGetsTheCachedValueAndThoseWhoHaveItSeeItAgain) {
  HandServedBroker at;
  at.publish("t", "g", "1", kCached);
  RawPeer prefix(ZMQ_SUB);
  RawPeer other(ZMQ_SUB);
  prefix.connect(at.cacheEndpoint);
  other.connect(at.cacheEndpoint);
  at.subscribe(prefix, "t");
  at.subscribe(other, "u:g");
  at.subscribe("t:g");
  RawPeer second(ZMQ_SUB);
  second.connect(at.cacheEndpoint);
  at.subscribe(second, "t:g");
  EXPECT_EQ(second.receive(), notification("t:g", "1", 1));
  for (RawPeer* peer : {&at.cached, &prefix}) {
    EXPECT_EQ(peer->receive(), notification("t:g", "1", 1));
    EXPECT_EQ(peer->receive(), notification("t:g", "1", 1));
    EXPECT_FALSE(peer->readable());
  }
  EXPECT_FALSE(other.readable());
  EXPECT_FALSE(second.readable());
}

TEST(BrokerRouting, ASubscriptionThatAPeerRepeatsIsAnsweredAgain) {
  HandServedBroker at;
  at.publish("t", "g", "1", kCached);
  RawPeer peer(ZMQ_XSUB);
  peer.connect(at.cacheEndpoint);
  for (int i = 0; i < 3; ++i) {
    peer.send({"\x01t:g"});
    at.pass();
    EXPECT_EQ(peer.receive(), notification("t:g", "1", 1));
  }
  EXPECT_EQ(at.heard(),
            (Lines{"publish t g 1 1 0", "subscribe t g", "subscribe t g", "subscribe t g"}));
}

TEST(BrokerRouting, OnlyTheExactKeyIsReplayed) {
  HandServedBroker at;
  at.publish("topic", "tag", "1", kCached);
  at.publish("topic", "", "2", kUncached);
  EXPECT_EQ(at.live.receive(), notification("topic:tag", "1", 0));
  EXPECT_EQ(at.live.receive(), notification("topic:", "2", 0));
  for (const std::string& subscription :
       Frames{"", "t", "topic", "topic:", "topic:ta", "topic:tagg", "Topic:tag",
              bytes("topic:tag\0", 10)}) {
    RawPeer peer(ZMQ_SUB);
    peer.connect(at.cacheEndpoint);
    at.subscribe(peer, subscription);
    at.expectNothingSent();
    // The marker matches the empty prefix, too; nothing else has come.
    if (subscription.empty()) {
      EXPECT_EQ(peer.receive(), notification("marker:m", "", 0));
    }
    EXPECT_FALSE(peer.readable()) << subscription;
    peer.unsubscribe(subscription);
    at.pass();
  }
}

TEST(BrokerRouting, APrefixSubscriberGetsLiveValuesOfAllItsKeys) {
  HandServedBroker at;
  at.subscribe("topic:");
  at.publish("topic", "a", "1", kCached);
  at.publish("topical", "a", "2", kCached);
  at.publish("topic", "b", "3", kUncached);
  at.withdraw("topic", "a", kRemove);
  EXPECT_EQ(at.cached.receive(), notification("topic:a", "1", 0));
  EXPECT_EQ(at.cached.receive(), notification("topic:b", "3", 0));
  EXPECT_EQ(at.cached.receive(), notification("topic:a", "", 2));
  EXPECT_FALSE(at.cached.readable());
}

TEST(BrokerRouting, SubscriptionsAreCutAtTheirFirstColon) {
  HandServedBroker at;
  const std::vector<std::pair<std::string, std::string>> cuts = {
      {"topic:tag", "topic tag"},
      {"x:y:z", "x y:z"},
      {"topic", "topic "},
      {"topic:", "topic "},
      {":tag", " tag"},
      {":", " "},
      {"", " "},
      {"::", " :"},
      {bytes("a\0:b", 4), bytes("a\0 b", 4)}};
  for (const auto& [subscription, heard] : cuts) {
    at.subscribe(subscription);
    EXPECT_EQ(at.heard(), Lines{"subscribe " + heard});
    at.unsubscribe(subscription);
    EXPECT_EQ(at.heard(), Lines{"unsubscribe " + heard});
  }
}

TEST(BrokerRouting, NothingIsSentToWhomUnsubscribes) {
  HandServedBroker at;
  at.publish("t", "g", "1", kCached);
  EXPECT_EQ(at.live.receive(), notification("t:g", "1", 0));
  at.subscribe("t:g");
  EXPECT_EQ(at.cached.receive(), notification("t:g", "1", 1));
  at.unsubscribe("t:g");
  at.expectNothingSent();
  at.publish("t", "g", "2", kCached);
  EXPECT_EQ(at.live.receive(), notification("t:g", "2", 0));
  at.expectNothingSent();
  EXPECT_EQ(at.heard(),
            (Lines{"publish t g 1 1 0", "subscribe t g", "unsubscribe t g", "publish t g 1 1 0"}));
}

TEST(BrokerRouting, OnlyTheLastHolderOfASubscriptionIsHeardToGiveItUp) {
  HandServedBroker at;
  RawPeer other(ZMQ_SUB);
  other.connect(at.cacheEndpoint);
  at.subscribe("t:g");
  at.subscribe(other, "t:g");
  other.unsubscribe("t:g");
  at.publish("t", "g", "1", kUncached);
  EXPECT_EQ(at.heard(), (Lines{"subscribe t g", "subscribe t g", "publish t g 0 0 0"}));
  at.unsubscribe("t:g");
  EXPECT_EQ(at.heard(), Lines{"unsubscribe t g"});
}

TEST(BrokerRouting, ASubscriberThatGoesAwayIsHeardToUnsubscribe) {
  HandServedBroker at;
  {
    RawPeer peer(ZMQ_SUB);
    peer.connect(at.cacheEndpoint);
    at.subscribe(peer, "t:g");
  }
  while (at.observer->journal.size() < 2) at.pass();  // ZeroMQ closes in the background
  EXPECT_EQ(at.heard(), (Lines{"subscribe t g", "unsubscribe t g"}));
}

TEST(BrokerRouting, MessagesOfSubscribersThatAreNoSubscriptionsAreIgnored) {
  HandServedBroker at;
  at.publish("t", "g", "1", kCached);
  EXPECT_EQ(at.live.receive(), notification("t:g", "1", 0));
  at.heard();
  RawPeer peer(ZMQ_XSUB);
  peer.connect(at.cacheEndpoint);
  peer.send({""});
  at.pass();
  for (int first = 2; first < 256; ++first) {
    peer.send({std::string(1, static_cast<char>(first)) + "t:g"});
    at.pass();
    peer.send({std::string(1, static_cast<char>(first))});
    at.pass();
  }
  EXPECT_THAT(at.heard(), IsEmpty());
  peer.send({"\x01t:g"});
  at.pass();
  EXPECT_EQ(peer.receive(), notification("t:g", "1", 1));
  EXPECT_EQ(at.heard(), Lines{"subscribe t g"});
  at.expectNothingSent();
}

TEST(BrokerRouting, APassServesOneMessageOfEachSocketPublishersFirst) {
  HandServedBroker at;
  at.in.send(publication("t", "1", "", kUncached));
  at.in.send(withdrawal("t", "2", kStay));
  at.cached.subscribe("s:1");
  at.cached.subscribe("s:2");
  at.pass();
  EXPECT_EQ(at.heard(), (Lines{"publish t 1 0 0 0", "subscribe s 1"}));
  at.pass();
  EXPECT_EQ(at.heard(), (Lines{"unpublish t 2 0 0 0", "subscribe s 2"}));
}

TEST(BrokerRouting, APassThatDropsAnUnknownMessageServesNothingElse) {
  HandServedBroker at;
  at.cached.subscribe("s:1");
  at.in.send({"nonsense"});
  at.in.send({"", "RS02", "\x02", "", "", ""});
  at.pass();
  EXPECT_THAT(at.heard(), IsEmpty());
  at.pass();
  EXPECT_THAT(at.heard(), IsEmpty());
  at.pass();
  EXPECT_EQ(at.heard(), Lines{"subscribe s 1"});
}

TEST(BrokerRouting, ValuesOfAnySizePassUnchanged) {
  HandServedBroker at;
  at.subscribe("t:g");
  // Around what ZeroMQ keeps inside a message, and its batch size.
  for (const std::size_t size :
       std::vector<std::size_t>{1, 28, 29, 30, 32, 33, 34, 255, 256, 8191, 8192, 8193, 1 << 20}) {
    std::string value(size, 'x');
    value.back() = 'y';
    at.publish("t", "g", value, kCached);
    EXPECT_TRUE(at.live.receive() == notification("t:g", value, 0)) << size;
    EXPECT_TRUE(at.cached.receive() == notification("t:g", value, 0)) << size;
    at.publish("t", "g", value, kCached);
  }
  at.expectNothingSent();
}

TEST(BrokerRouting, AValueOf64MebibytesIsSentKeptComparedAndReplayed) {
  HandServedBroker at;
  std::string value(64U << 20U, 'x');
  value.front() = 'a';
  value.back() = 'z';
  at.publish("t", "g", value, kCached);
  EXPECT_TRUE(at.live.receive() == notification("t:g", value, 0));
  at.publish("t", "g", value, kCached);
  at.subscribe("t:g");
  EXPECT_TRUE(at.cached.receive() == notification("t:g", value, 1));
  value.back() = 'y';
  at.publish("t", "g", value, kCached);
  EXPECT_TRUE(at.live.receive() == notification("t:g", value, 0));
  EXPECT_EQ(at.heard(), (Lines{"publish t g 1 1 0", "publish t g 1 0 1", "subscribe t g",
                               "publish t g 1 1 0"}));
}

TEST(BrokerRouting, APassThatDropsABadBodyServesASubscriptionAsWell) {
  HandServedBroker at;
  int subscription = 0;
  const auto extended = [](Frames frames) {
    frames.emplace_back("more");
    return frames;
  };
  for (const Frames& bad :
       {Frames{"", "RS02", "\x03", "t"}, extended(publication("t", "g", "1", kCached)),
        Frames{"", "RS02", "\x04", "t"}, extended(withdrawal("t", "g", kRemove))}) {
    const std::string tag = std::to_string(++subscription);
    at.in.send(bad);
    at.in.send(publication("t", "g", tag, kCached));
    at.cached.subscribe("s:" + tag);
    at.pass();
    EXPECT_EQ(at.heard(), Lines{"subscribe s " + tag}) << testing::PrintToString(bad);
    EXPECT_FALSE(at.live.readable());
    at.pass();
    EXPECT_EQ(at.heard(), Lines{"publish t g 1 1 0"});
    EXPECT_EQ(at.live.receive(), notification("t:g", tag, 0));
  }
}

}  // namespace
}  // namespace tessel::test
