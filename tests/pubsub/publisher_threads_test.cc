#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <tessel/message_broker.h>
#include <tessel/publisher.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "support/broker_peers.h"
#include "support/no_hang.h"
#include "support/publishing.h"
#include "support/resources.h"
#include "support/socket_budget.h"
#include "support/threads.h"
#include "transport/left_sockets.h"

namespace tessel::test {
namespace {

using testing::UnorderedElementsAre;

// --- Each thread's own sockets

TEST(PublisherSockets, AreSharedByThePublishersOfAThread) {
  Receiver one;
  Receiver two;
  const OpenSockets sockets;
  for (int i = 0; i < 10; ++i) {
    Publisher publisher({one.endpoint}, "t" + std::to_string(i), "g");
    publish(publisher, "");
    publisher.unpublish();
  }
  EXPECT_TRUE(sockets.become(1, one));
  publish(Publisher({one.endpoint, two.endpoint}, "t", "g"), "");
  EXPECT_TRUE(sockets.become(2, one));
}

TEST(PublisherSockets, AreNotMadeUntilSomethingIsSent) {
  Receiver receiver;
  const OpenSockets sockets;
  {
    Publisher publisher({receiver.endpoint}, "t", "g");
    EXPECT_TRUE(sockets.become(0, receiver));
    publisher.enableUnpublishOnDestruction(true);
  }
  EXPECT_TRUE(sockets.become(1, receiver));  // the withdrawal
}

TEST(PublisherSockets, AreSeparateForEachThreadAndClosedWhenItEnds) {
  Receiver receiver;
  const Publisher publisher({receiver.endpoint}, "t", "g");
  publish(publisher, "main");
  receiver.receive();
  const OpenSockets sockets;
  Gate leave;
  {
    std::vector<std::unique_ptr<ScopedThread>> threads;
    for (int i = 0; i < 3; ++i) {
      threads.push_back(std::make_unique<ScopedThread>([&] {
        publish(publisher, "");
        publish(publisher, "");
        leave.pass();
      }));
    }
    for (int i = 0; i < 6; ++i) receiver.receive();
    EXPECT_TRUE(sockets.become(3, receiver));
    leave.open();
  }
  EXPECT_TRUE(sockets.become(0, receiver));
  publish(publisher, "still");
  EXPECT_EQ(receiver.receive(), publication("t", "g", "still", 1));
}

TEST(PublisherSockets, OfEndedThreadsDeliverWhatWasPublished) {
  Receiver receiver;
  const Publisher publisher({receiver.endpoint}, "t", "g");
  for (int i = 0; i < 200; ++i) {
    std::thread([&] { publish(publisher, std::to_string(i)); }).join();
    EXPECT_EQ(receiver.receive(), publication("t", "g", std::to_string(i), 1));
  }
}

TEST(PublisherOfManyThreads, LosesNothingAndKeepsTheOrderOfEach) {
  const int threads = 8;
  const int values = 2000;
  Receiver receiver;
  const Publisher publisher({receiver.endpoint}, "t", "g");
  std::vector<std::unique_ptr<ScopedThread>> running;
  for (int thread = 0; thread < threads; ++thread) {
    running.push_back(std::make_unique<ScopedThread>([&publisher, thread] {
      for (int i = 0; i < values; ++i) {
        publish(publisher, std::to_string(thread) + " " + std::to_string(i));
      }
    }));
  }
  std::map<std::string, int> next;
  for (int i = 0; i < threads * values; ++i) {
    const Frames frames = receiver.receive();
    ASSERT_EQ(frames.size(), 7U);
    const std::string& value = frames[5];
    const std::string thread = value.substr(0, value.find(' '));
    ASSERT_EQ(frames, publication("t", "g", thread + " " + std::to_string(next[thread]++), 1));
  }
  EXPECT_FALSE(receiver.readable());
}

int messagesAt(RawPeer& peer) {
  int count = 0;
  for (; peer.readable(); ++count) peer.receive();
  return count;
}

TEST(PublisherOfManyThreads, DefaultBrokersMayBeSetMeanwhile) {
  Receiver one;
  Receiver two;
  const std::vector<std::string> three(3, one.endpoint);
  const std::vector<std::string> five(5, two.endpoint);
  Publisher::setDefaultBroker(three);
  std::atomic<bool> done{false};
  const auto setting = [&] {
    while (!done) {
      Publisher::setDefaultBroker(five);
      std::this_thread::yield();
      Publisher::setDefaultBroker(three);
      std::this_thread::yield();
    }
  };
  ScopedThread first(setting);
  ScopedThread second(setting);
  for (int i = 0; i < 500; ++i) {
    publish(Publisher("t", "g"), "");
    const std::pair<int, int> received(messagesAt(one), messagesAt(two));
    // One list or the other, never something between the two.
    EXPECT_TRUE(received == std::make_pair(3, 0) || received == std::make_pair(0, 5))
        << received.first << " and " << received.second;
  }
  done = true;
}

// A signal in the middle of a call of ZeroMQ makes it fail, and a message would end half-way.
TEST(PublisherOfManyThreads, SignalsDoNotDisturbThem) {
  struct sigaction action = {};
  action.sa_handler = [](int) {};  // without SA_RESTART
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
  Receiver receiver;
  std::atomic<bool> done{false};
  const Publisher publisher({receiver.endpoint}, "t", "g");
  std::thread publishing([&] {
    for (int i = 0; i < 20000; ++i) publish(publisher, std::to_string(i));
    while (!done) std::this_thread::yield();
  });
  const pthread_t thread = publishing.native_handle();
  ScopedThread storm([&] {
    while (!done) pthread_kill(thread, SIGUSR1);
  });
  for (int i = 0; i < 20000; ++i) {
    EXPECT_EQ(receiver.receive(), publication("t", "g", std::to_string(i), 1));
  }
  done = true;
  storm.join();  // first: nobody signals a thread that has ended
  publishing.join();
}

// --- Publishers that end late

// Tells what it is told, by publishing it, wherever it ends.
class LastWords {
 public:
  explicit LastWords(const std::string& endpoint)
      : publisher_(std::vector<std::string>{endpoint}, "last", "words") {
    publisher_.enableUnpublishOnDestruction(true);
  }

 private:
  Publisher publisher_;
};

TEST(PublisherThatEndsLate, MayBeThreadLocal) {
  Receiver receiver;
  for (const bool publishesFirst : {false, true}) {
    std::thread([&] {
      thread_local std::unique_ptr<Publisher> publisher;
      publisher = std::make_unique<Publisher>(std::vector<std::string>{receiver.endpoint}, "t", "");
      publisher->enableUnpublishOnDestruction(true);
      if (publishesFirst) publish(*publisher, "1");
    }).join();
    if (publishesFirst) {
      EXPECT_EQ(receiver.receive(), publication("t", "default", "1", 1));
    }
    EXPECT_EQ(receiver.receive(), withdrawal("t", "default", 1));
  }
}

// Destroyed by the thread-specific data of the system, in the order of the keys: one from before
// the library's own and one from after it.
TEST(PublisherThatEndsLate, MayOutliveTheSocketsOfItsThread) {
  Receiver receiver;
  const auto destroy = [](void* words) { delete static_cast<LastWords*>(words); };
  pthread_key_t before{};
  pthread_key_t after{};
  ASSERT_EQ(pthread_key_create(&before, destroy), 0);
  publish(Publisher({receiver.endpoint}, "t", "g"), "");  // the library makes its key
  receiver.receive();
  ASSERT_EQ(pthread_key_create(&after, destroy), 0);
  const OpenSockets sockets;
  for (int i = 0; i < 20; ++i) {
    std::thread([&] {
      pthread_setspecific(before, new LastWords(receiver.endpoint));
      pthread_setspecific(after, new LastWords(receiver.endpoint));
      publish(Publisher({receiver.endpoint}, "t", "g"), "");
    }).join();
    // Two sockets have sent them, so they come in any order.
    const std::vector<Frames> received = {receiver.receive(), receiver.receive(),
                                          receiver.receive()};
    EXPECT_THAT(received,
                UnorderedElementsAre(publication("t", "g", "", 1), withdrawal("last", "words", 1),
                                     withdrawal("last", "words", 1)));
  }
  EXPECT_TRUE(sockets.become(0, receiver));  // those that were made anew are closed as well
  pthread_key_delete(before);
  pthread_key_delete(after);
}

// Ends the process well if the withdrawal comes; destroyed after the publisher that sends it.
struct ExpectsTheWithdrawal {
  ~ExpectsTheWithdrawal() {
    const bool heard = observer->journal.waitFor(1) &&
                       observer->journal.lines().back() == "unpublish last words 1 0 0";
    std::_Exit(heard ? 0 : 1);
  }
  MessageBroker* broker = new MessageBroker({}, {}, {});
  std::shared_ptr<RecordingBrokerObserver> observer = std::make_shared<RecordingBrokerObserver>();
};

void makeStaticPublisher() {
  static ExpectsTheWithdrawal expects;
  expects.broker->attach(expects.observer);
  expects.broker->start();
  static const LastWords words(expects.broker->getInprocPullTransport());
}

TEST(PublisherThatEndsLateDeathTest, MayBeStatic) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        makeStaticPublisher();
        std::exit(2);
      },
      testing::ExitedWithCode(0), "");
}

TEST(PublisherThatEndsLateDeathTest, MayBeStaticOnAThreadThatCallsExit) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        makeStaticPublisher();
        std::thread([] { std::exit(2); }).join();
      },
      testing::ExitedWithCode(0), "");
}

TEST(PublisherThatEndsLateDeathTest, MayBeStaticWithoutABrokerThatTakesIt) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        static const LastWords words("inproc://nobody");
        static const LastWords elsewhere(uniqueIpc());
        std::exit(0);
      },
      testing::ExitedWithCode(0), "");
}

// A thread that still publishes while the process exits.
TEST(PublisherThatEndsLateDeathTest, MayPublishWhileTheProcessExits) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  for (int round = 0; round < 5; ++round) {
    EXPECT_EXIT(
        {
          static auto* broker = new MessageBroker({}, {}, {});
          broker->start();
          std::atomic<int> published{0};
          std::thread([&] {
            for (;;) {
              publish(Publisher("t", "g"), std::to_string(published));
              ++published;
            }
          }).detach();
          eventually([&] { return published > 100; });
          std::exit(0);
        },
        testing::ExitedWithCode(0), "");
  }
}

// --- Brokers that are not there

// Publishes so many values on a thread of its own.
class PublishingThread {
 public:
  PublishingThread(const std::string& endpoint, int count)
      : thread_([this, endpoint, count] {
          number_ = thisThread();
          const Publisher publisher({endpoint}, "t", "g");
          for (int i = 0; i < count; ++i) {
            publish(publisher, std::to_string(i));
            ++published_;
          }
        }) {}

  bool reaches(int count) {
    return eventually([&] { return published_ >= count; });
  }
  void expectToWaitAt(int count) {
    EXPECT_TRUE(reaches(count));
    EXPECT_TRUE(waitUntilAsleep(number_));
    EXPECT_EQ(published_, count);
  }

 private:
  std::atomic<int> number_{0};
  std::atomic<int> published_{0};
  ScopedThread thread_;
};

TEST(PublisherWithoutABroker, WaitsWhenItsQueueIsFullUntilOneAppears) {
  const std::string endpoint = uniqueInproc();
  PublishingThread publishing(endpoint, 1500);
  publishing.expectToWaitAt(1000);
  MessageBroker broker({endpoint}, {}, {});
  const auto observer = std::make_shared<RecordingBrokerObserver>();
  broker.attach(observer);
  broker.start();
  ASSERT_TRUE(observer->journal.waitFor(1500));
  EXPECT_TRUE(publishing.reaches(1500));
}

TEST(PublisherWithoutABroker, WaitsForAStoppedOneToRead) {
  MessageBroker broker({}, {}, {});
  PublishingThread publishing(broker.getInprocPullTransport(), 3000);
  publishing.expectToWaitAt(2000);
  const auto observer = std::make_shared<RecordingBrokerObserver>();
  broker.attach(observer);
  broker.start();
  ASSERT_TRUE(observer->journal.waitFor(3000));
}

// The old connection has nobody at its other end, and ZeroMQ does not say so.
TEST(PublisherWhoseBrokerIsMadeAgain, ReachesTheNewOne) {
  const std::string endpoint = uniqueInproc();
  const Publisher publisher({endpoint}, "t", "g");
  for (int round = 0; round < 100; ++round) {
    Receiver none;
    MessageBroker broker({endpoint}, {}, {});
    const auto observer = std::make_shared<RecordingBrokerObserver>();
    broker.attach(observer);
    broker.start();
    withoutHanging("publish", [&] { publish(publisher, "other thread"); });
    publish(publisher, std::to_string(round));
    ASSERT_TRUE(observer->journal.waitFor(2)) << round;
  }
}

TEST(PublisherWhoseBrokerIsMadeAgain, LosesNothingThatWasPublishedBetweenTheTwo) {
  const std::string endpoint = uniqueInproc();
  const Publisher publisher({endpoint}, "t", "g");
  for (int round = 0; round < 50; ++round) {
    {
      MessageBroker broker({endpoint}, {}, {});
      const auto observer = std::make_shared<RecordingBrokerObserver>();
      broker.attach(observer);
      broker.start();
      publish(publisher, "first");
      ASSERT_TRUE(observer->journal.waitFor(1)) << round;
    }
    publish(publisher, "between");
    publish(publisher, "and again");
    MessageBroker broker({endpoint}, {}, {});
    const auto observer = std::make_shared<RecordingBrokerObserver>();
    broker.attach(observer);
    broker.start();
    ASSERT_TRUE(observer->journal.waitFor(2)) << round;
  }
}

TEST(PublisherWhoseBrokerIsMadeAgain, GoesOnFromAFullQueue) {
  const std::string endpoint = uniqueInproc();
  auto broker = std::make_unique<MessageBroker>(
      std::vector<std::string>{endpoint}, std::vector<std::string>(), std::vector<std::string>());
  PublishingThread publishing(endpoint, 5000);
  EXPECT_TRUE(publishing.reaches(2000));
  broker.reset();                         // with what it never read
  EXPECT_TRUE(publishing.reaches(3000));  // the new connection's queue
  MessageBroker next({endpoint}, {}, {});
  next.start();
  EXPECT_TRUE(publishing.reaches(5000));
}

// A process has 1023 sockets at a time, and a thread one for each broker that it publishes to.
TEST(PublisherWhoseBrokerGoes, UsesNoSocketsUp) {
  ScopedThread([] {
    ClosingPace pace(20);  // six sockets each
    for (int round = 0; round < 1100; ++round) {
      auto broker = std::make_unique<MessageBroker>(
          std::vector<std::string>(), std::vector<std::string>(), std::vector<std::string>());
      Publisher publisher(*broker, "t", "g");
      publisher.enableUnpublishOnDestruction(true);
      if (round % 3 != 0) publish(publisher, "1");
      broker.reset();
      if (round % 3 == 2) publish(publisher, "to nobody");
      pace.keep();
    }
  }).join();
  const MessageBroker one({}, {}, {});
}

TEST(PublisherWithoutABroker, UsesNoSocketsUpOnThreadsThatEnd) {
  const OpenSockets sockets;
  publish(Publisher("t", "g"), "waits");
  ClosingPace pace;
  for (int i = 0; i < 1100; ++i) {
    std::thread([i] { publish(Publisher("ended", "g"), std::to_string(i)); }).join();
    pace.keep();
  }
  publish(Publisher("t", "g"), "waits, too");
  EXPECT_TRUE(sockets.become(1 + LeftSockets::kMost));
  MessageBrokerImpl first({}, {}, {});
  const auto observer = std::make_shared<RecordingBrokerObserver>();
  first.attach(observer);
  first.start();
  publish(Publisher("t", "g"), "after");
  EXPECT_TRUE(sockets.become(6));  // those of the broker, and that of this thread
  // What those who are still there have sent, and the last of those who are not.
  EXPECT_TRUE(observer->journal.waitFor(3 + LeftSockets::kMost));
  const Lines lines = observer->journal.lines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "publish t g 1 1 0"), 3);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "publish ended g 1 1 0"), LeftSockets::kMost);
}

TEST(PublisherWithoutABroker, LeavesItsValuesForItWhenItsThreadEnds) {
  const std::string endpoint = uniqueInproc();
  for (int i = 0; i < 3; ++i) {
    std::thread([&] {
      publish(Publisher({endpoint}, "t", "g"), std::to_string(i) + " first");
      publish(Publisher({endpoint}, "t", "g"), std::to_string(i) + " second");
    }).join();
  }
  Receiver receiver(endpoint);
  for (const char* which : {" first", " second"}) {
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(receiver.receive(), publication("t", "g", std::to_string(i) + which, 1));
    }
  }
}

TEST(PublisherWithoutABroker, LeavesNothingForOneThatHasGoneForGood) {
  auto broker = std::make_unique<MessageBroker>(
      std::vector<std::string>(), std::vector<std::string>(), std::vector<std::string>());
  const Publisher publisher(*broker, "t", "g");
  broker.reset();
  const OpenSockets sockets;
  for (int i = 0; i < 20; ++i) {
    std::thread([&] { publish(publisher, "to nobody"); }).join();
  }
  EXPECT_TRUE(sockets.become(0));
}

// Everything that must end although the broker, the only one ever with its number, has ended.
class PublisherOfADestroyedBroker : public testing::Test {
 protected:
  std::unique_ptr<Publisher> withdrawing() {
    auto publisher = std::make_unique<Publisher>(*broker, "t", "g");
    publisher->enableUnpublishOnDestruction(true);
    return publisher;
  }
  std::unique_ptr<MessageBroker> broker = std::make_unique<MessageBroker>(
      std::vector<std::string>(), std::vector<std::string>(), std::vector<std::string>());
};

TEST_F(PublisherOfADestroyedBroker, EndsThoughItWasToWithdraw) {
  withoutHanging("a destructor", [&] {
    auto used = withdrawing();
    auto unused = withdrawing();
    publish(*used, "1");
    broker.reset();
    used.reset();
    unused.reset();
  });
}

TEST_F(PublisherOfADestroyedBroker, EndsHoweverManyThereAre) {
  withoutHanging("a destructor", [&] {
    std::vector<std::unique_ptr<Publisher>> publishers;
    for (int i = 0; i < 2500; ++i) publishers.push_back(withdrawing());
    publish(*publishers.front(), "1");
    broker.reset();
    publishers.clear();
  });
}

TEST_F(PublisherOfADestroyedBroker, EndsThoughItsQueueIsFull) {
  withoutHanging("a destructor", [&] {
    auto publisher = withdrawing();
    for (int i = 0; i < 2000; ++i) publish(*publisher, "");  // nobody reads
    broker.reset();
    for (int i = 0; i < 1000; ++i) publish(*publisher, "");  // nobody ever will
    publisher.reset();
  });
}

TEST_F(PublisherOfADestroyedBroker, EndsThoughItWaitsForTheStoppedBrokerToRead) {
  Gate full;
  ScopedThread ending([&] {
    withoutHanging("a destructor", [&] {
      auto publisher = withdrawing();
      for (int i = 0; i < 2000; ++i) publish(*publisher, "");
      full.open();
      publisher.reset();  // waits, for the broker may yet be started
    });
  });
  full.pass();
  broker.reset();
}

TEST(PublisherOfNoBroker, EndsThoughItsQueueIsFull) {
  withoutHanging("a destructor", [] {
    const std::string endpoint = uniqueInproc();
    Publisher publisher({endpoint}, "t", "g");
    publisher.enableUnpublishOnDestruction(true);
    for (int i = 0; i < 1000; ++i) publish(publisher, "");
  });
}

// --- A publisher and a broker together

TEST(PublisherAndBroker, AgreeOnWhatIsKeptSuppressedAndWithdrawn) {
  MessageBroker broker({}, {}, {});
  const auto observer = std::make_shared<RecordingBrokerObserver>();
  broker.attach(observer);
  broker.start();
  {
    Publisher publisher(broker, "t", "");
    publish(publisher, "1");
    publish(publisher, "1");
    publisher.enablePublishIfEqual(true);
    publish(publisher, "1");
    publisher.enableCache(false);
    publish(publisher, "2");
    publisher.unpublish();
    publisher.enableCache(true);
    publisher.removeFromCache();
    publisher.unpublish();
    publish(publisher, "3");
    publisher.enableClearCacheOnDestruction(true);
  }
  EXPECT_EQ(
      observer->journal.lines(9),
      (Lines{"publish t default 1 1 0", "publish t default 1 0 1", "publish t default 1 0 0",
             "publish t default 0 0 0", "unpublish t default 0 0 0", "unpublish t default 1 1 0",
             "unpublish t default 1 0 0", "publish t default 1 1 0", "unpublish t default 1 1 0"}));
}

TEST(PublisherAndBroker, OverTcpIpcAndInprocAlike) {
  for (const std::string& endpoint : {freeTcp(), uniqueIpc(), uniqueInproc()}) {
    MessageBroker broker({endpoint}, {}, {});
    const auto observer = std::make_shared<RecordingBrokerObserver>();
    broker.attach(observer);
    broker.start();
    Publisher publisher(std::vector<std::string>{endpoint}, "t", "g");
    publish(publisher, std::string(100000, 'x'));
    publish(publisher, std::string(100000, 'x'));
    publisher.unpublish();
    EXPECT_EQ(observer->journal.lines(3),
              (Lines{"publish t g 1 1 0", "publish t g 1 0 1", "unpublish t g 1 1 0"}));
  }
}

TEST(PublisherAndBroker, AnObserverMayPublish) {
  class Echo : public RecordingBrokerObserver {
   public:
    explicit Echo(const MessageBroker& broker) : publisher_(broker, "echo", "") {}
    void onPublish(const std::string& topic, const std::string& tag, bool cached, bool updated,
                   bool suppressed) override {
      if (topic != "echo") publish(publisher_, tag);
      RecordingBrokerObserver::onPublish(topic, tag, cached, updated, suppressed);
    }

   private:
    const Publisher publisher_;
  };
  MessageBroker broker({}, {}, {});
  const auto echo = std::make_shared<Echo>(broker);
  broker.attach(echo);
  broker.start();
  publish(Publisher(broker, "t", "g"), "1");
  EXPECT_EQ(echo->journal.lines(2), (Lines{"publish t g 1 1 0", "publish echo default 1 1 0"}));
}

}  // namespace
}  // namespace tessel::test
