// That the broker's thread does not try to survive a socket that fails it. In a program of its own,
// since it stands in for functions of libzmq.

#include <gtest/gtest.h>
#include <tessel/rpc_broker.h>
#include <zmq.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/deadline.h"
#include "support/endpoints.h"
#include "support/failing_zmq_calls.h"
#include "support/rpc_peers.h"
#include "support/threads.h"
#include "support/watchdog.h"

namespace tessel::test {
namespace {

class RpcFailureDeathTest : public ::testing::Test {
 protected:
  RpcFailureDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

// Everything that a broker does: a master answers and forwards, a slave announces and passes on.
void runBroker(bool master, const Failure& chosen) {
  const std::string endpoint = uniqueInproc();
  RawPeer peer(master ? ZMQ_DEALER : ZMQ_ROUTER);
  if (!master) peer.bind(endpoint);
  RpcBroker broker(master, {endpoint}, std::make_shared<KeepingDispatcher>());
  if (master) {
    peer.connect(endpoint).send(enveloped({}, requestFrames("none", "i", "m", "")));
  } else {
    broker.registerService(answering("s", "i", ""));
  }
  arm(chosen);
  broker.start();
  if (!master) broker.registerService(answering("t", "i", ""));
  eventually([] { return false; });  // it is over long before
}

TEST_F(RpcFailureDeathTest, OnAMastersThreadEndsTheProcess) {
  for (const Failure& chosen : {Failure{"zmq_msg_recv", ZMQ_ROUTER, ENOTSOCK},
                                Failure{"zmq_msg_send", ZMQ_ROUTER, ENOTSOCK}}) {
    EXPECT_EXIT(runBroker(true, chosen), ::testing::KilledBySignal(SIGABRT),
                zmq_strerror(chosen.error))
        << chosen.function << " of type " << chosen.socketType;
  }
}

TEST_F(RpcFailureDeathTest, OnASlavesThreadEndsTheProcess) {
  for (const Failure& chosen :
       {Failure{"zmq_poll", -1, EFAULT}, Failure{"zmq_msg_recv", ZMQ_DEALER, ENOTSOCK},
        Failure{"zmq_msg_recv", ZMQ_PULL, ENOTSOCK},
        Failure{"zmq_msg_send", ZMQ_DEALER, ENOTSOCK}}) {
    EXPECT_EXIT(runBroker(false, chosen), ::testing::KilledBySignal(SIGABRT),
                zmq_strerror(chosen.error))
        << chosen.function << " of type " << chosen.socketType;
  }
}

// A master waits in the receive, which a signal handler ends.
TEST(RpcFailures, SignalHandlersDoNotEndAMaster) {
  const std::string endpoint = uniqueInproc();
  RpcBroker broker(true, {endpoint}, std::make_shared<KeepingDispatcher>());
  arm({"zmq_msg_recv", ZMQ_ROUTER, EINTR});
  broker.start();
  EXPECT_TRUE(eventually([] { return failed > 3; }));
  armed = false;
  RawPeer client(ZMQ_DEALER);
  client.connect(endpoint).send(enveloped({}, requestFrames("none", "i", "m", "")));
  EXPECT_EQ(client.receive(), enveloped({}, replyFrames(2, "service not found: none - i")));
}

// The master's thread is held up in its receive, without a look at anything else, until both the
// second request and the stop are there. It knows the client, and so takes first what came first.
TEST(RpcFailures, WhatComesTogetherWithAStopWaitsForTheNextStart) {
  const Watchdog watchdog("a request together with a stop");
  const std::string endpoint = uniqueInproc();
  const auto dispatcher = std::make_shared<KeepingDispatcher>();
  RpcBroker broker(true, {endpoint}, dispatcher);
  const int before = failed;
  broker.registerService(answering("s", "i", "result"));
  dispatcher->onSubmit = [first = true]() mutable {
    if (std::exchange(first, false)) arm({"zmq_msg_recv", ZMQ_ROUTER, EINTR});
  };
  broker.start();
  RawPeer client(ZMQ_DEALER);
  client.connect(endpoint).send(enveloped({}, requestFrames("s", "i", "m", "first")));
  ASSERT_TRUE(eventually([&] { return failed > before + 3; }));
  client.send(enveloped({}, requestFrames("s", "i", "m", "second")));
  {
    std::atomic<int> stopping{0};
    const ScopedThread stop([&] {
      stopping = thisThread();
      broker.stop();
    });
    EXPECT_TRUE(eventually([&] { return stopping != 0; }));
    EXPECT_TRUE(waitUntilAsleep(stopping));  // in the join
    armed = false;
  }
  EXPECT_EQ(dispatcher->size(), 1U);
  broker.start();
  for (int i = 0; i < 2; ++i) {
    dispatcher->runOne();
    EXPECT_EQ(client.receive(), enveloped({}, replyFrames(0, "result")));
  }
}

}  // namespace
}  // namespace tessel::test
