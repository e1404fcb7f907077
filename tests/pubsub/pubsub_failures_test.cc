// That the broker's and the dispatcher's threads do not try to survive a socket that fails them. In
// a program of its own, since it stands in for functions of libzmq.

#include <gtest/gtest.h>
#include <tessel/message_broker.h>
#include <tessel/message_dispatcher.h>
#include <zmq.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <string>
#include <thread>

#include "support/broker_peers.h"
#include "support/failing_zmq_calls.h"
#include "support/raw_broker.h"
#include "support/watchdog.h"
#include "support/zmq_errors.h"

namespace tessel::test {
namespace {

class PubsubFailureDeathTest : public ::testing::Test {
 protected:
  PubsubFailureDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

// Everything that a broker does: it is published and subscribed to, and has a value to replay.
void runBroker(const Failure& chosen) {
  const std::string cache = uniqueInproc();
  MessageBroker broker({}, {}, {cache});
  RawPeer in(ZMQ_PUSH);
  in.connect(broker.getInprocPullTransport()).send(publication("t", "g", "1", 1));
  RawPeer cached(ZMQ_SUB);
  cached.connect(cache).subscribe("t:g");
  arm(chosen);
  broker.start();
  eventually([] { return false; });  // it is over long before
}

TEST_F(PubsubFailureDeathTest, OnABrokersThreadEndsTheProcess) {
  for (const Failure& chosen :
       {Failure{"zmq_poll", -1, EFAULT}, Failure{"zmq_msg_recv", ZMQ_PULL, ENOTSOCK},
        Failure{"zmq_msg_recv", ZMQ_XPUB, ENOTSOCK}, Failure{"zmq_msg_send", ZMQ_PUB, ENOTSOCK},
        Failure{"zmq_msg_send", ZMQ_PUB, EAGAIN}, Failure{"zmq_msg_send", ZMQ_XPUB, ENOTSOCK}}) {
    EXPECT_EXIT(runBroker(chosen), ::testing::KilledBySignal(SIGABRT), zmq_strerror(chosen.error))
        << chosen.function << " of type " << chosen.socketType;
  }
}

void replay(const Failure& chosen) {
  const std::string cache = uniqueInproc();
  MessageBroker broker({}, {}, {cache});
  const auto observer = std::make_shared<RecordingBrokerObserver>();
  broker.attach(observer);
  broker.start();
  RawPeer in(ZMQ_PUSH);
  in.connect(broker.getInprocPullTransport()).send(publication("t", "g", "1", 1));
  observer->journal.waitFor(1);
  arm(chosen);
  RawPeer cached(ZMQ_SUB);
  cached.connect(cache).subscribe("t:g");
  eventually([] { return false; });
}

TEST_F(PubsubFailureDeathTest, OfAReplayEndsTheProcess) {
  EXPECT_EXIT(replay({"zmq_msg_send", ZMQ_XPUB, ENOTSOCK}), ::testing::KilledBySignal(SIGABRT),
              zmq_strerror(ENOTSOCK));
}

TEST(PubsubFailures, OfTheSignalThatARegistrationNeedsMakesNoneAndTheNextOneWorks) {
  const Watchdog watchdog("a dispatcher that could not be woken once");
  RawBroker broker;
  MessageDispatcher dispatcher(broker.updatesEndpoint, broker.cacheEndpoint, 1);
  dispatcher.start();
  const auto failed = std::make_shared<RecordingSubscriber>(SubscriptionMode::AllValues, "a", "");
  const auto next = std::make_shared<RecordingSubscriber>(SubscriptionMode::AllValues, "b", "");
  onTestThread = true;
  arm({"zmq_msg_send", ZMQ_PAIR, ENOTSOCK});
  EXPECT_ZMQ_ERROR(dispatcher.registerSubscriber(failed), ENOTSOCK);
  EXPECT_ZMQ_ERROR(dispatcher.unregisterSubscriber(failed), ENOTSOCK);
  armed = false;
  dispatcher.registerSubscriber(next);
  EXPECT_EQ(broker.cache.receive(), subscribed("b:default"));
  dispatcher.stop();
}

void runDispatcher(const Failure& chosen) {
  const RawBroker broker;
  MessageDispatcher dispatcher(broker.updatesEndpoint, broker.cacheEndpoint, 1);
  const auto subscriber =
      std::make_shared<RecordingSubscriber>(SubscriptionMode::AllValues, "t", "");
  arm(chosen);
  dispatcher.start();
  dispatcher.registerSubscriber(subscriber);
  eventually([] { return false; });
}

TEST_F(PubsubFailureDeathTest, OnADispatchersThreadEndsTheProcess) {
  for (const Failure& chosen :
       {Failure{"zmq_poll", -1, EFAULT}, Failure{"zmq_msg_recv", ZMQ_SUB, ENOTSOCK},
        Failure{"zmq_msg_recv", ZMQ_PAIR, ENOTSOCK}, Failure{"zmq_setsockopt", ZMQ_SUB, ENOMEM}}) {
    EXPECT_EXIT(runDispatcher(chosen), ::testing::KilledBySignal(SIGABRT),
                zmq_strerror(chosen.error))
        << chosen.function << " of type " << chosen.socketType;
  }
}

}  // namespace
}  // namespace tessel::test
