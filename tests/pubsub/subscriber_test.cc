#include <gtest/gtest.h>
#include <tessel/message_dispatcher.h>

#include <limits>
#include <memory>
#include <string>
#include <type_traits>

#include "pubsub/multi_subscriber_impl.h"
#include "pubsub/subscriber_impl.h"

namespace tessel {
namespace {

std::string keyOf(const Subscriber& subscriber) { return SubscriberImpl::of(subscriber).key(); }
std::string prefixOf(const MultiSubscriber& subscriber) {
  return MultiSubscriberImpl::of(subscriber).key();
}

TEST(Subscriber, KeepsModeTopicAndTagAsGiven) {
  const Subscriber once(SubscriptionMode::Once, "speed", "left");
  EXPECT_EQ(once.getMode(), SubscriptionMode::Once);
  EXPECT_EQ(once.getTopic(), "speed");
  EXPECT_EQ(once.getTag(), "left");
  EXPECT_EQ(keyOf(once), "speed:left");
  EXPECT_EQ(Subscriber(SubscriptionMode::NewValues, "t", "u").getMode(),
            SubscriptionMode::NewValues);
  EXPECT_EQ(Subscriber(SubscriptionMode::AllValues, "t", "u").getMode(),
            SubscriptionMode::AllValues);
}

TEST(Subscriber, TakesDefaultForAnEmptyTag) {
  const Subscriber subscriber(SubscriptionMode::AllValues, "speed", "");
  EXPECT_EQ(subscriber.getTag(), "default");
  EXPECT_EQ(keyOf(subscriber), "speed:default");
}

TEST(Subscriber, AcceptsAnEmptyTopic) {
  const Subscriber subscriber(SubscriptionMode::AllValues, "", "");
  EXPECT_EQ(subscriber.getTopic(), "");
  EXPECT_EQ(keyOf(subscriber), ":default");
}

TEST(Subscriber, AcceptsColonsInTopicAndTag) {
  const Subscriber subscriber(SubscriptionMode::AllValues, "a:b", "c:d");
  EXPECT_EQ(subscriber.getTopic(), "a:b");
  EXPECT_EQ(subscriber.getTag(), "c:d");
  EXPECT_EQ(keyOf(subscriber), "a:b:c:d");
}

TEST(Subscriber, KeepsNulBytes) {
  const std::string topic("a\0b", 3);
  const std::string tag("\0", 1);
  const Subscriber subscriber(SubscriptionMode::AllValues, topic, tag);
  EXPECT_EQ(subscriber.getTopic(), topic);
  EXPECT_EQ(subscriber.getTag(), tag);
  EXPECT_EQ(keyOf(subscriber), topic + ":" + tag);
}

TEST(Subscriber, AcceptsModesThatHaveNoName) {
  for (const int value : {3, -1, std::numeric_limits<int>::max()}) {
    const auto mode = static_cast<SubscriptionMode>(value);
    EXPECT_EQ(Subscriber(mode, "t", "u").getMode(), mode);
  }
}

TEST(Subscriber, NumbersItsModes) {
  EXPECT_EQ(static_cast<int>(SubscriptionMode::Once), 0);
  EXPECT_EQ(static_cast<int>(SubscriptionMode::NewValues), 1);
  EXPECT_EQ(static_cast<int>(SubscriptionMode::AllValues), 2);
  static_assert(std::is_same_v<std::underlying_type_t<SubscriptionMode>, std::int32_t>);
}

TEST(Subscriber, IgnoresCallbacksThatAreNotOverridden) {
  Subscriber subscriber(SubscriptionMode::AllValues, "t", "u");
  SubscriberImpl::deliverValue(subscriber, "t:u", "v", 1);
  SubscriberImpl::deliverDeletion(subscriber, "t:u");
  MultiSubscriber multi("t");
  MultiSubscriberImpl::deliverValue(multi, "t:u", "v", 1);
  MultiSubscriberImpl::deliverDeletion(multi, "t:u");
}

template <typename T>
class Mourned : public T {
 public:
  template <typename... Arguments>
  explicit Mourned(bool& gone, Arguments... arguments) : T(arguments...), gone_(gone) {}
  ~Mourned() override { gone_ = true; }

 private:
  bool& gone_;
};

TEST(Subscriber, IsDestroyedThroughItsBase) {
  bool subscriberGone = false;
  std::unique_ptr<Subscriber> subscriber = std::make_unique<Mourned<Subscriber>>(
      subscriberGone, SubscriptionMode::Once, std::string("t"), std::string("u"));
  subscriber.reset();
  EXPECT_TRUE(subscriberGone);
  bool multiGone = false;
  std::unique_ptr<MultiSubscriber> multi =
      std::make_unique<Mourned<MultiSubscriber>>(multiGone, std::string("t"));
  multi.reset();
  EXPECT_TRUE(multiGone);
}

TEST(MultiSubscriber, TakesAPrefixAsItIs) {
  EXPECT_EQ(prefixOf(MultiSubscriber("temp")), "temp");
  EXPECT_EQ(prefixOf(MultiSubscriber("temp:left:")), "temp:left:");
  EXPECT_EQ(prefixOf(MultiSubscriber("")), "");
  const std::string withNul("a\0b", 3);
  EXPECT_EQ(prefixOf(MultiSubscriber(withNul)), withNul);
}

TEST(MultiSubscriber, JoinsTopicAndTagToAPrefix) {
  EXPECT_EQ(prefixOf(MultiSubscriber("temp", "a")), "temp:a");
  EXPECT_EQ(prefixOf(MultiSubscriber("a:b", "c")), "a:b:c");
}

TEST(MultiSubscriber, LeavesAnEmptyTagEmpty) {
  EXPECT_EQ(prefixOf(MultiSubscriber("temp", "")), "temp:");
  EXPECT_EQ(prefixOf(MultiSubscriber("", "")), ":");
}

TEST(MultiSubscriber, WantsNewValuesOnly) {
  const MultiSubscriber multi("temp");
  EXPECT_EQ(MultiSubscriberImpl::of(multi).mode(), SubscriptionMode::NewValues);
}

}  // namespace
}  // namespace tessel
