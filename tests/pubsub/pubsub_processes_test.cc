#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tessel/message_broker.h>
#include <tessel/publisher.h>

#include <string>

#include "support/broker_peers.h"
#include "support/child_process.h"

namespace tessel::test {
namespace {

const char* const kProgram = TESSEL_PUBSUB_PROCESS;

// Across processes, so over TCP or ipc.
class PubsubProcesses : public testing::TestWithParam<std::string> {
 protected:
  static std::string endpoint() { return GetParam() == "tcp" ? freeTcp() : uniqueIpc(); }
};

TEST_P(PubsubProcesses, APublisherOfAnotherProcessReachesTheBroker) {
  const std::string pull = endpoint();
  MessageBroker broker({pull}, {}, {});
  const auto observer = std::make_shared<RecordingBrokerObserver>();
  broker.attach(observer);
  broker.start();
  ChildProcess publishing(kProgram, {"publish", pull, "topic", "", "1", "2", "2"});
  EXPECT_EQ(publishing.line(), "done");
  EXPECT_EQ(observer->journal.lines(3),
            (Lines{"publish topic default 1 1 0", "publish topic default 1 1 0",
                   "publish topic default 1 0 1"}));
  publishing.closeInput();
  EXPECT_EQ(publishing.wait(), 0);
}

TEST_P(PubsubProcesses, ItsValuesWaitForTheBrokerToBeMade) {
  const std::string pull = endpoint();
  ChildProcess publishing(kProgram, {"publish", pull, "t", "g", "1", "2"});
  EXPECT_EQ(publishing.line(), "done");  // without anybody to connect to
  MessageBroker broker({pull}, {}, {});
  const auto observer = std::make_shared<RecordingBrokerObserver>();
  broker.attach(observer);
  broker.start();
  EXPECT_EQ(observer->journal.lines(2), (Lines{"publish t g 1 1 0", "publish t g 1 1 0"}));
}

TEST_P(PubsubProcesses, ItsWithdrawalAtTheEndArrives) {
  const std::string pull = endpoint();
  MessageBroker broker({pull}, {}, {});
  const auto observer = std::make_shared<RecordingBrokerObserver>();
  broker.attach(observer);
  broker.start();
  ChildProcess publishing(kProgram, {"withdraw", pull, "t", "g", "1"});
  EXPECT_EQ(publishing.line(), "done");
  EXPECT_EQ(observer->journal.lines(2), (Lines{"publish t g 1 1 0", "unpublish t g 1 1 0"}));
}

TEST_P(PubsubProcesses, TheValuesOfOneThatIsKilledStay) {
  const std::string pull = endpoint();
  const std::string cache = endpoint();
  MessageBroker broker({pull}, {}, {cache});
  const auto observer = std::make_shared<RecordingBrokerObserver>();
  broker.attach(observer);
  broker.start();
  {
    ChildProcess publishing(kProgram, {"publish", pull, "t", "g", "1"});
    EXPECT_TRUE(observer->journal.waitFor(1));
    publishing.kill();
    EXPECT_TRUE(WIFSIGNALED(publishing.wait()));
  }
  RawPeer subscriber(ZMQ_SUB);
  subscriber.connect(cache).subscribe("t:g");
  EXPECT_EQ(subscriber.receive(), notification("t:g", "1", 1));
}

TEST_P(PubsubProcesses, ABrokerOfAnotherProcessServesThisOne) {
  const std::string pull = endpoint();
  const std::string updates = endpoint();
  const std::string cache = endpoint();
  ChildProcess serving(kProgram, {"broker", pull, updates, cache});
  EXPECT_EQ(serving.line(), "started");
  RawPeer live(ZMQ_SUB);
  RawPeer first(ZMQ_SUB);
  live.connect(updates).subscribe("t:");
  first.connect(cache).subscribe("t:g");
  Publisher publisher({pull}, "t", "g");
  publisher.enablePublishIfEqual(true);
  // The subscriptions take their time to arrive.
  EXPECT_TRUE(eventually([&] {
    publisher.publish("1", 1);
    return live.readable() && first.readable();
  }));
  EXPECT_EQ(live.receive(), notification("t:g", "1", 0));
  EXPECT_EQ(first.receive().at(1), "1");
  RawPeer second(ZMQ_SUB);
  second.connect(cache).subscribe("t:g");
  Frames frames = second.receive();
  while (frames != notification("t:g", "1", 1)) {  // a live one may come before it
    ASSERT_EQ(frames, notification("t:g", "1", 0));
    frames = second.receive();
  }
  serving.closeInput();
  EXPECT_EQ(serving.wait(), 0);
}

TEST_P(PubsubProcesses, ABrokerThatIsKilledAndMadeAgainGetsLaterValues) {
  const std::string pull = endpoint();
  const std::string cache = endpoint();
  const Publisher publisher({pull}, "t", "g");
  RawPeer subscriber(ZMQ_SUB);
  subscriber.connect(cache).subscribe("t:g");
  for (int round = 0; round < 3; ++round) {
    ChildProcess serving(kProgram, {"broker", pull, endpoint(), cache});
    EXPECT_EQ(serving.line(), "started");
    const std::string value = std::to_string(round);
    // Values that were on their way to the one that died are lost with it.
    EXPECT_TRUE(eventually([&] {
      publisher.publish(value.data(), value.size());
      const std::optional<Frames> frames = subscriber.tryReceive(std::chrono::milliseconds(10));
      return frames.has_value() && frames->at(1) == value;
    })) << round;
    serving.kill();
    serving.wait();
  }
}

TEST_P(PubsubProcesses, AnObserverThatThrowsEndsItsProcess) {
  const std::string pull = endpoint();
  ChildProcess serving(kProgram, {"throw", pull});
  EXPECT_EQ(serving.line(), "started");
  const Publisher publisher({pull}, "t", "g");
  publisher.publish("1", 1);
  const int status = serving.wait();
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGABRT);
}

INSTANTIATE_TEST_SUITE_P(Over, PubsubProcesses, testing::Values("tcp", "ipc"),
                         [](const auto& parameter) { return parameter.param; });

TEST(PubsubProcessesEach, CountTheirBrokersFromZero) {
  const MessageBroker mine({}, {}, {});
  for (int i = 0; i < 2; ++i) {
    ChildProcess other(kProgram, {"first"});
    EXPECT_EQ(other.line(), "inproc://publish_service0");
    EXPECT_EQ(other.wait(), 0);
  }
}

}  // namespace
}  // namespace tessel::test
