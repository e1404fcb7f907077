#include <gtest/gtest.h>
#include <zmq.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "pubsub/dispatcher_fixture.h"
#include "support/calling_allocator.h"
#include "support/subscribers.h"

namespace tessel {
namespace {

using namespace test;

class DispatcherDelivery : public DispatcherTest {};

std::shared_ptr<CallingSubscriber> calling(SubscriptionMode mode, const std::string& topic,
                                           CallingSubscriber::Call call) {
  return std::make_shared<CallingSubscriber>(mode, topic, std::move(call));
}

// Where threads meet: passes when `count` of them are there at once.
class MeetingPoint {
 public:
  explicit MeetingPoint(int count) : missing_(count) {}
  bool meet() {
    std::unique_lock<std::mutex> lock(mutex_);
    --missing_;
    changed_.notify_all();
    return changed_.wait_for(lock, kPatience, [this] { return missing_ <= 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int missing_;
};

TEST_F(DispatcherDelivery, CallsEveryKindWithLiveValuesAndDeletions) {
  const auto once = recorder(SubscriptionMode::Once, "t", "a");
  const auto fresh = recorder(SubscriptionMode::NewValues, "t", "a");
  const auto all = recorder(SubscriptionMode::AllValues, "t", "a");
  const auto multi = std::make_shared<RecordingMultiSubscriber>("t");
  start();
  subscribe(broker.cache, once, "t:a");
  subscribe(broker.updates, fresh, "t:a");
  subscribe(broker.cache, all, "t:a");
  subscribe(broker.updates, multi, "t");
  for (RawPeer* socket : {&broker.updates, &broker.cache}) {
    socket->send(valueMessage("t:a", "1"));
    socket->send(valueMessage("t:a", "", kDeletedFlag));
    socket->send(valueMessage("t:a", "2"));
  }
  settle();
  EXPECT_EQ(once->journal.lines(), Lines{"value 1"});
  EXPECT_EQ(fresh->journal.lines(), (Lines{"value 1", "deleted", "value 2"}));
  EXPECT_EQ(all->journal.lines(), (Lines{"value 1", "deleted", "value 2"}));
  EXPECT_EQ(multi->journal.lines(), (Lines{"value t a 1", "deleted t a", "value t a 2"}));
}

TEST_F(DispatcherDelivery, StaysOnTheSideOfTheSocketTheValueCameFrom) {
  const auto fresh = recorder(SubscriptionMode::NewValues, "t", "");
  const auto all = recorder(SubscriptionMode::AllValues, "t", "");
  start();
  subscribe(broker.updates, fresh, "t:default");
  subscribe(broker.cache, all, "t:default");
  broker.updates.send(valueMessage("t:default", "updates"));
  settle();
  EXPECT_EQ(fresh->journal.lines(), Lines{"value updates"});
  EXPECT_EQ(all->journal.lines(), Lines{});
  broker.cache.send(valueMessage("t:default", "cache"));
  settle();
  EXPECT_EQ(fresh->journal.lines(), Lines{"value updates"});
  EXPECT_EQ(all->journal.lines(), Lines{"value cache"});
}

TEST_F(DispatcherDelivery, KeepsTheOrderOfEachSocket) {
  const auto fresh = recorder(SubscriptionMode::NewValues, "t", "");
  const auto all = recorder(SubscriptionMode::AllValues, "t", "");
  start();
  subscribe(broker.updates, fresh, "t:default");
  subscribe(broker.cache, all, "t:default");
  Lines expected;
  for (int i = 0; i < 300; ++i) {
    broker.updates.send(valueMessage("t:default", std::to_string(i)));
    broker.cache.send(valueMessage("t:default", std::to_string(i)));
    expected.push_back("value " + std::to_string(i));
  }
  settle();
  EXPECT_EQ(fresh->journal.lines(), expected);
  EXPECT_EQ(all->journal.lines(), expected);
}

// A subscriber's key is exact, though ZeroMQ subscribes to everything that begins with it.
TEST_F(DispatcherDelivery, ComparesTheKeyOfASubscriberExactly) {
  for (const auto& [mode, socket] : {std::pair{SubscriptionMode::AllValues, &broker.cache},
                                     std::pair{SubscriptionMode::NewValues, &broker.updates}}) {
    if (mode == SubscriptionMode::AllValues) start();
    const auto subscriber = recorder(mode, "t", "a");
    subscribe(*socket, subscriber, "t:a");
    socket->send(valueMessage("t:ab", "1"));
    socket->send(valueMessage("t:a:", "2"));
    socket->send(valueMessage(bytes("t:a\0", 4), "3"));
    socket->send(valueMessage("t:a", "4"));
    settle();
    EXPECT_EQ(subscriber->journal.lines(), Lines{"value 4"});
    dispatcher.unregisterSubscriber(subscriber);
    EXPECT_EQ(socket->receive(), unsubscribed("t:a"));
  }
}

TEST_F(DispatcherDelivery, GivesASubscriberWithoutATagTheDefaultOne) {
  const auto subscriber = recorder(SubscriptionMode::AllValues, "t", "");
  start();
  subscribe(broker.cache, subscriber, "t:default");
  broker.cache.send(valueMessage("t:default", "1"));
  settle();
  EXPECT_EQ(subscriber->journal.lines(), Lines{"value 1"});
}

// No publisher's key has two colons, but nothing is refused.
TEST_F(DispatcherDelivery, AcceptsASubscriberWithAColonInItsTopic) {
  const auto subscriber = recorder(SubscriptionMode::AllValues, "a:b", "c");
  start();
  subscribe(broker.cache, subscriber, "a:b:c");
  broker.cache.send(valueMessage("a:b", "1"));
  broker.cache.send(valueMessage("a:c", "2"));
  broker.cache.send(valueMessage("a:b:c", "3"));
  settle();
  EXPECT_EQ(subscriber->journal.lines(), Lines{"value 3"});
}

TEST_F(DispatcherDelivery, GivesAMultiSubscriberEveryKeyWithItsPrefix) {
  const auto part = std::make_shared<RecordingMultiSubscriber>("temp");
  const auto tagged = std::make_shared<RecordingMultiSubscriber>("temp", "a");
  const auto topic = std::make_shared<RecordingMultiSubscriber>("temp", "");
  const auto everything = std::make_shared<RecordingMultiSubscriber>("");
  start();
  subscribe(broker.updates, part, "temp");
  subscribe(broker.updates, tagged, "temp:a");
  subscribe(broker.updates, topic, "temp:");
  subscribe(broker.updates, everything, "");
  for (const char* key :
       {"temp:x", "temperature:y", "temp:a", "temp:ab", "tem:p", "a:b:c", "bare", ""}) {
    broker.updates.send(valueMessage(key, "1"));
  }
  broker.updates.send(valueMessage("temperature:y", "", kDeletedFlag));
  settle();
  EXPECT_EQ(part->journal.lines(),
            (Lines{"value temp x 1", "value temperature y 1", "value temp a 1", "value temp ab 1",
                   "deleted temperature y"}));
  EXPECT_EQ(tagged->journal.lines(), (Lines{"value temp a 1", "value temp ab 1"}));
  EXPECT_EQ(topic->journal.lines(), (Lines{"value temp x 1", "value temp a 1", "value temp ab 1"}));
  EXPECT_EQ(everything->journal.lines(),
            (Lines{"value temp x 1", "value temperature y 1", "value temp a 1", "value temp ab 1",
                   "value tem p 1", "value a b:c 1", "value bare  1", "value   1",
                   "deleted temperature y", "value ~ default ."}));
}

TEST_F(DispatcherDelivery, ComparesPrefixesUpToANulByteButCountsTheirWholeLength) {
  const auto multi = std::make_shared<RecordingMultiSubscriber>(bytes("a\0bc", 4));
  const auto everything = std::make_shared<RecordingMultiSubscriber>("");
  start();
  subscribe(broker.updates, multi, bytes("a\0bc", 4));
  subscribe(broker.updates, everything, "");
  broker.updates.send(valueMessage(bytes("a\0bc", 4), "1"));
  broker.updates.send(valueMessage(bytes("a\0xyz", 5), "2"));
  broker.updates.send(valueMessage(bytes("a\0b", 3), "3"));
  broker.updates.send(valueMessage("abc:d", "4"));
  settle();
  EXPECT_EQ(multi->journal.lines(),
            (Lines{"value " + bytes("a\0bc", 4) + "  1", "value " + bytes("a\0xyz", 5) + "  2"}));
}

TEST_F(DispatcherDelivery, OfOneValueReachesAllWhoseSubscriptionsMatch) {
  std::vector<std::shared_ptr<RecordingSubscriber>> subscribers;
  start();
  for (int i = 0; i < 50; ++i) {
    subscribers.push_back(recorder(SubscriptionMode::AllValues, "t", ""));
    subscribe(broker.cache, subscribers.back(), "t:default");
  }
  broker.cache.send(valueMessage("t:default", "1"));
  broker.cache.send(valueMessage("t:default", "", kDeletedFlag));
  settle();
  for (const auto& subscriber : subscribers) {
    EXPECT_EQ(subscriber->journal.lines(), (Lines{"value 1", "deleted"}));
  }
}

// A broker answers each newcomer by a replay to everybody who subscribed to the key.
TEST_F(DispatcherDelivery, OfAReplayReachesOnlyThoseWhoHaveHadNothing) {
  const auto first = recorder(SubscriptionMode::AllValues, "t", "");
  const auto second = recorder(SubscriptionMode::AllValues, "t", "");
  const auto once = recorder(SubscriptionMode::Once, "t", "");
  start();
  subscribe(broker.cache, first, "t:default");
  broker.cache.send(valueMessage("t:default", "1", kReplayFlag));
  subscribe(broker.cache, second, "t:default");
  broker.cache.send(valueMessage("t:default", "1", kReplayFlag));
  subscribe(broker.cache, once, "t:default");
  broker.cache.send(valueMessage("t:default", "1", kReplayFlag));
  settle();
  EXPECT_EQ(first->journal.lines(), Lines{"value 1"});
  EXPECT_EQ(second->journal.lines(), Lines{"value 1"});
  EXPECT_EQ(once->journal.lines(), Lines{"value 1"});
}

TEST_F(DispatcherDelivery, OfAReplayIsSkippedAfterALiveValue) {
  const auto subscriber = recorder(SubscriptionMode::AllValues, "t", "");
  start();
  subscribe(broker.cache, subscriber, "t:default");
  broker.cache.send(valueMessage("t:default", "1"));
  broker.cache.send(valueMessage("t:default", "1", kReplayFlag));
  broker.cache.send(valueMessage("t:default", "2"));
  broker.cache.send(valueMessage("t:default", "2", kReplayFlag));
  settle();
  EXPECT_EQ(subscriber->journal.lines(), (Lines{"value 1", "value 2"}));
}

TEST_F(DispatcherDelivery, OfAReplayIsSkippedAfterADeletion) {
  const auto subscriber = recorder(SubscriptionMode::AllValues, "t", "");
  start();
  subscribe(broker.cache, subscriber, "t:default");
  broker.cache.send(valueMessage("t:default", "", kDeletedFlag));
  broker.cache.send(valueMessage("t:default", "1", kReplayFlag));
  settle();
  EXPECT_EQ(subscriber->journal.lines(), Lines{"deleted"});
}

TEST_F(DispatcherDelivery, OfAReplayDoesNotReachNewValues) {
  const auto fresh = recorder(SubscriptionMode::NewValues, "t", "");
  const auto multi = std::make_shared<RecordingMultiSubscriber>("t");
  start();
  subscribe(broker.updates, fresh, "t:default");
  subscribe(broker.updates, multi, "t");
  broker.updates.send(valueMessage("t:default", "1", kReplayFlag));
  broker.updates.send(valueMessage("t:default", "2"));
  settle();
  EXPECT_EQ(fresh->journal.lines(), Lines{"value 2"});
  EXPECT_EQ(multi->journal.lines(), Lines{"value t default 2"});
}

TEST_F(DispatcherDelivery, OfAReplayIsDecidedForEachRegistrationOnItsOwn) {
  const auto subscriber = recorder(SubscriptionMode::AllValues, "t", "");
  start();
  subscribe(broker.cache, subscriber, "t:default");
  broker.cache.send(valueMessage("t:default", "1", kReplayFlag));
  settle();
  subscribe(broker.cache, subscriber, "t:default");
  broker.cache.send(valueMessage("t:default", "2", kReplayFlag));
  settle();
  EXPECT_EQ(subscriber->journal.lines(), (Lines{"value 1", "value 2"}));
}

TEST_F(DispatcherDelivery, OfAReplayStaysSkippedAfterARestart) {
  const auto had = recorder(SubscriptionMode::AllValues, "t", "");
  const auto hadNothing = recorder(SubscriptionMode::AllValues, "u", "");
  start();
  subscribe(broker.cache, had, "t:default");
  subscribe(broker.cache, hadNothing, "u:default");
  broker.cache.send(valueMessage("t:default", "1"));
  settle();
  dispatcher.stop();
  dispatcher.start();
  EXPECT_EQ(sortedFrames(broker.cache, 6).size(), 6U);
  EXPECT_EQ(sortedFrames(broker.updates, 2).size(), 2U);
  broker.cache.send(valueMessage("t:default", "2", kReplayFlag));
  broker.cache.send(valueMessage("u:default", "3", kReplayFlag));
  settle();
  EXPECT_EQ(had->journal.lines(), Lines{"value 1"});
  EXPECT_EQ(hadNothing->journal.lines(), Lines{"value 3"});
}

TEST_F(DispatcherDelivery, OfADeletionIsNeverAValue) {
  const auto all = recorder(SubscriptionMode::AllValues, "t", "");
  const auto fresh = recorder(SubscriptionMode::NewValues, "t", "");
  const auto once = recorder(SubscriptionMode::Once, "t", "");
  start();
  subscribe(broker.cache, all, "t:default");
  subscribe(broker.cache, once, "t:default");
  subscribe(broker.updates, fresh, "t:default");
  broker.cache.send(valueMessage("t:default", "has a value", kDeletedFlag));
  broker.updates.send(valueMessage("t:default", "has a value", kDeletedFlag));
  settle();
  EXPECT_EQ(all->journal.lines(), Lines{"deleted"});
  EXPECT_EQ(once->journal.lines(), Lines{"deleted"});
  EXPECT_EQ(fresh->journal.lines(), Lines{"deleted"});
}

TEST_F(DispatcherDelivery, OfAReplayedDeletionFollowsTheRuleOfReplays) {
  const auto had = recorder(SubscriptionMode::AllValues, "t", "");
  const auto hadNothing = recorder(SubscriptionMode::AllValues, "t", "");
  start();
  subscribe(broker.cache, had, "t:default");
  broker.cache.send(valueMessage("t:default", "1"));
  settle();
  subscribe(broker.cache, hadNothing, "t:default");
  broker.cache.send(valueMessage("t:default", "2", kReplayFlag | kDeletedFlag));
  settle();
  EXPECT_EQ(had->journal.lines(), Lines{"value 1"});
  EXPECT_EQ(hadNothing->journal.lines(), Lines{"deleted"});
}

TEST_F(DispatcherDelivery, LooksAtTwoFlagsOnly) {
  const auto subscriber = recorder(SubscriptionMode::AllValues, "t", "");
  start();
  subscribe(broker.cache, subscriber, "t:default");
  broker.cache.send(valueMessage("t:default", "1", 4));
  broker.cache.send(valueMessage("t:default", "2", ~3ULL));
  broker.cache.send(valueMessage("t:default", "3", 5));
  broker.cache.send(valueMessage("t:default", "4", 1ULL << 63 | kDeletedFlag));
  settle();
  EXPECT_EQ(subscriber->journal.lines(), (Lines{"value 1", "value 2", "deleted"}));
}

TEST_F(DispatcherDelivery, OnceCallsOnceAndUnsubscribes) {
  start();
  struct Case {
    unsigned long long flags;
    const char* expected;
  };
  for (const Case& each :
       {Case{kReplayFlag, "value 1"}, Case{kLiveFlag, "value 1"}, Case{kDeletedFlag, "deleted"}}) {
    const auto once = recorder(SubscriptionMode::Once, "t", "");
    subscribe(broker.cache, once, "t:default");
    broker.cache.send(valueMessage("t:default", "1", each.flags));
    broker.cache.send(valueMessage("t:default", "2"));
    broker.cache.send(valueMessage("t:default", "3", kReplayFlag));
    EXPECT_EQ(broker.cache.receive(), unsubscribed("t:default"));
    settle();
    EXPECT_EQ(once->journal.lines(), Lines{each.expected});
    dispatcher.unregisterSubscriber(once);  // nothing is left to take back
    expectNothingMoreOnTheWire();
  }
}

TEST_F(DispatcherDelivery, OnceServesEveryEntryOfTheKeyWithOneValue) {
  const auto one = recorder(SubscriptionMode::Once, "t", "");
  const auto other = recorder(SubscriptionMode::Once, "t", "");
  const auto staying = recorder(SubscriptionMode::AllValues, "t", "");
  start();
  for (const auto& each : {one, other, staying, one}) {
    subscribe(broker.cache, each, "t:default");
  }
  broker.cache.send(valueMessage("t:default", "1"));
  broker.cache.send(valueMessage("t:default", "2"));
  settle();
  EXPECT_EQ(one->journal.lines(), (Lines{"value 1", "value 1"}));
  EXPECT_EQ(other->journal.lines(), Lines{"value 1"});
  EXPECT_EQ(staying->journal.lines(), (Lines{"value 1", "value 2"}));
  expectNothingMoreOnTheWire();  // the one that stays still holds the key
}

TEST_F(DispatcherDelivery, OnceCanBeRegisteredAgain) {
  const auto once = recorder(SubscriptionMode::Once, "t", "");
  start();
  for (int round = 1; round <= 3; ++round) {
    subscribe(broker.cache, once, "t:default");
    broker.cache.send(valueMessage("t:default", "1", kReplayFlag));
    EXPECT_EQ(broker.cache.receive(), unsubscribed("t:default"));
  }
  settle();
  EXPECT_EQ(once->journal.lines(), (Lines{"value 1", "value 1", "value 1"}));
}

TEST_F(DispatcherDelivery, HandsOverTheExactBytes) {
  const auto subscriber = recorder(SubscriptionMode::AllValues, "t", "");
  start();
  subscribe(broker.cache, subscriber, "t:default");
  std::string all;
  for (int byte = 0; byte < 256; ++byte) all.push_back(static_cast<char>(byte));
  Lines expected;
  for (const std::string& value : {std::string(), bytes("\0", 1), bytes("a\0b\0", 4), all,
                                   std::string(33, 'x'), std::string(100000, 'y')}) {
    broker.cache.send(valueMessage("t:default", value));
    expected.push_back("value " + value);
  }
  settle();
  EXPECT_EQ(subscriber->journal.lines(), expected);
}

TEST_F(DispatcherDelivery, OfAnEmptyValueIsAValue) {
  std::atomic<std::size_t> lastSize{99};
  const auto subscriber = calling(SubscriptionMode::AllValues, "t",
                                  [&](const void*, std::size_t size) { lastSize = size; });
  const auto counter = recorder(SubscriptionMode::AllValues, "t", "");
  start();
  subscribe(broker.cache, subscriber, "t:default");
  subscribe(broker.cache, counter, "t:default");
  broker.cache.send(valueMessage("t:default", ""));
  settle();
  EXPECT_EQ(lastSize, 0U);
  EXPECT_EQ(counter->journal.lines(), Lines{"value "});
}

// One received value serves all: nobody gets a copy.
TEST_F(DispatcherDelivery, SharesTheBytesOfALargeValue) {
  constexpr std::size_t kSize = 64 << 20;
  struct Seen {
    std::atomic<const void*> data{nullptr};
    std::atomic<std::size_t> size{0};
    std::atomic<int> first{-1};
    std::atomic<int> last{-1};
  };
  Seen seen[3];
  MeetingPoint together(3);  // at the same time, so that no address is used twice in a row
  std::vector<std::shared_ptr<Subscriber>> subscribers;
  start();
  for (Seen& each : seen) {
    subscribers.push_back(
        calling(SubscriptionMode::AllValues, "t", [&](const void* data, std::size_t size) {
          const auto* at = static_cast<const unsigned char*>(data);
          each.first = at[0];
          each.last = at[size - 1];
          each.data = data;
          each.size = size;
          EXPECT_TRUE(together.meet());
        }));
    subscribe(broker.cache, subscribers.back(), "t:default");
  }
  {
    std::string value(kSize, 'x');
    value.front() = 'a';
    value.back() = 'z';
    broker.cache.send(valueMessage("t:default", value));
  }
  settle();
  for (const Seen& each : seen) {
    EXPECT_EQ(each.size, kSize);
    EXPECT_EQ(each.first, 'a');
    EXPECT_EQ(each.last, 'z');
    EXPECT_EQ(each.data, seen[0].data);
  }
  EXPECT_NE(seen[0].data, nullptr);
}

// ZeroMQ counts who holds the bytes of a message that was made over a buffer.
TEST_F(DispatcherDelivery, LetsGoOfAValueWhenItsCallbacksHaveReturned) {
  static std::atomic<int> freed;
  freed = 0;
  const auto subscriber = recorder(SubscriptionMode::AllValues, "t", "");
  start();
  subscribe(broker.cache, subscriber, "t:default");
  std::string buffer(1000, 'x');
  zmq_msg_t value;
  ASSERT_EQ(zmq_msg_init_data(
                &value, buffer.data(), buffer.size(), [](void*, void*) { ++freed; }, nullptr),
            0);
  ASSERT_GE(zmq_send(broker.cache.handle(), "t:default", 9, ZMQ_SNDMORE), 0);
  ASSERT_GE(zmq_msg_send(&value, broker.cache.handle(), ZMQ_SNDMORE), 0);
  ASSERT_GE(zmq_send(broker.cache.handle(), word(0).data(), 8, 0), 0);
  EXPECT_TRUE(subscriber->journal.waitFor(1));
  EXPECT_TRUE(eventually([] { return freed == 1; }));
}

TEST_F(DispatcherDelivery, RunsTheCallbacksOfOneValueInParallel) {
  MeetingPoint together(4);
  std::atomic<int> met{0};
  std::vector<std::shared_ptr<Subscriber>> subscribers;
  start();
  for (int i = 0; i < 4; ++i) {
    subscribers.push_back(calling(SubscriptionMode::AllValues, "t",
                                  [&](const void*, std::size_t) { met += together.meet(); }));
    subscribe(broker.cache, subscribers.back(), "t:default");
  }
  broker.cache.send(valueMessage("t:default", "1"));
  settle();
  EXPECT_EQ(met, 4);
}

TEST_F(DispatcherDelivery, RunsTheCallbacksOfASubscriberRegisteredTwiceInParallel) {
  MeetingPoint together(2);
  std::atomic<int> met{0};
  const auto subscriber = calling(SubscriptionMode::NewValues, "t",
                                  [&](const void*, std::size_t) { met += together.meet(); });
  start();
  subscribe(broker.updates, subscriber, "t:default");
  subscribe(broker.updates, subscriber, "t:default");
  broker.updates.send(valueMessage("t:default", "1"));
  settle();
  EXPECT_EQ(met, 2);
}

TEST_F(DispatcherDelivery, RunsAsManyCallbacksAtOnceAsThereAreWorkersAndNoMore) {
  MeetingPoint rounds[] = {MeetingPoint(4), MeetingPoint(4), MeetingPoint(4)};
  std::atomic<int> begun{0};
  std::atomic<int> running{0};
  std::atomic<int> most{0};
  std::atomic<int> calls{0};
  std::vector<std::shared_ptr<Subscriber>> subscribers;
  start();
  for (int i = 0; i < 12; ++i) {
    subscribers.push_back(calling(SubscriptionMode::AllValues, "t", [&](const void*, std::size_t) {
      const int now = ++running;
      for (int seen = most; seen < now && !most.compare_exchange_weak(seen, now);) {
      }
      calls += rounds[begun++ / 4].meet();
      --running;
    }));
    subscribe(broker.cache, subscribers.back(), "t:default");
  }
  broker.cache.send(valueMessage("t:default", "1"));
  settle();
  EXPECT_EQ(calls, 12);
  EXPECT_EQ(most, 4);
}

// Callbacks of one value may overlap, those of different values never, whatever the sockets.
TEST_F(DispatcherDelivery, EndsWithOneValueBeforeTheNext) {
  constexpr int kRounds = 100;
  std::mutex mutex;
  std::condition_variable changed;
  std::multiset<std::string> begun;
  std::multiset<std::string> running;
  int overlaps = 0;
  const auto call = [&](const void* data, std::size_t size) {
    const std::string value(static_cast<const char*>(data), size);
    std::unique_lock<std::mutex> lock(mutex);
    begun.insert(value);
    running.insert(value);
    changed.notify_all();
    // None returns before all three have begun, so that others have the time to begin wrongly.
    EXPECT_TRUE(changed.wait_for(lock, kPatience, [&] { return begun.count(value) == 3; }));
    if (running.count(value) != running.size()) ++overlaps;
    running.erase(running.find(value));
  };
  std::vector<std::shared_ptr<Subscriber>> subscribers;
  start();
  for (int i = 0; i < 3; ++i) {
    subscribers.push_back(calling(SubscriptionMode::AllValues, "t", call));
    subscribe(broker.cache, subscribers.back(), "t:default");
    subscribers.push_back(calling(SubscriptionMode::NewValues, "t", call));
    subscribe(broker.updates, subscribers.back(), "t:default");
  }
  for (int i = 0; i < kRounds; ++i) {
    broker.cache.send(valueMessage("t:default", "cache " + std::to_string(i)));
    broker.updates.send(valueMessage("t:default", "updates " + std::to_string(i)));
  }
  settle();
  const std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ(begun.size(), kRounds * 6U);
  EXPECT_EQ(overlaps, 0);
}

TEST_F(DispatcherDelivery, TakesTheSocketsInTurn) {
  constexpr int kEach = 20;
  Journal journal;
  Gate gate;
  const auto fresh = calling(SubscriptionMode::NewValues, "t",
                             [&](const void*, std::size_t) { journal.add("u"); });
  const auto all = calling(SubscriptionMode::AllValues, "t",
                           [&](const void*, std::size_t) { journal.add("c"); });
  const auto waiting = calling(SubscriptionMode::AllValues, "wait", [&](const void*, std::size_t) {
    journal.add("waiting");
    gate.pass();
  });
  start();
  subscribe(broker.updates, fresh, "t:default");
  subscribe(broker.cache, all, "t:default");
  subscribe(broker.cache, waiting, "wait:default");
  broker.cache.send(valueMessage("wait:default", "1"));
  ASSERT_TRUE(journal.waitFor(1));
  for (int i = 0; i < kEach; ++i) broker.updates.send(valueMessage("t:default", "1"));
  for (int i = 0; i < kEach; ++i) broker.cache.send(valueMessage("t:default", "1"));
  gate.open();
  settle();
  const Lines lines = journal.lines();
  ASSERT_EQ(lines.size(), std::size_t{2 * kEach + 1});
  // One may be ahead, having been seen before those of the other socket were there.
  for (std::size_t i = 4; i + 4 < lines.size(); ++i) EXPECT_NE(lines[i], lines[i + 1]) << i;
}

TEST_F(DispatcherDelivery, HappensOnWorkerThreads) {
  constexpr int kWorkers = 4;
  std::mutex mutex;
  std::set<std::thread::id> threads;
  const auto call = [&](const void*, std::size_t) {
    const std::lock_guard<std::mutex> lock(mutex);
    threads.insert(std::this_thread::get_id());
  };
  std::vector<std::shared_ptr<Subscriber>> subscribers;
  std::thread::id registering;
  start();
  std::thread([&] {
    registering = std::this_thread::get_id();
    for (int i = 0; i < 8; ++i) {
      subscribers.push_back(calling(SubscriptionMode::AllValues, "t", call));
      subscribe(broker.cache, subscribers.back(), "t:default");
    }
    for (int i = 0; i < 50; ++i) broker.cache.send(valueMessage("t:default", "1"));
    settle();
  }).join();
  EXPECT_GE(threads.size(), 1U);
  EXPECT_LE(threads.size(), std::size_t{kWorkers});
  EXPECT_EQ(threads.count(registering), 0U);
  EXPECT_EQ(threads.count(std::this_thread::get_id()), 0U);
}

TEST_F(DispatcherDelivery, LetsCallbacksRegisterAndUnregister) {
  const auto newcomer = recorder(SubscriptionMode::AllValues, "new", "");
  const auto newMulti = std::make_shared<RecordingMultiSubscriber>("new");
  std::shared_ptr<CallingSubscriber> subscriber;
  std::atomic<int> calls{0};
  subscriber = calling(SubscriptionMode::AllValues, "t", [&](const void*, std::size_t) {
    ++calls;
    dispatcher.registerSubscriber(newcomer);
    dispatcher.registerSubscriber(newMulti);
    dispatcher.unregisterSubscriber(subscriber);
  });
  start();
  subscribe(broker.cache, subscriber, "t:default");
  broker.cache.send(valueMessage("t:default", "1"));
  EXPECT_EQ(broker.updates.receive(), subscribed("new"));
  EXPECT_EQ(sortedFrames(broker.cache, 2),
            (Frames{unsubscribed("t:default").front(), subscribed("new:default").front()}));
  broker.cache.send(valueMessage("t:default", "2"));
  broker.cache.send(valueMessage("new:default", "3"));
  broker.updates.send(valueMessage("new:default", "4"));
  settle();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(newcomer->journal.lines(), Lines{"value 3"});
  EXPECT_EQ(newMulti->journal.lines(), Lines{"value new default 4"});
  dispatcher.stop();  // before what the callbacks refer to goes
}

class SingleWorkerDelivery : public DispatcherTest {
 protected:
  SingleWorkerDelivery() : DispatcherTest(1) {}

  // Two subscribers of one message, of which the first to be called waits, which may be either, and
  // the other is destroyed meanwhile. Returns the one that was called.
  std::shared_ptr<CallingSubscriber> destroyOneWhileItsCallIsQueued(SubscriptionMode mode,
                                                                    RawPeer& socket,
                                                                    const Frames& message) {
    std::shared_ptr<CallingSubscriber> subscribers[2];
    start();
    for (int i = 0; i < 2; ++i) {
      subscribers[i] = calling(mode, "t", [&, i](const void*, std::size_t) {
        journal.add(std::to_string(i));
        gate.pass();
      });
      subscribe(socket, subscribers[i], "t:default");
    }
    socket.send(message);
    EXPECT_TRUE(journal.waitFor(1));
    const int called = journal.lines() == Lines{"0"} ? 0 : 1;
    subscribers[1 - called].reset();
    gate.open();
    settle();
    EXPECT_EQ(journal.lines(), Lines{std::to_string(called)});
    return subscribers[called];
  }

 private:
  Gate gate;
  Journal journal;
};

TEST_F(SingleWorkerDelivery, SkipsASubscriberDestroyedWhileItsCallIsQueued) {
  auto called = destroyOneWhileItsCallIsQueued(SubscriptionMode::AllValues, broker.cache,
                                               valueMessage("t:default", "1"));
  expectNothingMoreOnTheWire();  // it still holds the key
  called.reset();
  settle();
  const auto another = recorder(SubscriptionMode::NewValues, "another", "");
  subscribe(broker.updates, another, "another:default");
  EXPECT_EQ(broker.cache.receive(), unsubscribed("t:default"));
}

TEST_F(SingleWorkerDelivery, SkipsADeletionForASubscriberDestroyedWhileItIsQueued) {
  destroyOneWhileItsCallIsQueued(SubscriptionMode::NewValues, broker.updates,
                                 valueMessage("t:default", "", kDeletedFlag));
}

// Its callback is queued when it is taken back, and for a while nobody else knows of it.
TEST_F(SingleWorkerDelivery, ReachesASubscriberTakenBackWhileItsCallIsQueued) {
  const auto held = std::make_shared<HeldSubscriber>(SubscriptionMode::NewValues, "t", "");
  const auto multi = std::make_shared<RecordingMultiSubscriber>("t:d");
  start();
  subscribe(broker.updates, held, "t:default");
  subscribe(broker.updates, multi, "t:d");
  broker.updates.send(valueMessage("t:default", "1"));
  ASSERT_TRUE(held->journal.waitFor(1));
  dispatcher.unregisterSubscriber(multi);
  EXPECT_EQ(broker.updates.receive(), unsubscribed("t:d"));
  EXPECT_EQ(multi->journal.lines(), Lines{});
  held->gate.open();
  settle();
  EXPECT_EQ(multi->journal.lines().size(), 1U);
}

// Its callback is queued when the dispatcher finds that it has gone, and a worker will look at it.
TEST_F(SingleWorkerDelivery, KeepsWhatIsLeftOfASubscriberThatHasGoneWhileItsCallIsQueued) {
  std::vector<std::shared_ptr<HeldSubscriber>> staying;
  dispatcher.start();
  for (const SubscriptionMode mode : {SubscriptionMode::AllValues, SubscriptionMode::NewValues}) {
    RawPeer& socket = mode == SubscriptionMode::NewValues ? broker.updates : broker.cache;
    Journal freed;
    const std::function<void()> note = [&freed] { freed.add("freed"); };
    const auto held = std::make_shared<HeldSubscriber>(mode, "t", "");
    auto going = callingWhenFreed<RecordingSubscriber>(note, mode, "t", "");
    staying.push_back(held);
    subscribe(socket, held, "t:default");
    subscribe(socket, going, "t:default");
    socket.send(valueMessage("t:default", "1"));
    ASSERT_TRUE(held->journal.waitFor(1));
    going.reset();
    expectNothingMoreOnTheWire();  // makes the dispatcher look for who has gone
    expectNothingMoreOnTheWire();  // so it has looked
    EXPECT_EQ(freed.lines(), Lines{});
    held->gate.open();
    EXPECT_EQ(freed.lines(1), Lines{"freed"});
  }
}

TEST_F(DispatcherDelivery, OfOnceLeavesWhoHasGoneToTheNextWakeUp) {
  auto gone = recorder(SubscriptionMode::Once, "t", "");
  const auto alive = recorder(SubscriptionMode::AllValues, "u", "");
  start();
  subscribe(broker.cache, gone, "t:default");
  subscribe(broker.cache, alive, "u:default");
  settle();  // the wake-up that made the last one is over
  gone.reset();
  broker.cache.send(valueMessage("t:default", "1"));
  broker.cache.send(valueMessage("u:default", "2"));
  ASSERT_TRUE(alive->journal.waitFor(1));
  const auto waker = recorder(SubscriptionMode::AllValues, "v", "");
  subscribe(broker.cache, waker, "v:default");
  EXPECT_EQ(broker.cache.receive(), unsubscribed("t:default"));
}

// Tells who destroys it.
class NotingSubscriber : public Subscriber {
 public:
  NotingSubscriber(std::function<void()> call, std::function<void()> gone)
      : Subscriber(SubscriptionMode::AllValues, "t", ""),
        call_(std::move(call)),
        gone_(std::move(gone)) {}
  ~NotingSubscriber() override { gone_(); }

 protected:
  void onValue(const void* /*data*/, std::size_t /*size*/) override { call_(); }

 private:
  const std::function<void()> call_;
  const std::function<void()> gone_;
};

TEST_F(DispatcherDelivery, KeepsASubscriberAliveUntilItsCallbackReturns) {
  Gate gate;
  Journal journal;
  std::atomic<std::thread::id> calledOn{};
  std::atomic<std::thread::id> destroyedOn{};
  auto subscriber = std::make_shared<NotingSubscriber>(
      [&] {
        calledOn = std::this_thread::get_id();
        journal.add("called");
        gate.pass();
        journal.add("returns");
      },
      [&] {
        destroyedOn = std::this_thread::get_id();
        journal.add("destroyed");
      });
  start();
  subscribe(broker.cache, subscriber, "t:default");
  broker.cache.send(valueMessage("t:default", "1"));
  ASSERT_TRUE(journal.waitFor(1));
  subscriber.reset();
  gate.open();
  EXPECT_EQ(journal.lines(3), (Lines{"called", "returns", "destroyed"}));
  EXPECT_EQ(destroyedOn.load(), calledOn.load());
}

// The dispatcher's own thread runs no code of the application, destructors included.
TEST_F(DispatcherDelivery, NeverDestroysASubscriberOnTheDispatcherThread) {
  constexpr int kRounds = 1000;
  std::mutex mutex;
  std::set<std::thread::id> workers;
  std::set<std::thread::id> destroyers;
  const auto note = [&](std::set<std::thread::id>& threads) {
    const std::lock_guard<std::mutex> lock(mutex);
    threads.insert(std::this_thread::get_id());
  };
  // Every worker is seen once, so that the dispatcher's thread is not taken for one of them.
  MeetingPoint together(4);
  std::vector<std::shared_ptr<Subscriber>> meeting;
  start();
  for (int i = 0; i < 4; ++i) {
    meeting.push_back(calling(SubscriptionMode::AllValues, "meet", [&](const void*, std::size_t) {
      note(workers);
      together.meet();
    }));
    subscribe(broker.cache, meeting.back(), "meet:default");
  }
  broker.cache.send(valueMessage("meet:default", "1"));
  settle();
  ASSERT_EQ(workers.size(), 4U);
  for (int round = 0; round < kRounds; ++round) {
    auto subscriber = std::make_shared<NotingSubscriber>([] {}, [&] { note(destroyers); });
    for (int i = 0; i < 3; ++i) dispatcher.registerSubscriber(subscriber);
    for (int i = 0; i < 3;) i += broker.cache.receive() == subscribed("t:default");
    broker.cache.send(valueMessage("t:default", "1"));
    dispatcher.unregisterSubscriber(subscriber);
    for (int spin = 0; spin < round % 100; ++spin) std::this_thread::yield();
    subscriber.reset();
    if (round % 100 == 99) settle();
  }
  settle();
  destroyers.erase(std::this_thread::get_id());
  for (const std::thread::id worker : workers) destroyers.erase(worker);
  EXPECT_TRUE(destroyers.empty());
}

}  // namespace
}  // namespace tessel
