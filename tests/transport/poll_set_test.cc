#include "transport/poll_set.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <thread>

#include "support/deadline.h"
#include "support/endpoints.h"
#include "support/no_hang.h"
#include "support/raw_peer.h"
#include "support/threads.h"
#include "support/zmq_errors.h"
#include "transport/zmq_event.h"
#include "transport/zmq_socket.h"

namespace tessel::test {
namespace {

std::atomic<int> signalsHandled{0};

void countSignal(int /*signal*/) { ++signalsHandled; }

TEST(PollSet, TellsByPositionWhatCanBeRead) {
  ZmqEvent first;
  ZmqEvent second;
  ZmqEvent third;
  PollSet poll{first.pollHandle(), second.pollHandle(), third.pollHandle()};
  second.signal();
  poll.wait();
  EXPECT_FALSE(poll.readable(0));
  EXPECT_TRUE(poll.readable(1));
  EXPECT_FALSE(poll.readable(2));
  first.signal();
  third.signal();
  second.consume();
  poll.wait();
  EXPECT_TRUE(poll.readable(0));
  EXPECT_FALSE(poll.readable(1));
  EXPECT_TRUE(poll.readable(2));
}

TEST(PollSet, NothingIsReadableBeforeTheFirstWait) {
  ZmqEvent event;
  event.signal();
  const PollSet poll{event.pollHandle()};
  EXPECT_FALSE(poll.readable(0));
}

TEST(PollSet, WaitsUntilAnotherThreadSends) {
  ZmqEvent event;
  PollSet poll{event.pollHandle()};
  std::thread other([&] { event.signal(); });
  poll.wait();
  EXPECT_TRUE(poll.readable(0));
  other.join();
}

// Whoever has found a socket empty is told of what comes later, if only a moment.
TEST(PollSet, WakesThoseWhoHaveFoundTheirSocketsEmpty) {
  const std::string endpoint = uniqueInproc();
  RawPeer peer(ZMQ_PAIR);
  peer.bind(endpoint);
  ZmqSocket reader(ZMQ_PAIR, endpoint);
  ZmqEvent event;
  event.signal();
  PollSet poll{event.pollHandle(), reader.handle()};
  poll.wait();
  event.consume();
  const auto waitOnce = [&] {
    ZmqFrame frame;
    ASSERT_FALSE(reader.receive(frame, ZMQ_DONTWAIT));
    std::thread other([&] { peer.send({"sent"}); });
    poll.waitFoundEmpty();
    other.join();
    ASSERT_TRUE(poll.readable(1));
    ASSERT_FALSE(poll.readable(0));
    ASSERT_TRUE(reader.receive(frame, ZMQ_DONTWAIT));
  };
  withoutHanging("waiting for what comes later", [&] {
    for (int round = 0; round < 300 && !HasFatalFailure(); ++round) waitOnce();
  });
}

TEST(PollSet, DoesNotWakeForAPeerThatCouldBeWrittenTo) {
  const std::string endpoint = uniqueInproc();
  RawPeer peer(ZMQ_PAIR);
  peer.bind(endpoint);
  ZmqSocket writable(ZMQ_PAIR, endpoint);
  ZmqEvent event;
  PollSet poll{writable.handle(), event.pollHandle()};
  event.signal();
  poll.wait();
  EXPECT_FALSE(poll.readable(0));
  EXPECT_TRUE(poll.readable(1));
}

TEST(PollSet, SignalHandlersDoNotEndTheWait) {
  struct sigaction action = {};
  action.sa_handler = countSignal;
  sigemptyset(&action.sa_mask);
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);

  ZmqEvent event;
  std::string thrown;
  bool woken = false;
  std::atomic<int> waiting{0};
  std::thread loop([&] {
    PollSet poll{event.pollHandle()};
    waiting = thisThread();
    thrown = zmqErrorOf([&] { poll.wait(); });
    woken = poll.readable(0);
  });
  EXPECT_TRUE(eventually([&] { return waiting != 0; }));
  for (int sent = 1; sent <= 20; ++sent) {
    EXPECT_TRUE(waitUntilAsleep(waiting));
    pthread_kill(loop.native_handle(), SIGUSR1);
    if (!eventually([&] { return signalsHandled.load() == sent; })) break;
  }
  event.signal();
  loop.join();
  EXPECT_EQ(signalsHandled.load(), 20);
  EXPECT_EQ(thrown, "nothing thrown");
  EXPECT_TRUE(woken);
}

TEST(PollSet, ThrowsTheZmqTextWhenAHandleIsNoSocket) {
  char noSocket[4096] = {};  // memory without the mark that ZeroMQ looks for in a handle
  EXPECT_ZMQ_ERROR(PollSet{static_cast<void*>(noSocket)}, ENOTSOCK);
  ZmqEvent event;
  PollSet poll{event.pollHandle()};
  EXPECT_ZMQ_ERROR(poll.replace(0, noSocket), ENOTSOCK);
}

// The handle that wakes a waiting thread is not raised again for a message that was there already:
// whoever waits must see by itself that there is something left to read.
TEST(PollSet, SeesWhatWasLeftUnreadBeforeIt) {
  ZmqEvent event;
  PollSet poll{event.pollHandle()};
  for (int i = 0; i < 3; ++i) event.signal();
  for (int left = 3; left > 0; --left) {
    poll.wait();
    EXPECT_TRUE(poll.readable(0));
    event.consume();
  }
}

TEST(PollSet, WaitsForTheSocketThatWasMadeAnew) {
  ZmqEvent old;
  ZmqEvent made;
  PollSet poll{old.pollHandle()};
  poll.replace(0, made.pollHandle());
  std::thread other([&made, waiting = thisThread()] {
    waitUntilAsleep(waiting);
    made.signal();
  });
  poll.wait();
  EXPECT_TRUE(poll.readable(0));
  other.join();
}

}  // namespace
}  // namespace tessel::test
