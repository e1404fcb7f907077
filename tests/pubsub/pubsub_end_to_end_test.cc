#include <gtest/gtest.h>
#include <tessel/message_broker.h>
#include <tessel/message_dispatcher.h>
#include <tessel/publisher.h>
#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/child_process.h"
#include "support/deadline.h"
#include "support/endpoints.h"
#include "support/publishing.h"
#include "support/raw_peer.h"
#include "support/recorders.h"
#include "support/threads.h"

namespace tessel::test {
namespace {

using Lines = std::vector<std::string>;

std::shared_ptr<RecordingSubscriber> recorder(SubscriptionMode mode, const std::string& topic,
                                              const std::string& tag) {
  return std::make_shared<RecordingSubscriber>(mode, topic, tag);
}

/// Broker, dispatcher and publishers, joined by real endpoints.
class PubsubEndToEnd : public ::testing::TestWithParam<std::string> {
 protected:
  PubsubEndToEnd() {
    // A port that was free may be somebody else's by now.
    EXPECT_TRUE(eventually([&] { return makeBroker(); }));
    dispatcher = std::make_unique<MessageDispatcher>(updates, cache);
    broker->attach(observer);
    broker->start();
    dispatcher->start();
  }

  bool makeBroker() {
    pull = endpoint();
    updates = endpoint();
    cache = endpoint();
    return bindBroker();
  }
  bool bindBroker() {
    try {
      broker = std::make_unique<MessageBroker>(Lines{pull}, Lines{updates}, Lines{cache});
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), zmq_strerror(EADDRINUSE));
      return false;
    }
    return true;
  }

  static std::string endpoint() {
    if (GetParam() == "tcp") return freeTcp();
    return GetParam() == "ipc" ? uniqueIpc() : uniqueInproc();
  }

  /// Waits until the subscriptions made so far are the broker's, too: a probe made after them gets
  /// a value. On both sockets.
  void awaitSubscriptions() { awaitSubscriptions(*dispatcher); }
  void awaitSubscriptions(MessageDispatcher& of) {
    for (const SubscriptionMode mode : {SubscriptionMode::NewValues, SubscriptionMode::AllValues}) {
      const std::string topic = "probe" + std::to_string(probes++);
      const auto probe = recorder(mode, topic, "");
      of.registerSubscriber(probe);
      Publisher publisher({pull}, topic, "");
      publisher.enableCache(false);
      EXPECT_TRUE(eventually([&] {
        publish(publisher, "?");
        return probe->journal.size() > 0;
      }));
    }
  }
  /// Waits until everything published so far has been delivered.
  void settle() {
    const auto fresh = recorder(SubscriptionMode::NewValues, "settle", std::to_string(probes));
    const auto all = recorder(SubscriptionMode::AllValues, "settle", std::to_string(probes));
    dispatcher->registerSubscriber(fresh);
    dispatcher->registerSubscriber(all);
    Publisher publisher({pull}, "settle", std::to_string(probes++));
    publisher.enableCache(false);
    EXPECT_TRUE(eventually([&] {
      publish(publisher, "?");
      return fresh->journal.size() > 0 && all->journal.size() > 0;
    }));
  }
  /// Publishes and waits until the broker has it.
  void publishAndWait(const Publisher& publisher, const std::string& value) {
    publish(publisher, value);
    awaitAtBroker();
  }
  void awaitAtBroker() {
    const std::string tag = std::to_string(probes++);
    publish(Publisher({pull}, "at broker", tag), "?");
    EXPECT_TRUE(eventually([&] {
      const Lines lines = observer->journal.lines();
      return std::find(lines.begin(), lines.end(), "publish at broker " + tag + " 1 1 0") !=
             lines.end();
    }));
  }

  int probes = 0;
  std::string pull;
  std::string updates;
  std::string cache;
  std::shared_ptr<RecordingBrokerObserver> observer = std::make_shared<RecordingBrokerObserver>();
  std::unique_ptr<MessageBroker> broker;
  std::unique_ptr<MessageDispatcher> dispatcher;
};

TEST_P(PubsubEndToEnd, EveryKindOfSubscriberGetsItsValues) {
  const auto once = recorder(SubscriptionMode::Once, "speed", "left");
  const auto fresh = recorder(SubscriptionMode::NewValues, "speed", "left");
  const auto all = recorder(SubscriptionMode::AllValues, "speed", "left");
  const auto multi = std::make_shared<RecordingMultiSubscriber>("speed", "");
  const auto untagged = recorder(SubscriptionMode::AllValues, "speed", "");
  for (const auto& each : {once, fresh, all, untagged}) dispatcher->registerSubscriber(each);
  dispatcher->registerSubscriber(multi);
  awaitSubscriptions();
  const Publisher left({pull}, "speed", "left");
  const Publisher right({pull}, "speed", "right");
  const Publisher none({pull}, "speed", "");
  publish(left, "1");
  publish(right, "2");
  publish(left, "3");
  publish(none, "4");
  left.unpublish();
  settle();
  EXPECT_EQ(once->journal.lines(), Lines{"value 1"});
  EXPECT_EQ(fresh->journal.lines(), (Lines{"value 1", "value 3", "deleted"}));
  EXPECT_EQ(all->journal.lines(), (Lines{"value 1", "value 3", "deleted"}));
  EXPECT_EQ(untagged->journal.lines(), Lines{"value 4"});
  EXPECT_EQ(multi->journal.lines(),
            (Lines{"value speed left 1", "value speed right 2", "value speed left 3",
                   "value speed default 4", "deleted speed left"}));
}

TEST_P(PubsubEndToEnd, LateJoinersGetTheCachedValue) {
  const Publisher publisher({pull}, "t", "a");
  publish(publisher, "1");
  publishAndWait(publisher, "2");
  const auto all = recorder(SubscriptionMode::AllValues, "t", "a");
  const auto once = recorder(SubscriptionMode::Once, "t", "a");
  const auto fresh = recorder(SubscriptionMode::NewValues, "t", "a");
  const auto multi = std::make_shared<RecordingMultiSubscriber>("t");
  dispatcher->registerSubscriber(fresh);
  dispatcher->registerSubscriber(multi);
  dispatcher->registerSubscriber(all);
  EXPECT_EQ(all->journal.lines(1), Lines{"value 2"});
  dispatcher->registerSubscriber(once);
  EXPECT_EQ(once->journal.lines(1), Lines{"value 2"});
  const auto later = recorder(SubscriptionMode::AllValues, "t", "a");
  dispatcher->registerSubscriber(later);
  EXPECT_EQ(later->journal.lines(1), Lines{"value 2"});
  awaitSubscriptions();
  publish(publisher, "3");
  settle();
  EXPECT_EQ(all->journal.lines(), (Lines{"value 2", "value 3"}));
  EXPECT_EQ(later->journal.lines(), (Lines{"value 2", "value 3"}));
  EXPECT_EQ(once->journal.lines(), Lines{"value 2"});
  EXPECT_EQ(fresh->journal.lines(), Lines{"value 3"});
  EXPECT_EQ(multi->journal.lines(), Lines{"value t a 3"});
}

TEST_P(PubsubEndToEnd, AWithdrawnValueIsDeletedAndNotReplayed) {
  const Publisher publisher({pull}, "t", "a");
  publishAndWait(publisher, "1");
  const auto all = recorder(SubscriptionMode::AllValues, "t", "a");
  dispatcher->registerSubscriber(all);
  EXPECT_EQ(all->journal.lines(1), Lines{"value 1"});
  publisher.unpublish();
  EXPECT_EQ(all->journal.lines(2), (Lines{"value 1", "deleted"}));
  publisher.unpublish();  // it is not there any more, so nobody hears of it
  const auto later = recorder(SubscriptionMode::AllValues, "t", "a");
  dispatcher->registerSubscriber(later);
  awaitSubscriptions();
  publish(publisher, "2");
  settle();
  EXPECT_EQ(all->journal.lines(), (Lines{"value 1", "deleted", "value 2"}));
  EXPECT_EQ(later->journal.lines(), Lines{"value 2"});
}

TEST_P(PubsubEndToEnd, AWithdrawalThatLeavesTheCacheAloneIsAlwaysHeardOf) {
  Publisher publisher({pull}, "t", "a");
  publisher.enableCache(false);
  const auto all = recorder(SubscriptionMode::AllValues, "t", "a");
  dispatcher->registerSubscriber(all);
  awaitSubscriptions();
  publisher.unpublish();
  publish(publisher, "1");
  publisher.unpublish();
  settle();
  EXPECT_EQ(all->journal.lines(), (Lines{"deleted", "value 1", "deleted"}));
}

TEST_P(PubsubEndToEnd, APublisherThatGoesTakesItsValueWithIt) {
  const auto all = recorder(SubscriptionMode::AllValues, "t", "a");
  dispatcher->registerSubscriber(all);
  awaitSubscriptions();
  {
    Publisher publisher({pull}, "t", "a");
    publisher.enableUnpublishOnDestruction(true);
    publish(publisher, "1");
  }
  settle();
  EXPECT_EQ(all->journal.lines(), (Lines{"value 1", "deleted"}));
}

TEST_P(PubsubEndToEnd, ARepeatIsHeardOfOnlyWhenAskedFor) {
  Publisher publisher({pull}, "t", "a");
  const auto all = recorder(SubscriptionMode::AllValues, "t", "a");
  const auto fresh = recorder(SubscriptionMode::NewValues, "t", "a");
  dispatcher->registerSubscriber(all);
  dispatcher->registerSubscriber(fresh);
  awaitSubscriptions();
  publish(publisher, "1");
  publish(publisher, "1");
  publisher.enablePublishIfEqual(true);
  publish(publisher, "1");
  settle();
  EXPECT_EQ(all->journal.lines(), (Lines{"value 1", "value 1"}));
  EXPECT_EQ(fresh->journal.lines(), (Lines{"value 1", "value 1"}));
}

TEST_P(PubsubEndToEnd, LargeAndEmptyValuesArriveWhole) {
  Publisher publisher({pull}, "t", "a");
  const auto all = recorder(SubscriptionMode::AllValues, "t", "a");
  dispatcher->registerSubscriber(all);
  awaitSubscriptions();
  std::string large(8 << 20, 'x');
  for (std::size_t i = 0; i < large.size(); i += 997) large[i] = static_cast<char>(i);
  publish(publisher, large);
  publish(publisher, "");
  EXPECT_TRUE(all->journal.waitFor(2));
  EXPECT_TRUE(all->journal.lines() == (Lines{"value " + large, "value "}));
  const auto later = recorder(SubscriptionMode::AllValues, "t", "a");
  dispatcher->registerSubscriber(later);
  EXPECT_EQ(later->journal.lines(1), Lines{"value "});
}

TEST_P(PubsubEndToEnd, EachDispatcherServesItsOwnSubscribers) {
  MessageDispatcher second(updates, cache);
  const auto mine = recorder(SubscriptionMode::AllValues, "t", "a");
  const auto others = recorder(SubscriptionMode::AllValues, "t", "a");
  dispatcher->registerSubscriber(mine);
  second.registerSubscriber(others);
  second.start();
  awaitSubscriptions();
  awaitSubscriptions(second);
  const Publisher publisher({pull}, "t", "a");
  publish(publisher, "1");
  EXPECT_EQ(mine->journal.lines(1), Lines{"value 1"});
  EXPECT_EQ(others->journal.lines(1), Lines{"value 1"});
  second.stop();
  publish(publisher, "2");
  EXPECT_EQ(mine->journal.lines(2), (Lines{"value 1", "value 2"}));
  // It subscribes anew, gets a replay, and passes it by, having had a value before.
  second.start();
  awaitSubscriptions(second);
  publish(publisher, "3");
  EXPECT_EQ(others->journal.lines(2), (Lines{"value 1", "value 3"}));
}

TEST_P(PubsubEndToEnd, ValuesOfOneThreadArriveInOrder) {
  constexpr int kValues = 500;  // well within what a queue holds
  const auto multi = std::make_shared<RecordingMultiSubscriber>("t");
  const auto all = recorder(SubscriptionMode::AllValues, "t", "a");
  dispatcher->registerSubscriber(multi);
  dispatcher->registerSubscriber(all);
  awaitSubscriptions();
  const Publisher publisher({pull}, "t", "a");
  Lines expected;
  for (int i = 0; i < kValues; ++i) {
    publish(publisher, std::to_string(i));
    expected.push_back("value " + std::to_string(i));
  }
  EXPECT_EQ(all->journal.lines(kValues), expected);
  EXPECT_TRUE(multi->journal.waitFor(kValues));
}

TEST_P(PubsubEndToEnd, AllValuesOfManyThreadsArrive) {
  constexpr int kThreads = 4;
  constexpr int kValues = 100;
  const auto multi = std::make_shared<RecordingMultiSubscriber>("t");
  dispatcher->registerSubscriber(multi);
  awaitSubscriptions();
  std::atomic<bool> received{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const Publisher publisher({pull}, "t", std::to_string(t));
      for (int i = 0; i < kValues; ++i) publish(publisher, std::to_string(i));
      // What a thread has queued goes with it.
      EXPECT_TRUE(eventually([&] { return received.load(); }));
    });
  }
  EXPECT_TRUE(multi->journal.waitFor(kThreads * kValues));
  received = true;
  for (std::thread& thread : threads) thread.join();
  std::vector<int> next(kThreads, 0);
  for (const std::string& line : multi->journal.lines()) {
    const auto t = static_cast<std::size_t>(line.at(8) - '0');
    EXPECT_EQ(line, "value t " + std::to_string(t) + " " + std::to_string(next.at(t)++));
  }
}

// Where there are connections, ZeroMQ makes them again.
TEST_P(PubsubEndToEnd, ABrokerThatIsMadeAgainServesTheOldSubscribers) {
  const auto all = recorder(SubscriptionMode::AllValues, "t", "a");
  const auto multi = std::make_shared<RecordingMultiSubscriber>("t");
  dispatcher->registerSubscriber(all);
  dispatcher->registerSubscriber(multi);
  awaitSubscriptions();
  {
    const Publisher publisher({pull}, "t", "a");
    publish(publisher, "1");
    EXPECT_TRUE(all->journal.waitFor(1));
    EXPECT_TRUE(multi->journal.waitFor(1));
  }
  broker.reset();
  // ZeroMQ gives the endpoints back in the background.
  EXPECT_TRUE(eventually([&] { return bindBroker(); }));
  broker->start();
  awaitSubscriptions();
  const Publisher publisher({pull}, "t", "a");
  publish(publisher, "2");
  EXPECT_EQ(all->journal.lines(2), (Lines{"value 1", "value 2"}));
  EXPECT_EQ(multi->journal.lines(2), (Lines{"value t a 1", "value t a 2"}));
}

TEST_P(PubsubEndToEnd, ABrokerThatIsMadeAgainReplaysWhatItHasToThoseWhoHadNothing) {
  const auto had = recorder(SubscriptionMode::AllValues, "t", "a");
  const auto hadNothing = recorder(SubscriptionMode::AllValues, "t", "b");
  dispatcher->registerSubscriber(had);
  dispatcher->registerSubscriber(hadNothing);
  awaitSubscriptions();
  publishAndWait(Publisher({pull}, "t", "a"), "1");
  EXPECT_EQ(had->journal.lines(1), Lines{"value 1"});
  dispatcher->stop();
  broker.reset();
  EXPECT_TRUE(eventually([&] { return bindBroker(); }));
  broker->attach(observer);
  broker->start();
  // Until this thread is connected again: what goes over a dying connection is lost.
  observer->journal.clear();
  EXPECT_TRUE(eventually([&] {
    publish(Publisher({pull}, "again", ""), std::to_string(probes++));
    return observer->journal.size() > 0;
  }));
  for (const std::string tag : {"a", "b"}) publishAndWait(Publisher({pull}, "t", tag), "2");
  dispatcher->start();
  EXPECT_EQ(hadNothing->journal.lines(1), Lines{"value 2"});
  awaitSubscriptions();
  for (const std::string tag : {"a", "b"}) publish(Publisher({pull}, "t", tag), "3");
  settle();
  EXPECT_EQ(had->journal.lines(), (Lines{"value 1", "value 3"}));
  EXPECT_EQ(hadNothing->journal.lines(), (Lines{"value 2", "value 3"}));
}

INSTANTIATE_TEST_SUITE_P(Over, PubsubEndToEnd, ::testing::Values("tcp", "ipc", "inproc"),
                         [](const auto& parameter) { return parameter.param; });

// In one process nothing but the broker needs to be named.
TEST(PubsubInOneProcess, PublishersFindTheirBrokerByThemselves) {
  const std::string updates = uniqueInproc();
  const std::string cache = uniqueInproc();
  MessageBroker broker({}, {updates}, {cache});
  broker.start();
  MessageDispatcher dispatcher(updates, cache);
  dispatcher.start();
  publish(Publisher(broker, "t", "a"), "1");
  const auto all = recorder(SubscriptionMode::AllValues, "t", "a");
  dispatcher.registerSubscriber(all);
  EXPECT_EQ(all->journal.lines(1), Lines{"value 1"});
}

// Whatever has happened before: all threads but this one are the library's and ZeroMQ's.
TEST(PubsubInOneProcess, SleepsWhileNothingHappens) {
  const std::string updates = uniqueInproc();
  const std::string cache = uniqueInproc();
  MessageBroker broker({}, {updates}, {cache});
  MessageDispatcher dispatcher(updates, cache);
  broker.start();
  dispatcher.start();
  const auto all = recorder(SubscriptionMode::AllValues, "t", "a");
  dispatcher.registerSubscriber(all);
  publish(Publisher(broker, "t", "a"), "1");
  EXPECT_TRUE(all->journal.waitFor(1));
  dispatcher.unregisterSubscriber(all);
  for (const int thread : threadNumbers()) {
    EXPECT_TRUE(thread == thisThread() || waitUntilAsleep(thread));
  }
}

// Failures are exceptions, and what is malformed is dropped in silence.
TEST(PubsubInOneProcess, PrintsNothing) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  {
    const std::string updates = uniqueInproc();
    const std::string cache = uniqueInproc();
    MessageBroker broker({}, {updates}, {cache});
    MessageDispatcher dispatcher(updates, cache);
    const auto all = recorder(SubscriptionMode::AllValues, "t", "a");
    dispatcher.registerSubscriber(all);
    RawPeer malformed(ZMQ_PUSH);
    malformed.connect(broker.getInprocPullTransport()).send({"", "RS02", "\x03", "too short"});
    malformed.send({"nonsense"});
    broker.start();
    dispatcher.start();
    const Publisher publisher(broker, "t", "a");
    publish(publisher, "1");
    EXPECT_TRUE(all->journal.waitFor(1));
    publish(publisher, "1");
    publisher.unpublish();
    publisher.unpublish();
    EXPECT_TRUE(all->journal.waitFor(2));
    EXPECT_THROW(MessageBroker({"nonsense"}, {}, {}), std::runtime_error);
    EXPECT_THROW(publish(Publisher(Lines{"nonsense"}, "t", "a"), "1"), std::runtime_error);
    EXPECT_THROW(Publisher("a:b", ""), std::invalid_argument);
    broker.stop(true, true);
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

// Those who need not be in one process.
class PubsubOverAConnection : public PubsubEndToEnd {};

TEST_P(PubsubOverAConnection, ADispatcherOfAnotherProcessGetsItsValues) {
  publishAndWait(Publisher({pull}, "t", "a"), "cached");
  ChildProcess subscribing(TESSEL_PUBSUB_PROCESS, {"subscribe", updates, cache, "t", "a"});
  EXPECT_EQ(subscribing.line(), "started");
  Lines replayed = {subscribing.line(), subscribing.line()};
  std::sort(replayed.begin(), replayed.end());
  EXPECT_EQ(replayed, (Lines{"all cached", "once cached"}));
  Publisher publisher({pull}, "t", "a");
  publisher.enableCache(false);
  // Its multi-subscriber is on a connection of its own, which takes its time.
  std::string line;
  EXPECT_TRUE(eventually([&] {
    publish(publisher, "live");
    line = subscribing.line();
    return line == "multi t a live";
  })) << line;
  publisher.unpublish();
  EXPECT_TRUE(eventually([&] {
    line = subscribing.line();
    return line == "all deleted" || line == "multi t a deleted";
  })) << line;
  subscribing.closeInput();
  EXPECT_EQ(subscribing.wait(), 0);
}

TEST_P(PubsubOverAConnection, EachPartMayHaveAProcessOfItsOwn) {
  std::unique_ptr<ChildProcess> subscribing;
  std::unique_ptr<ChildProcess> publishing;
  std::unique_ptr<ChildProcess> serving;
  // The broker comes last, and then a port may be somebody else's.
  EXPECT_TRUE(eventually([&] {
    const std::string pullThere = endpoint();
    const std::string updatesThere = endpoint();
    const std::string cacheThere = endpoint();
    const std::string program = TESSEL_PUBSUB_PROCESS;
    subscribing.reset(new ChildProcess(program, {"subscribe", updatesThere, cacheThere, "t", "a"}));
    EXPECT_EQ(subscribing->line(), "started");
    publishing.reset(new ChildProcess(program, {"publish", pullThere, "t", "a", "1"}));
    EXPECT_EQ(publishing->line(), "done");
    serving.reset(new ChildProcess(program, {"broker", pullThere, updatesThere, cacheThere}));
    return serving->line() == "started";
  }));
  // The value comes live or from the cache, whoever is first; its copy for the multi-subscriber
  // only if that was in time.
  const auto next = [&] {
    std::string line = subscribing->line();
    while (line.rfind("multi", 0) == 0) line = subscribing->line();
    return line;
  };
  Lines lines = {next(), next()};
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(lines, (Lines{"all 1", "once 1"}));
}

INSTANTIATE_TEST_SUITE_P(Over, PubsubOverAConnection, ::testing::Values("tcp", "ipc"),
                         [](const auto& parameter) { return parameter.param; });

}  // namespace
}  // namespace tessel::test
