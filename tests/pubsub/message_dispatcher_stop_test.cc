// What becomes of values that are under way when a dispatcher stops. In a program of its own, since
// it stands in for the system's function that waits for threads, to know how far the stop has come.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>

#include "pubsub/dispatcher_fixture.h"
#include "support/subscribers.h"
#include "support/threads.h"
#include "support/watched_joins.h"

namespace tessel {
namespace {

using namespace test;

class DispatcherWithOneWorker : public DispatcherTest {
 protected:
  DispatcherWithOneWorker() : DispatcherTest(1) {}

  // Stops it on another thread; returns when the first `count` of its threads are waited for: its
  // own first, then, when they have been told that this is the end, the workers.
  std::unique_ptr<ScopedThread> stopUntilJoins(int count) {
    const int before = joinsBegun;
    auto stopping = std::make_unique<ScopedThread>([this] { dispatcher.stop(); });
    EXPECT_TRUE(waitForJoins(before, count));
    return stopping;
  }
};

TEST_F(DispatcherWithOneWorker, DropsTheCallsThatAreQueuedWhenItStops) {
  const auto held = std::make_shared<HeldSubscriber>(SubscriptionMode::AllValues, "t", "");
  dispatcher.start();
  for (int i = 0; i < 10; ++i) subscribe(broker.cache, held, "t:default");
  broker.cache.send(valueMessage("t:default", "1"));
  ASSERT_TRUE(held->journal.waitFor(1));
  const auto stopping = stopUntilJoins(2);
  held->gate.open();
  stopping->join();
  EXPECT_EQ(held->journal.lines(), Lines{"value 1"});
  EXPECT_EQ(held.use_count(), 1);
}

// Of what has come to its sockets it drops the one value, if any, that is in hand: that waits for
// the callbacks of the one before.
TEST_F(DispatcherWithOneWorker, KeepsTheValuesOfBothSocketsOverAStop) {
  const auto fresh = std::make_shared<HeldSubscriber>(SubscriptionMode::NewValues, "t", "");
  const auto all = recorder(SubscriptionMode::AllValues, "t", "");
  const std::set<int> others = threadNumbers();
  start();
  std::set<int> threads = threadNumbers();
  for (const int other : others) threads.erase(other);
  subscribe(broker.updates, fresh, "t:default");
  subscribe(broker.cache, all, "t:default");
  broker.updates.send(valueMessage("t:default", "held"));
  ASSERT_TRUE(fresh->journal.waitFor(1));
  Lines sent;
  for (int i = 0; i < 5; ++i) {
    const std::string value = std::to_string(i);
    broker.updates.send(valueMessage("t:default", value));
    broker.cache.send(valueMessage("t:default", value));
    sent.push_back("value " + value);
  }
  for (const int thread : threads) waitUntilAsleep(thread);  // its own has one in hand by now
  const auto stopping = stopUntilJoins(1);
  fresh->gate.open();
  stopping->join();
  EXPECT_EQ(fresh->journal.size() + all->journal.size(), 1U);
  dispatcher.start();
  for (RawPeer* peer : {&broker.updates, &broker.cache}) {
    EXPECT_EQ(sortedFrames(*peer, 4),
              (Frames{unsubscribed("t:default").front(), unsubscribed(kMarker).front(),
                      subscribed("t:default").front(), subscribed(kMarker).front()}));
  }
  settle();
  Lines updates = fresh->journal.lines();
  updates.erase(updates.begin());  // the one that was held
  Lines cached = all->journal.lines();
  EXPECT_GE(updates.size() + cached.size(), 2 * sent.size() - 1);
  for (const Lines& values : {updates, cached}) {
    EXPECT_TRUE(std::equal(values.rbegin(), values.rend(), sent.rbegin())) << values.size();
  }
}

}  // namespace
}  // namespace tessel
