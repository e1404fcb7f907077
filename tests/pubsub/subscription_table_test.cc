#include "pubsub/subscription_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "messages/value_notification.h"
#include "support/deadline.h"
#include "support/raw_broker.h"

namespace tessel {
namespace {

using test::eventually;
using test::Frames;
using test::RawPeer;
using test::sortedFrames;
using test::subscribed;
using test::uniqueInproc;
using test::unsubscribed;
using test::valueMessage;
using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;

using Entry = SubscriptionTable::Entry;

std::shared_ptr<Subscriber> subscriber(const std::string& topic) {
  return std::make_shared<Subscriber>(SubscriptionMode::AllValues, topic, "u");
}
Entry entryOf(const std::shared_ptr<Subscriber>& subscriber) {
  return std::make_shared<Subscription<Subscriber>>(subscriber);
}
Entry entryOf(const std::shared_ptr<MultiSubscriber>& subscriber) {
  return std::make_shared<Subscription<MultiSubscriber>>(subscriber);
}

// A table whose socket is connected to a bare XPUB, which sees each subscription.
class SubscriptionTableTest : public ::testing::Test {
 protected:
  SubscriptionTableTest() {
    broker.set(ZMQ_XPUB_VERBOSE, 1);
    broker.bind(endpoint);
    table.socket().connect(endpoint);
  }

  std::vector<Entry> matches(const std::string& key) {
    std::vector<Entry> visited;
    table.visitMatches(key, [&](const Entry& entry) {
      visited.push_back(entry);
      return true;
    });
    return visited;
  }
  // What was sent so far has been read: the subscription made now comes next.
  void expectNothingMoreOnTheWire() {
    const std::string fence = "fence" + std::to_string(fences++);
    table.socket().setOption(ZMQ_SUBSCRIBE, fence);
    EXPECT_EQ(broker.receive(), subscribed(fence));
  }

  const std::string endpoint = uniqueInproc();
  RawPeer broker{ZMQ_XPUB};
  SubscriptionTable table;
  int fences = 0;
};

TEST_F(SubscriptionTableTest, SubscribesEachEntryOnItsOwn) {
  const auto one = subscriber("one");
  const auto multi = std::make_shared<MultiSubscriber>("tw");
  table.add(entryOf(one));
  table.add(entryOf(one));
  table.add(entryOf(multi));
  EXPECT_EQ(table.size(), 3U);
  EXPECT_EQ(broker.receive(), subscribed("one:u"));
  EXPECT_EQ(broker.receive(), subscribed("one:u"));
  EXPECT_EQ(broker.receive(), subscribed("tw"));
  expectNothingMoreOnTheWire();
}

TEST_F(SubscriptionTableTest, RemovesOneEntryOfTheSameSubscriber) {
  const auto one = subscriber("t");
  const auto other = subscriber("t");
  const Entry first = entryOf(one);
  const Entry second = entryOf(one);
  const Entry others = entryOf(other);
  table.add(others);
  table.add(first);
  table.add(second);
  table.removeOne(*entryOf(one));
  EXPECT_EQ(table.size(), 2U);
  EXPECT_THAT(matches("t:u"), ::testing::Contains(others));
  table.removeOne(*entryOf(one));
  EXPECT_THAT(matches("t:u"), UnorderedElementsAre(others));
  table.removeOne(*entryOf(one));  // none left
  EXPECT_EQ(table.size(), 1U);
  table.removeOne(*entryOf(other));
  EXPECT_EQ(table.size(), 0U);
  EXPECT_EQ(sortedFrames(broker, 3).size(), 3U);
  // ZeroMQ passes on the last of equal ones.
  EXPECT_EQ(broker.receive(), unsubscribed("t:u"));
  expectNothingMoreOnTheWire();
}

TEST_F(SubscriptionTableTest, IgnoresTheRemovalOfWhatIsNotThere) {
  const auto one = subscriber("t");
  const auto multi = std::make_shared<MultiSubscriber>("t:u");
  table.removeOne(*entryOf(one));
  table.add(entryOf(one));
  table.removeOne(*entryOf(multi));
  table.removeOne(*entryOf(subscriber("t")));
  table.removeOne(*entryOf(subscriber("other")));
  EXPECT_EQ(table.size(), 1U);
  EXPECT_EQ(broker.receive(), subscribed("t:u"));
  expectNothingMoreOnTheWire();
}

TEST_F(SubscriptionTableTest, RemovesPrefixesThatDifferBehindANulByteEachForItself) {
  const auto one = std::make_shared<MultiSubscriber>(std::string("a\0b", 3));
  const auto other = std::make_shared<MultiSubscriber>(std::string("a\0c", 3));
  const Entry oneEntry = entryOf(one);
  const Entry otherEntry = entryOf(other);
  table.add(oneEntry);
  table.add(otherEntry);
  EXPECT_THAT(matches(std::string("a\0b", 3)), UnorderedElementsAre(oneEntry, otherEntry));
  table.removeOne(*entryOf(other));
  EXPECT_THAT(matches(std::string("a\0b", 3)), UnorderedElementsAre(oneEntry));
  table.removeOne(*entryOf(one));
  EXPECT_THAT(matches(std::string("a\0b", 3)), UnorderedElementsAre());
}

TEST_F(SubscriptionTableTest, RemovesAndUnsubscribesThoseWhoHaveGone) {
  const auto staying = subscriber("t");
  auto going = subscriber("gone");
  auto goingMulti = std::make_shared<MultiSubscriber>("prefix");
  table.add(entryOf(going));
  table.add(entryOf(staying));
  table.add(entryOf(goingMulti));
  sortedFrames(broker, 3);
  table.removeExpired();
  EXPECT_EQ(table.size(), 3U);
  expectNothingMoreOnTheWire();
  going.reset();
  goingMulti.reset();
  table.removeExpired();
  EXPECT_EQ(table.size(), 1U);
  EXPECT_EQ(sortedFrames(broker, 2),
            (Frames{unsubscribed("gone:u").front(), unsubscribed("prefix").front()}));
  expectNothingMoreOnTheWire();
}

// Otherwise it would be taken for a new value, and keep the cached one from whoever came later.
TEST_F(SubscriptionTableTest, DropsWhatHasComeForThoseWhoAreGoneBeforeOthersSubscribe) {
  const auto gone = subscriber("t");
  const auto next = subscriber("t");
  table.add(entryOf(gone));
  EXPECT_EQ(broker.receive(), subscribed("t:u"));
  broker.send(valueMessage("t:u", "stale"));
  broker.send(valueMessage("t:u", "stale, too"));
  const auto holdsOne = [&] {
    int events = 0;
    std::size_t size = sizeof events;
    zmq_getsockopt(table.socket().handle(), ZMQ_EVENTS, &events, &size);
    return (events & ZMQ_POLLIN) != 0;
  };
  ASSERT_TRUE(eventually(holdsOne));
  table.removeOne(*entryOf(gone));
  EXPECT_EQ(broker.receive(), unsubscribed("t:u"));
  EXPECT_TRUE(table.empty());
  table.add(entryOf(next));
  EXPECT_FALSE(table.empty());
  EXPECT_EQ(broker.receive(), subscribed("t:u"));
  broker.send(valueMessage("t:u", "new"));
  ReceivedNotification received;
  ASSERT_TRUE(receiveNotification(table.socket(), received, 0));
  EXPECT_EQ(std::string(static_cast<const char*>(received.value.data()), received.value.size()),
            "new");
}

TEST_F(SubscriptionTableTest, UnsubscribesAllKeepsTheLivingAndSubscribesThemAgain) {
  const auto staying = subscriber("t");
  const auto multi = std::make_shared<MultiSubscriber>("prefix");
  auto goingFirst = subscriber("first");
  auto goingLater = subscriber("later");
  for (const auto& each : {staying, staying, goingFirst, goingLater}) table.add(entryOf(each));
  table.add(entryOf(multi));
  sortedFrames(broker, 5);
  goingFirst.reset();
  table.unsubscribeAll();
  EXPECT_EQ(table.size(), 4U);
  EXPECT_EQ(sortedFrames(broker, 4),
            (Frames{unsubscribed("first:u").front(), unsubscribed("later:u").front(),
                    unsubscribed("prefix").front(), unsubscribed("t:u").front()}));
  expectNothingMoreOnTheWire();
  goingLater.reset();
  table.resubscribeAll();
  EXPECT_EQ(table.size(), 3U);
  EXPECT_EQ(
      sortedFrames(broker, 3),
      (Frames{subscribed("prefix").front(), subscribed("t:u").front(), subscribed("t:u").front()}));
  expectNothingMoreOnTheWire();
  EXPECT_EQ(matches("t:u").size(), 2U);
  EXPECT_EQ(matches("prefix:x").size(), 1U);
}

TEST_F(SubscriptionTableTest, ForgetsEveryEntryWhenCleared) {
  const auto one = subscriber("t");
  const auto multi = std::make_shared<MultiSubscriber>("");
  table.add(entryOf(one));
  table.add(entryOf(multi));
  table.unsubscribeAll();
  sortedFrames(broker, 4);
  table.clear();
  EXPECT_EQ(table.size(), 0U);
  EXPECT_THAT(matches("t:u"), UnorderedElementsAre());
  table.resubscribeAll();
  expectNothingMoreOnTheWire();
  const Entry again = entryOf(multi);
  table.add(again);
  EXPECT_THAT(matches("t:u"), UnorderedElementsAre(again));
}

TEST_F(SubscriptionTableTest, DropsAndUnsubscribesWhatAVisitSays) {
  const auto one = subscriber("t");
  const auto other = subscriber("t");
  const auto multi = std::make_shared<MultiSubscriber>("t:");
  const Entry dropped = entryOf(one);
  const Entry kept = entryOf(other);
  table.add(dropped);
  table.add(kept);
  table.add(entryOf(multi));
  sortedFrames(broker, 3);
  int visits = 0;
  table.visitMatches("t:u", [&](const Entry& entry) {
    ++visits;
    return entry == kept;
  });
  EXPECT_EQ(visits, 3);
  EXPECT_EQ(table.size(), 1U);
  EXPECT_THAT(matches("t:u"), UnorderedElementsAre(kept));
  EXPECT_EQ(broker.receive(), unsubscribed("t:"));  // of the others one is left
  expectNothingMoreOnTheWire();
}

TEST_F(SubscriptionTableTest, LeavesItToTheVisitorWhoHasGone) {
  auto gone = subscriber("t");
  auto goneMulti = std::make_shared<MultiSubscriber>("t");
  const Entry single = entryOf(gone);
  const Entry multi = entryOf(goneMulti);
  table.add(single);
  table.add(multi);
  gone.reset();
  goneMulti.reset();
  EXPECT_THAT(matches("t:u"), UnorderedElementsAre(single, multi));
  EXPECT_EQ(table.size(), 2U);
}

TEST_F(SubscriptionTableTest, HandsOverWhatItRemoves) {
  const auto one = subscriber("t");
  auto gone = subscriber("gone");
  auto lasting = std::make_shared<MultiSubscriber>("t");
  const Entry removed = entryOf(one);
  const Entry dropped = entryOf(one);
  const Entry expired = entryOf(gone);
  const Entry kept = entryOf(lasting);
  for (const Entry& entry : {removed, dropped, expired, kept}) table.add(entry);
  EXPECT_THAT(table.removeOne(*entryOf(one)), UnorderedElementsAre(removed));
  EXPECT_THAT(table.removeOne(*entryOf(subscriber("t"))), UnorderedElementsAre());
  EXPECT_THAT(table.visitMatches("t:u", [](const Entry& entry) { return entry->isPrefix(); }),
              UnorderedElementsAre(dropped));
  EXPECT_THAT(table.removeExpired(), UnorderedElementsAre());
  gone.reset();
  EXPECT_THAT(table.removeExpired(), UnorderedElementsAre(expired));
  EXPECT_THAT(table.unsubscribeAll(), UnorderedElementsAre());
  lasting.reset();
  EXPECT_THAT(table.resubscribeAll(), UnorderedElementsAre(kept));
}

// The index must find what a walk over all entries would.
TEST_F(SubscriptionTableTest, FindsWhatAWalkOverAllEntriesFinds) {
  std::mt19937 random(20240611);
  const auto pick = [&random](std::size_t below) { return std::size_t{random() % below}; };
  const auto text = [&] {
    static const std::string letters("ab:\0", 4);
    std::string made;
    for (std::size_t left = pick(5); left > 0; --left) made.push_back(letters[pick(4)]);
    return made;
  };
  std::vector<std::shared_ptr<Subscriber>> singles;
  std::vector<std::shared_ptr<MultiSubscriber>> multis;
  std::vector<Entry> all;
  const auto addNew = [&] {
    if (pick(2) == 0) {
      singles.push_back(std::make_shared<Subscriber>(SubscriptionMode::NewValues, text(), text()));
      all.push_back(entryOf(singles.back()));
    } else {
      multis.push_back(std::make_shared<MultiSubscriber>(text()));
      all.push_back(entryOf(multis.back()));
    }
    table.add(all.back());
  };
  const auto removeSome = [&] {
    if (all.empty()) return;
    const auto doomed = all.begin() + static_cast<std::ptrdiff_t>(pick(all.size()));
    table.removeOne(**doomed);
    all.erase(doomed);
  };
  const auto keepSome = [&](const std::string& key) {
    const std::size_t keep = pick(3);
    table.visitMatches(key, [&](const Entry& entry) {
      if (keep != 0) return true;
      all.erase(std::find(all.begin(), all.end(), entry));
      return false;
    });
  };
  const auto letOneGo = [&] {
    if (multis.empty() || singles.empty()) return;
    multis.erase(multis.begin() + static_cast<std::ptrdiff_t>(pick(multis.size())));
    singles.erase(singles.begin() + static_cast<std::ptrdiff_t>(pick(singles.size())));
    table.removeExpired();
    all.erase(std::remove_if(all.begin(), all.end(),
                             [](const Entry& entry) { return entry->isExpired(); }),
              all.end());
  };
  for (int round = 0; round < 5000; ++round) {
    const std::size_t what = pick(20);
    if (what < 11) addNew();
    if (what >= 11 && what < 18) removeSome();
    if (what == 18) keepSome(text());
    if (what == 19) letOneGo();
    const std::string key = text();
    std::vector<Entry> expected;
    for (const Entry& entry : all) {
      if (entry->isFor(key)) expected.push_back(entry);
    }
    ASSERT_THAT(matches(key), UnorderedElementsAreArray(expected)) << "round " << round;
    ASSERT_EQ(table.size(), all.size()) << "round " << round;
  }
}

}  // namespace
}  // namespace tessel
