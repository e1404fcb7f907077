#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "pubsub/subscription.h"
#include "support/recorders.h"

namespace tessel {
namespace {

using test::RecordingMultiSubscriber;
using test::RecordingSubscriber;
using Lines = std::vector<std::string>;

std::shared_ptr<RecordingSubscriber> subscriber(SubscriptionMode mode = SubscriptionMode::AllValues,
                                                const std::string& topic = "t",
                                                const std::string& tag = "u") {
  return std::make_shared<RecordingSubscriber>(mode, topic, tag);
}

Subscription<Subscriber> subscriptionOf(const std::shared_ptr<Subscriber>& subscriber) {
  return Subscription<Subscriber>(subscriber);
}
Subscription<MultiSubscriber> subscriptionOf(const std::shared_ptr<MultiSubscriber>& subscriber) {
  return Subscription<MultiSubscriber>(subscriber);
}

bool prefixMatches(const std::string& prefix, const std::string& key) {
  const auto multi = std::make_shared<MultiSubscriber>(prefix);
  return subscriptionOf(multi).isFor(key);
}

TEST(Subscription, TakesModeAndKeyFromTheSubscriber) {
  const auto once = subscriber(SubscriptionMode::Once, "a", "");
  EXPECT_EQ(subscriptionOf(once).mode(), SubscriptionMode::Once);
  EXPECT_EQ(subscriptionOf(once).key(), "a:default");
  EXPECT_FALSE(subscriptionOf(once).isPrefix());
  const auto unknown = subscriber(static_cast<SubscriptionMode>(7));
  EXPECT_EQ(subscriptionOf(unknown).mode(), static_cast<SubscriptionMode>(7));
}

TEST(Subscription, TakesThePrefixFromAMultiSubscriber) {
  const auto multi = std::make_shared<MultiSubscriber>("a", "");
  EXPECT_EQ(subscriptionOf(multi).mode(), SubscriptionMode::NewValues);
  EXPECT_EQ(subscriptionOf(multi).key(), "a:");
  EXPECT_TRUE(subscriptionOf(multi).isPrefix());
}

TEST(Subscription, IsDeliveredFromTheBeginningOnlyForNewValues) {
  EXPECT_FALSE(subscriptionOf(subscriber(SubscriptionMode::Once)).delivered());
  EXPECT_TRUE(subscriptionOf(subscriber(SubscriptionMode::NewValues)).delivered());
  EXPECT_FALSE(subscriptionOf(subscriber(SubscriptionMode::AllValues)).delivered());
  EXPECT_FALSE(subscriptionOf(subscriber(static_cast<SubscriptionMode>(3))).delivered());
  EXPECT_TRUE(subscriptionOf(std::make_shared<MultiSubscriber>("t")).delivered());
}

TEST(Subscription, RemembersThatItWasDelivered) {
  const auto alive = subscriber();
  Subscription<Subscriber> subscription(alive);
  subscription.setDelivered();
  EXPECT_TRUE(subscription.delivered());
}

TEST(Subscription, IsTheSameForOneObjectOnly) {
  const auto one = subscriber();
  const auto other = subscriber();
  EXPECT_TRUE(subscriptionOf(one).isSameSubscriber(subscriptionOf(one)));
  EXPECT_FALSE(subscriptionOf(one).isSameSubscriber(subscriptionOf(other)));
  const auto multi = std::make_shared<MultiSubscriber>("t");
  const auto otherMulti = std::make_shared<MultiSubscriber>("t");
  EXPECT_TRUE(subscriptionOf(multi).isSameSubscriber(subscriptionOf(multi)));
  EXPECT_FALSE(subscriptionOf(multi).isSameSubscriber(subscriptionOf(otherMulti)));
}

class Both : public Subscriber, public MultiSubscriber {
 public:
  Both() : Subscriber(SubscriptionMode::NewValues, "t", "u"), MultiSubscriber("t:u") {}
};

TEST(Subscription, IsNeverTheSameAcrossTheTwoKinds) {
  const auto both = std::make_shared<Both>();
  const Subscription<Subscriber> single(both);
  const Subscription<MultiSubscriber> multi(both);
  EXPECT_FALSE(single.isSameSubscriber(multi));
  EXPECT_FALSE(multi.isSameSubscriber(single));
}

TEST(Subscription, IsNeverTheSameOnceTheSubscriberHasGone) {
  auto gone = subscriber();
  const Subscription<Subscriber> first(gone);
  const Subscription<Subscriber> second(gone);
  gone.reset();
  EXPECT_FALSE(first.isSameSubscriber(second));
  EXPECT_FALSE(first.isSameSubscriber(first));
}

TEST(Subscription, IsNotTheSameAsASuccessorAtTheSameAddress) {
  alignas(Subscriber) unsigned char room[sizeof(Subscriber)];
  const auto destroy = [](Subscriber* placed) { placed->~Subscriber(); };
  std::shared_ptr<Subscriber> placed(new (room) Subscriber(SubscriptionMode::Once, "t", "u"),
                                     destroy);
  const Subscription<Subscriber> before(placed);
  placed.reset();
  placed.reset(new (room) Subscriber(SubscriptionMode::Once, "t", "u"), destroy);
  const Subscription<Subscriber> after(placed);
  EXPECT_FALSE(before.isSameSubscriber(after));
  EXPECT_FALSE(after.isSameSubscriber(before));
}

TEST(Subscription, OfASubscriberMatchesItsExactKey) {
  const auto alive = subscriber();
  const Subscription<Subscriber> subscription(alive);
  EXPECT_TRUE(subscription.isFor("t:u"));
  EXPECT_FALSE(subscription.isFor("t:uv"));
  EXPECT_FALSE(subscription.isFor("t:"));
  EXPECT_FALSE(subscription.isFor("T:u"));
  EXPECT_FALSE(subscription.isFor(""));
  EXPECT_FALSE(subscription.isFor(std::string("t:u\0", 4)));
}

TEST(Subscription, OfASubscriberComparesBytesBehindANul) {
  const auto alive = subscriber(SubscriptionMode::AllValues, "t", std::string("a\0b", 3));
  const Subscription<Subscriber> subscription(alive);
  EXPECT_TRUE(subscription.isFor(std::string("t:a\0b", 5)));
  EXPECT_FALSE(subscription.isFor(std::string("t:a\0c", 5)));
  EXPECT_FALSE(subscription.isFor("t:a"));
}

TEST(Subscription, OfAMultiSubscriberMatchesEveryKeyThatBeginsWithThePrefix) {
  EXPECT_TRUE(prefixMatches("temp", "temp:x"));
  EXPECT_TRUE(prefixMatches("temp", "temperature:y"));
  EXPECT_TRUE(prefixMatches("temp:a", "temp:a"));
  EXPECT_TRUE(prefixMatches("temp:a", "temp:ab"));
  EXPECT_TRUE(prefixMatches("t:", "t:anything"));
  EXPECT_TRUE(prefixMatches("t:", "t:"));
  EXPECT_FALSE(prefixMatches("temp", "tem"));
  EXPECT_FALSE(prefixMatches("temp", "atemp:x"));
  EXPECT_FALSE(prefixMatches("temp:a", "temp:b"));
  EXPECT_FALSE(prefixMatches("t:", "tt:x"));
}

TEST(Subscription, OfAnEmptyPrefixMatchesEverything) {
  EXPECT_TRUE(prefixMatches("", "temp:x"));
  EXPECT_TRUE(prefixMatches("", ""));
  EXPECT_TRUE(prefixMatches("", std::string("\0", 1)));
}

TEST(Subscription, ComparesPrefixesUpToANulByteButCountsTheirWholeLength) {
  const std::string prefix("a\0bc", 4);
  EXPECT_TRUE(prefixMatches(prefix, std::string("a\0bc", 4)));
  EXPECT_TRUE(prefixMatches(prefix, std::string("a\0xyz", 5)));
  EXPECT_FALSE(prefixMatches(prefix, std::string("a\0x", 3)));
  EXPECT_FALSE(prefixMatches(prefix, "abcd"));
  EXPECT_FALSE(prefixMatches("abc", std::string("ab\0c", 4)));
  EXPECT_TRUE(prefixMatches("ab", std::string("ab\0c", 4)));
}

TEST(Subscription, HandsAValueOnAsItIs) {
  class Expecting : public Subscriber {
   public:
    Expecting() : Subscriber(SubscriptionMode::AllValues, "t", "u") {}
    const void* data = nullptr;
    std::size_t size = 0;

   protected:
    void onValue(const void* valueData, std::size_t valueSize) override {
      data = valueData;
      size = valueSize;
    }
  };
  const auto alive = std::make_shared<Expecting>();
  const char value[] = "a\0b";
  Subscription<Subscriber>(alive).deliverValue("t:u", value, 3);
  EXPECT_EQ(alive->data, value);
  EXPECT_EQ(alive->size, 3U);
}

TEST(Subscription, TellsOfADeletion) {
  const auto alive = subscriber();
  subscriptionOf(alive).deliverDeletion("t:u");
  EXPECT_EQ(alive->journal.lines(), Lines{"deleted"});
}

TEST(Subscription, SplitsTheKeyForAMultiSubscriberAtTheFirstColon) {
  const auto multi = std::make_shared<RecordingMultiSubscriber>("");
  const Subscription<MultiSubscriber> subscription(multi);
  for (const char* key : {"a:b", "a:b:c", ":b", "a:", ":", "a", ""}) {
    subscription.deliverValue(key, "1", 1);
    subscription.deliverDeletion(key);
  }
  EXPECT_EQ(multi->journal.lines(),
            (Lines{"value a b 1", "deleted a b", "value a b:c 1", "deleted a b:c", "value  b 1",
                   "deleted  b", "value a  1", "deleted a ", "value   1", "deleted  ", "value a  1",
                   "deleted a ", "value   1", "deleted  "}));
}

TEST(Subscription, DoesNothingOnceTheSubscriberHasGone) {
  auto gone = subscriber();
  auto goneMulti = std::make_shared<RecordingMultiSubscriber>("");
  const Subscription<Subscriber> single(gone);
  const Subscription<MultiSubscriber> multi(goneMulti);
  EXPECT_FALSE(single.isExpired());
  EXPECT_FALSE(multi.isExpired());
  gone.reset();
  goneMulti.reset();
  for (const SubscriptionBase* subscription : {static_cast<const SubscriptionBase*>(&single),
                                               static_cast<const SubscriptionBase*>(&multi)}) {
    EXPECT_TRUE(subscription->isExpired());
    subscription->deliverValue("t:u", "1", 1);
    subscription->deliverDeletion("t:u");
  }
}

TEST(Subscription, DoesNotKeepTheSubscriberAlive) {
  const auto alive = subscriber();
  const Subscription<Subscriber> subscription(alive);
  EXPECT_EQ(alive.use_count(), 1);
}

TEST(Subscription, KeepsTheSubscriberAliveDuringItsCallback) {
  class LettingGo : public Subscriber {
   public:
    explicit LettingGo(std::shared_ptr<LettingGo>& last, bool& gone)
        : Subscriber(SubscriptionMode::AllValues, "t", "u"), last_(last), gone_(gone) {}
    ~LettingGo() override { gone_ = true; }

   protected:
    void onValue(const void* /*data*/, std::size_t /*size*/) override { letGo(); }
    void onDeletion() override { letGo(); }

   private:
    void letGo() {
      last_.reset();
      EXPECT_FALSE(gone_);
    }
    std::shared_ptr<LettingGo>& last_;
    bool& gone_;
  };
  for (const bool deletion : {false, true}) {
    bool gone = false;
    std::shared_ptr<LettingGo> last;
    last = std::make_shared<LettingGo>(last, gone);
    const Subscription<Subscriber> subscription(last);
    if (deletion) {
      subscription.deliverDeletion("t:u");
    } else {
      subscription.deliverValue("t:u", "1", 1);
    }
    EXPECT_TRUE(gone);
  }
}

// Whoever compares must never be the last owner: the destructor would run on its thread.
TEST(Subscription, NeverOwnsTheSubscriberWhileComparing) {
  class Noting : public Subscriber {
   public:
    explicit Noting(std::atomic<std::thread::id>& destroyer)
        : Subscriber(SubscriptionMode::AllValues, "t", "u"), destroyer_(destroyer) {}
    ~Noting() override { destroyer_ = std::this_thread::get_id(); }

   private:
    std::atomic<std::thread::id>& destroyer_;
  };
  std::atomic<std::thread::id> destroyer{};
  for (int round = 0; round < 100; ++round) {
    auto last = std::make_shared<Noting>(destroyer);
    const Subscription<Subscriber> subscription(last);
    const Subscription<Subscriber> like(last);
    std::atomic<bool> comparing{false};
    std::thread comparer([&] {
      while (!subscription.isExpired()) {
        subscription.isSameSubscriber(like);
        comparing = true;
      }
    });
    while (!comparing) std::this_thread::yield();
    last.reset();
    comparer.join();
    ASSERT_EQ(destroyer, std::this_thread::get_id()) << "round " << round;
  }
}

}  // namespace
}  // namespace tessel
