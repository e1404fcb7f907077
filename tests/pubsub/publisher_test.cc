#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tessel/message_broker.h>
#include <tessel/publisher.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>

#include "support/broker_peers.h"
#include "support/no_hang.h"
#include "support/publishing.h"
#include "support/socket_budget.h"
#include "support/zmq_errors.h"

namespace tessel::test {
namespace {

const char* const kTopicText = "Message topic must not contain colons!";
const char* const kTagText = "Message tag must not contain colons!";

// --- Construction

template <typename Make>
std::string refusal(const Make& make) {
  try {
    make();
  } catch (const std::invalid_argument& error) {
    return typeid(error) == typeid(std::invalid_argument) ? error.what()
                                                          : "a class derived from it";
  } catch (...) {
    return "something else";
  }
  return "accepted";
}

TEST(PublisherConstruction, KeepsTopicAndTag) {
  const MessageBroker broker({}, {}, {});
  EXPECT_EQ(Publisher("topic", "tag").getTopic(), "topic");
  EXPECT_EQ(Publisher("topic", "tag").getTag(), "tag");
  EXPECT_EQ(Publisher({"inproc://x"}, "topic", "tag").getTopic(), "topic");
  EXPECT_EQ(Publisher({"inproc://x"}, "topic", "tag").getTag(), "tag");
  EXPECT_EQ(Publisher(broker, "topic", "tag").getTopic(), "topic");
  EXPECT_EQ(Publisher(broker, "topic", "tag").getTag(), "tag");
}

TEST(PublisherConstruction, TakesAnEmptyTagForDefault) {
  const MessageBroker broker({}, {}, {});
  EXPECT_EQ(Publisher("topic", "").getTag(), "default");
  EXPECT_EQ(Publisher({"inproc://x"}, "topic", "").getTag(), "default");
  EXPECT_EQ(Publisher(broker, "topic", "").getTag(), "default");
  Receiver receiver;
  publish(Publisher({receiver.endpoint}, "topic", ""), "1");
  EXPECT_EQ(receiver.receive(), publication("topic", "default", "1", 1));
}

TEST(PublisherConstruction, AcceptsAnEmptyTopicAndAnyOtherBytes) {
  Receiver receiver;
  for (const std::string& text : {std::string(), std::string(" "), bytes("a\0b", 3),
                                  std::string("\xFF;,."), std::string(10000, 'x')}) {
    const Publisher publisher({receiver.endpoint}, text, "tag" + text);
    EXPECT_EQ(publisher.getTopic(), text);
    EXPECT_EQ(publisher.getTag(), "tag" + text);
    publish(publisher, "1");
    EXPECT_EQ(receiver.receive(), publication(text, "tag" + text, "1", 1));
  }
}

TEST(PublisherConstruction, RefusesColonsTheTopicFirst) {
  const MessageBroker broker({}, {}, {});
  const auto refused = [&](const std::string& topic, const std::string& tag) {
    const std::string text = refusal([&] { Publisher(topic, tag); });
    EXPECT_EQ(refusal([&] { Publisher({"inproc://x"}, topic, tag); }), text);
    EXPECT_EQ(refusal([&] { Publisher(broker, topic, tag); }), text);
    return text;
  };
  EXPECT_EQ(refused("a", "b"), "accepted");
  for (const std::string& bad : {std::string(":"), std::string("a:b"), std::string(":a"),
                                 std::string("a:"), std::string("::"), bytes("a\0:", 3)}) {
    EXPECT_EQ(refused(bad, "tag"), kTopicText) << bad;
    EXPECT_EQ(refused(bad, ""), kTopicText) << bad;
    EXPECT_EQ(refused("topic", bad), kTagText) << bad;
    EXPECT_EQ(refused("", bad), kTagText) << bad;
    EXPECT_EQ(refused(bad, bad), kTopicText) << bad;
  }
}

TEST(PublisherConstruction, IsNeitherCopiedNorMoved) {
  EXPECT_FALSE(std::is_copy_constructible_v<Publisher>);
  EXPECT_FALSE(std::is_copy_assignable_v<Publisher>);
  EXPECT_FALSE(std::is_move_constructible_v<Publisher>);
  EXPECT_FALSE(std::is_move_assignable_v<Publisher>);
  EXPECT_TRUE(std::has_virtual_destructor_v<Publisher>);
  EXPECT_TRUE(std::is_nothrow_destructible_v<Publisher>);
}

TEST(PublisherConstruction, ConnectsNothingYet) {
  const Publisher bad({"nonsense"}, "t", "g");
  Publisher withdrawing({"nonsense"}, "t", "g");
  withdrawing.enableUnpublishOnDestruction(true);
  withdrawing.enableUnpublishOnDestruction(false);
}

TEST(PublisherConstruction, KeepsItsOwnListOfBrokers) {
  Receiver receiver;
  std::vector<std::string> transports = {receiver.endpoint};
  const Publisher publisher(transports, "t", "g");
  transports[0] = "nonsense";
  transports.emplace_back("nonsense");
  publish(publisher, "1");
  EXPECT_EQ(receiver.receive(), publication("t", "g", "1", 1));
}

TEST(PublisherConstruction, OverABrokerSendsToItsNumberedName) {
  MessageBroker first({}, {}, {});
  MessageBroker second({}, {}, {});
  const auto observer = std::make_shared<RecordingBrokerObserver>();
  second.attach(observer);
  second.start();
  publish(Publisher(second, "t", "g"), "1");
  EXPECT_EQ(observer->journal.lines(1), std::vector<std::string>{"publish t g 1 1 0"});
}

// --- What is sent

TEST(PublisherSends, SevenFramesForAValue) {
  Receiver receiver;
  publish(Publisher({receiver.endpoint}, "topic", "tag"), "value");
  const Frames expected = {
      "", "RS02", "\x03", "topic", "tag", "value", bytes("\x01\0\0\0\0\0\0\0", 8)};
  EXPECT_EQ(receiver.receive(), expected);
  receiver.expectNothing();
}

TEST(PublisherSends, SixFramesForAWithdrawal) {
  Receiver receiver;
  Publisher publisher({receiver.endpoint}, "topic", "tag");
  const Frames expected = {"", "RS02", "\x04", "topic", "tag", bytes("\x01\0\0\0\0\0\0\0", 8)};
  publisher.unpublish();
  EXPECT_EQ(receiver.receive(), expected);
  publisher.removeFromCache();
  EXPECT_EQ(receiver.receive(), expected);
  receiver.expectNothing();
}

TEST(PublisherSends, WhatItsTwoSwitchesSay) {
  Receiver receiver;
  Publisher publisher({receiver.endpoint}, "t", "g");
  EXPECT_TRUE(publisher.isCacheEnabled());
  EXPECT_FALSE(publisher.isPublishIfEqualEnabled());
  for (const bool cache : {true, false, true}) {
    for (const bool ifEqual : {false, true, false}) {
      publisher.enableCache(cache);
      publisher.enablePublishIfEqual(ifEqual);
      EXPECT_EQ(publisher.isCacheEnabled(), cache);
      EXPECT_EQ(publisher.isPublishIfEqualEnabled(), ifEqual);
      publish(publisher, "1");
      EXPECT_EQ(receiver.receive(),
                publication("t", "g", "1", (cache ? 1U : 0U) + (ifEqual ? 2U : 0U)));
      publisher.unpublish();
      EXPECT_EQ(receiver.receive(), withdrawal("t", "g", cache ? 1 : 0));
      publisher.removeFromCache();
      EXPECT_EQ(receiver.receive(), withdrawal("t", "g", cache ? 1 : 0));
    }
  }
}

TEST(PublisherSends, SwitchesKeepTheirStateWhenSetTwice) {
  Receiver receiver;
  Publisher publisher({receiver.endpoint}, "t", "g");
  publisher.enableCache(true);
  publisher.enablePublishIfEqual(true);
  publisher.enablePublishIfEqual(true);
  publish(publisher, "");
  EXPECT_EQ(receiver.receive(), publication("t", "g", "", 3));
  publisher.enableCache(false);
  publisher.enableCache(false);
  publish(publisher, "");
  EXPECT_EQ(receiver.receive(), publication("t", "g", "", 2));
}

TEST(PublisherSends, ACopyOfTheValue) {
  const std::string endpoint = uniqueInproc();
  std::string value = "one and one and one and one and one and one";
  publish(Publisher({endpoint}, "t", "g"), value);  // waits in the queue
  value.assign(value.size(), 'X');
  Receiver receiver(endpoint);
  EXPECT_EQ(receiver.receive(),
            publication("t", "g", "one and one and one and one and one and one", 1));
}

TEST(PublisherSends, ValuesOfAnyBytesAndSize) {
  Receiver receiver;
  const Publisher publisher({receiver.endpoint}, "t", "g");
  publisher.publish(nullptr, 0);
  EXPECT_EQ(receiver.receive(), publication("t", "g", "", 1));
  publish(publisher, bytes("\0", 1));
  EXPECT_EQ(receiver.receive(), publication("t", "g", bytes("\0", 1), 1));
  std::string large(64U << 20U, 'x');
  large.back() = 'y';
  publish(publisher, large);
  EXPECT_TRUE(receiver.receive() == publication("t", "g", large, 1));
}

TEST(PublisherSends, ToEachBrokerInItsList) {
  Receiver first;
  Receiver second;
  Receiver third(uniqueIpc());
  Publisher publisher({first.endpoint, second.endpoint, third.endpoint}, "t", "g");
  publish(publisher, "1");
  publisher.unpublish();
  for (Receiver* receiver : {&first, &second, &third}) {
    EXPECT_EQ(receiver->receive(), publication("t", "g", "1", 1));
    EXPECT_EQ(receiver->receive(), withdrawal("t", "g", 1));
    receiver->expectNothing();
  }
}

TEST(PublisherSends, AsOftenAsABrokerIsInTheList) {
  Receiver receiver;
  const Publisher publisher({receiver.endpoint, receiver.endpoint}, "t", "g");
  publish(publisher, "1");
  EXPECT_EQ(receiver.receive(), publication("t", "g", "1", 1));
  EXPECT_EQ(receiver.receive(), publication("t", "g", "1", 1));
  receiver.expectNothing();
}

TEST(PublisherSends, NothingWithoutBrokers) {
  Publisher publisher(std::vector<std::string>(), "t", "g");
  publisher.enableUnpublishOnDestruction(true);
  publish(publisher, "1");
  publisher.unpublish();
  publisher.removeFromCache();
}

// --- Destruction

TEST(PublisherDestruction, SendsNothingByDefault) {
  Receiver receiver;
  {
    const Publisher publisher({receiver.endpoint}, "t", "g");
    EXPECT_FALSE(publisher.isUnpublishOnDestructionEnabled());
    EXPECT_FALSE(publisher.isClearCacheOnDestructionEnabled());
  }
  receiver.expectNothing();
}

TEST(PublisherDestruction, WithdrawsIfEitherSwitchIsOn) {
  Receiver receiver;
  using Switch = void (Publisher::*)(bool);
  for (const Switch enable :
       {&Publisher::enableUnpublishOnDestruction, &Publisher::enableClearCacheOnDestruction}) {
    {
      Publisher publisher({receiver.endpoint}, "t", "g");
      (publisher.*enable)(true);
    }
    EXPECT_EQ(receiver.receive(), withdrawal("t", "g", 1));
    receiver.expectNothing();
  }
}

TEST(PublisherDestruction, HasOneSwitchUnderTwoNames) {
  Receiver receiver;
  Publisher publisher({receiver.endpoint}, "t", "g");
  const auto expectBoth = [&](bool on) {
    EXPECT_EQ(publisher.isUnpublishOnDestructionEnabled(), on);
    EXPECT_EQ(publisher.isClearCacheOnDestructionEnabled(), on);
  };
  expectBoth(false);
  publisher.enableUnpublishOnDestruction(true);
  expectBoth(true);
  publisher.enableClearCacheOnDestruction(false);
  expectBoth(false);
  publisher.enableClearCacheOnDestruction(true);
  expectBoth(true);
  publisher.enableUnpublishOnDestruction(false);
  expectBoth(false);
  publisher.enableClearCacheOnDestruction(true);
  publisher.enableUnpublishOnDestruction(true);
  publisher.enableClearCacheOnDestruction(false);
  expectBoth(false);
}

TEST(PublisherDestruction, WithdrawsNothingOnceEitherSwitchIsOffAgain) {
  Receiver receiver;
  {
    Publisher publisher({receiver.endpoint}, "t", "g");
    publisher.enableUnpublishOnDestruction(true);
    publisher.enableClearCacheOnDestruction(false);
  }
  receiver.expectNothing();
}

TEST(PublisherDestruction, WithdrawsAsUnpublishDoes) {
  Receiver first;
  Receiver second;
  {
    Publisher publisher({first.endpoint, second.endpoint}, "t", "");
    publisher.enableUnpublishOnDestruction(true);
    publisher.enableCache(false);
    publisher.enablePublishIfEqual(true);
  }
  EXPECT_EQ(first.receive(), withdrawal("t", "default", 0));
  EXPECT_EQ(second.receive(), withdrawal("t", "default", 0));
}

TEST(PublisherDestruction, WithdrawsThroughAPointerToTheBaseToo) {
  Receiver receiver;
  class Derived : public Publisher {
   public:
    using Publisher::Publisher;
  };
  std::unique_ptr<Publisher> publisher =
      std::make_unique<Derived>(std::vector<std::string>{receiver.endpoint}, "t", "g");
  publisher->enableUnpublishOnDestruction(true);
  publisher.reset();
  EXPECT_EQ(receiver.receive(), withdrawal("t", "g", 1));
}

TEST(PublisherDestructionDeathTest, EndsTheProcessWhenItCannotSend) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        Publisher publisher({"nonsense"}, "t", "g");
        publisher.enableUnpublishOnDestruction(true);
      },
      testing::KilledBySignal(SIGABRT), "Invalid argument");
}

// --- The default brokers. Each case needs a process of its own, as CTest gives it.

TEST(PublisherDefaults, AreTheFirstBrokerOfTheProcess) {
  Receiver receiver("inproc://publish_service0");
  publish(Publisher("t", "g"), "1");
  EXPECT_EQ(receiver.receive(), publication("t", "g", "1", 1));
}

TEST(PublisherDefaults, WaitForTheFirstBroker) {
  publish(Publisher("t", "g"), "1");  // before there is any
  MessageBroker first({}, {}, {});
  MessageBroker second({}, {}, {});
  const auto observer = std::make_shared<RecordingBrokerObserver>();
  first.attach(observer);
  publish(Publisher("t", "g"), "2");
  first.start();
  second.start();
  EXPECT_EQ(observer->journal.lines(2),
            (std::vector<std::string>{"publish t g 1 1 0", "publish t g 1 1 0"}));
}

TEST(PublisherDefaults, CanBeSetForPublishersMadeLater) {
  Receiver receiver("inproc://publish_service0");
  Receiver one;
  Receiver two;
  const Publisher before("before", "g");
  Publisher::setDefaultBroker(std::vector<std::string>{one.endpoint, two.endpoint});
  const Publisher after("after", "g");
  Publisher::setDefaultBroker(std::vector<std::string>{two.endpoint});
  const Publisher last("last", "g");
  publish(before, "1");
  publish(after, "2");
  publish(last, "3");
  EXPECT_EQ(receiver.receive(), publication("before", "g", "1", 1));
  EXPECT_EQ(one.receive(), publication("after", "g", "2", 1));
  EXPECT_EQ(two.receive(), publication("after", "g", "2", 1));
  EXPECT_EQ(two.receive(), publication("last", "g", "3", 1));
  receiver.expectNothing();
  one.expectNothing();
  two.expectNothing();
}

TEST(PublisherDefaults, CanBeABroker) {
  Receiver before;
  MessageBroker first({}, {}, {});
  MessageBroker second({}, {}, {});
  const auto firstHears = std::make_shared<RecordingBrokerObserver>();
  const auto secondHears = std::make_shared<RecordingBrokerObserver>();
  first.attach(firstHears);
  second.attach(secondHears);
  first.start();
  second.start();
  Publisher::setDefaultBroker(std::vector<std::string>{before.endpoint});
  Publisher::setDefaultBroker(first);
  Publisher::setDefaultBroker(second);
  publish(Publisher("t", "g"), "1");
  EXPECT_EQ(secondHears->journal.lines(1), std::vector<std::string>{"publish t g 1 1 0"});
  publish(Publisher(first, "marker", "m"), "");
  EXPECT_EQ(firstHears->journal.lines(1), std::vector<std::string>{"publish marker m 1 1 0"});
  before.expectNothing();
}

TEST(PublisherDefaults, MayBeNone) {
  Receiver receiver("inproc://publish_service0");
  Publisher::setDefaultBroker(std::vector<std::string>());
  publish(Publisher("t", "g"), "1");
  receiver.expectNothing();
}

TEST(PublisherDefaults, AreACopyOfTheGivenList) {
  Receiver receiver;
  std::vector<std::string> transports = {receiver.endpoint};
  Publisher::setDefaultBroker(transports);
  transports[0] = "nonsense";
  publish(Publisher("t", "g"), "1");
  EXPECT_EQ(receiver.receive(), publication("t", "g", "1", 1));
}

TEST(PublisherDefaults, DoNotConcernPublishersWithBrokersOfTheirOwn) {
  Receiver receiver;
  const MessageBroker broker({}, {}, {});
  Publisher::setDefaultBroker(std::vector<std::string>{"nonsense"});
  publish(Publisher({receiver.endpoint}, "t", "g"), "1");
  publish(Publisher(broker, "t", "g"), "1");
  EXPECT_EQ(receiver.receive(), publication("t", "g", "1", 1));
  EXPECT_ZMQ_ERROR(publish(Publisher("t", "g"), "1"), EINVAL);
}

// --- Failures

TEST(PublisherFailure, ToConnectIsThrownEachTime) {
  for (const auto& failure : std::vector<std::pair<std::string, int>>{
           {"nonsense", EINVAL}, {"", EINVAL}, {"xyz://a", EPROTONOSUPPORT}}) {
    const std::string& endpoint = failure.first;
    const int error = failure.second;
    Publisher publisher({endpoint}, "t", "g");
    for (int i = 0; i < 3; ++i) {
      EXPECT_ZMQ_ERROR(publish(publisher, "1"), error);
      EXPECT_ZMQ_ERROR(publisher.unpublish(), error);
      EXPECT_ZMQ_ERROR(publisher.removeFromCache(), error);
    }
    EXPECT_ZMQ_ERROR(publish(Publisher({endpoint}, "other", "g"), "1"), error);
    withoutHanging("a publication on another thread",
                   [&] { EXPECT_ZMQ_ERROR(publish(publisher, "1"), error); });
  }
}

TEST(PublisherFailure, LeavesWhatEarlierBrokersHaveAndTellsLaterOnesNothing) {
  Receiver before;
  Receiver after;
  Publisher publisher({before.endpoint, "nonsense", after.endpoint}, "t", "g");
  for (int i = 0; i < 2; ++i) {
    EXPECT_ZMQ_ERROR(publish(publisher, "1"), EINVAL);
    EXPECT_EQ(before.receive(), publication("t", "g", "1", 1));
    EXPECT_ZMQ_ERROR(publisher.unpublish(), EINVAL);
    EXPECT_EQ(before.receive(), withdrawal("t", "g", 1));
  }
  before.expectNothing();
  after.expectNothing();
}

TEST(PublisherFailure, ToMakeASocketIsThrownAndForgotten) {
  Receiver receiver;
  const Publisher publisher({receiver.endpoint}, "t", "g");
  {
    const SocketBudget allTaken;
    EXPECT_ZMQ_ERROR(publish(publisher, "1"), EMFILE);
    EXPECT_ZMQ_ERROR(publisher.unpublish(), EMFILE);
  }
  EXPECT_TRUE(
      eventually([&] { return zmqErrorOf([&] { publish(publisher, "2"); }) == "nothing thrown"; }));
  EXPECT_EQ(receiver.receive(), publication("t", "g", "2", 1));
}

}  // namespace
}  // namespace tessel::test
