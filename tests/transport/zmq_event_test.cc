#include "transport/zmq_event.h"

#include <gtest/gtest.h>
#include <zmq.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "support/deadline.h"
#include "support/threads.h"
#include "transport/zmq_context.h"

namespace tessel::test {
namespace {

bool readable(const ZmqEvent& event) {
  zmq_pollitem_t item = {event.pollHandle(), 0, ZMQ_POLLIN, 0};
  return zmq_poll(&item, 1, 0) == 1;
}

// Whether a socket of the process is bound to the name.
bool isTaken(const std::string& endpoint) {
  void* const socket = zmq_socket(ZmqContext::handle(), ZMQ_PAIR);
  const bool taken = zmq_bind(socket, endpoint.c_str()) != 0 && zmq_errno() == EADDRINUSE;
  if (!taken) zmq_unbind(socket, endpoint.c_str());  // at once; a close takes effect later
  zmq_close(socket);
  return taken;
}

TEST(ZmqEvent, IsNumberedFromZeroInEveryProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process that has made no event yet
  EXPECT_EXIT(
      {
        const bool nothingBefore = !isTaken("inproc://zmqevent0");
        ZmqEvent first;
        const bool firstIsZero = first.endpoint() == "inproc://zmqevent0" &&
                                 isTaken("inproc://zmqevent0") && !isTaken("inproc://zmqevent1");
        ZmqEvent second;
        const bool secondIsOne =
            second.endpoint() == "inproc://zmqevent1" && isTaken("inproc://zmqevent1");
        std::_Exit(nothingBefore && firstIsZero && secondIsOne ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(ZmqEvent, NumbersAreNotUsedAgain) {
  std::string first;
  {
    const ZmqEvent event;
    first = event.endpoint();
  }
  EXPECT_NE(ZmqEvent().endpoint(), first);
}

TEST(ZmqEvent, IsQuietUntilSignalled) {
  ZmqEvent event;
  EXPECT_FALSE(readable(event));
  event.signal();
  EXPECT_TRUE(readable(event));
  event.consume();
  EXPECT_FALSE(readable(event));
}

TEST(ZmqEvent, CountsSignals) {
  ZmqEvent event;
  for (int i = 0; i < 100; ++i) event.signal();
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(readable(event)) << i;
    event.consume();
  }
  EXPECT_FALSE(readable(event));
}

TEST(ZmqEvent, SignalIsOneEmptyFrame) {
  ZmqEvent event;
  event.signal();
  zmq_msg_t message;
  zmq_msg_init(&message);
  ASSERT_EQ(zmq_msg_recv(&message, event.pollHandle(), ZMQ_DONTWAIT), 0);
  EXPECT_EQ(zmq_msg_more(&message), 0);
  zmq_msg_close(&message);
}

TEST(ZmqEvent, ConsumeWaitsForASignal) {
  ZmqEvent event;
  std::atomic<bool> signalled{false};
  bool inOrder = false;
  std::atomic<int> waiting{0};
  std::thread loop([&] {
    waiting = thisThread();
    event.consume();
    inOrder = signalled.load();
  });
  EXPECT_TRUE(eventually([&] { return waiting != 0; }));
  EXPECT_TRUE(waitUntilAsleep(waiting));
  signalled = true;
  event.signal();
  loop.join();
  EXPECT_TRUE(inOrder);
}

TEST(ZmqEvent, WakesAThreadThatPolls) {
  ZmqEvent event;
  std::thread loop([&] {
    for (int i = 0; i < 50; ++i) {
      zmq_pollitem_t item = {event.pollHandle(), 0, ZMQ_POLLIN, 0};
      while (zmq_poll(&item, 1, -1) != 1) {
      }
      event.consume();
    }
  });
  for (int i = 0; i < 50; ++i) event.signal();
  loop.join();
  EXPECT_FALSE(readable(event));
}

TEST(ZmqEvent, EventsDoNotMeet) {
  ZmqEvent one;
  ZmqEvent other;
  one.signal();
  EXPECT_FALSE(readable(other));
  EXPECT_TRUE(readable(one));
}

}  // namespace
}  // namespace tessel::test
