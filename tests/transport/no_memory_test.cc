// What is kept and what is undone when memory runs out. In a program of its own, since it stands in
// for the allocation and for functions of ZeroMQ.

#include <gtest/gtest.h>
#include <zmq.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "support/deadline.h"
#include "support/endpoints.h"
#include "support/failing_allocations.h"
#include "support/no_hang.h"
#include "support/resources.h"
#include "support/stand_in.h"
#include "transport/inproc_endpoints.h"
#include "transport/thread_socket_cache.h"
#include "transport/work_queue.h"
#include "transport/zmq_socket.h"

extern "C" {

void* zmq_socket(void* context, int type) {
  return tessel::test::withMemory(
      [&] { return tessel::test::real("zmq_socket", &zmq_socket)(context, type); });
}
int zmq_close(void* socket) {
  return tessel::test::withMemory(
      [&] { return tessel::test::real("zmq_close", &zmq_close)(socket); });
}
int zmq_bind(void* socket, const char* endpoint) {
  return tessel::test::withMemory(
      [&] { return tessel::test::real("zmq_bind", &zmq_bind)(socket, endpoint); });
}
int zmq_connect(void* socket, const char* endpoint) {
  return tessel::test::withMemory(
      [&] { return tessel::test::real("zmq_connect", &zmq_connect)(socket, endpoint); });
}
int zmq_msg_send(zmq_msg_t* message, void* socket, int flags) {
  return tessel::test::withMemory(
      [&] { return tessel::test::real("zmq_msg_send", &zmq_msg_send)(message, socket, flags); });
}

}  // extern "C"

namespace tessel::test {
namespace {

InprocEndpoints& endpoints() { return InprocEndpoints::instance(); }

// A name that does not fit into a string without memory of its own.
std::string longInproc() { return uniqueInproc() + std::string(100, 'x'); }

void connectTo(const std::string& /*name*/) {}

TEST(InprocEndpointsWithoutMemory, ConnectNothingAndKeepNothing) {
  endpoints().connect(longInproc(), connectTo);  // the table has its first memory
  const std::string name = longInproc();
  int connects = 0;
  const std::function<void(const std::string&)> connect = [&](const std::string&) { ++connects; };
  int allocations = 0;
  const long before = allocationsOut;
  while (runsOutOfMemory(allocations, [&] { endpoints().connect(name, connect); })) {
    EXPECT_EQ(connects, 0);
    EXPECT_EQ(allocationsOut, before) << allocations;
    ASSERT_LT(++allocations, 20);
  }
  EXPECT_EQ(connects, 1);
  EXPECT_GT(allocations, 1);
  EXPECT_EQ(allocationsOut, before);  // nobody is connected any more
}

TEST(InprocEndpointsWithoutMemory, TellThoseWhoConnectedBefore) {
  const std::string name = longInproc();
  const auto connection = endpoints().connect(name, connectTo);
  const std::function<void()> unbind = [] {};
  EXPECT_FALSE(runsOutOfMemory(0, [&] { endpoints().unbind(name, unbind); }));
  EXPECT_TRUE(connection->closed());
}

TEST(InprocEndpointsWithoutMemory, LetGoOfThoseWhoWait) {
  const std::string name = longInproc();
  const auto connection = endpoints().connect(name, connectTo);
  EXPECT_FALSE(runsOutOfMemory(0, [&] { EXPECT_NE(endpoints().takeBack(*connection), ""); }));
}

TEST(InprocEndpointsWithoutMemory, BindNothing) {
  const std::string name = longInproc();
  int binds = 0;
  const std::function<bool(const std::string&)> bind = [&](const std::string&) {
    ++binds;
    return true;
  };
  int allocations = 0;
  while (runsOutOfMemory(allocations, [&] { endpoints().bind(name, bind); })) {
    EXPECT_EQ(binds, 0);
    EXPECT_FALSE(endpoints().isBound(name));
    ASSERT_LT(++allocations, 20);
  }
  EXPECT_EQ(binds, 1);
  EXPECT_GT(allocations, 0);
  EXPECT_TRUE(endpoints().isBound(name));
  endpoints().unbind(name, [] {});
}

TEST(ZmqSocketWithoutMemory, BindsNothing) {
  const std::string name = longInproc();
  ZmqSocket socket(ZMQ_PULL);
  int allocations = 0;
  while (runsOutOfMemory(allocations, [&] { socket.bind(name); })) {
    EXPECT_FALSE(endpoints().isBound(name)) << allocations;
    ASSERT_LT(++allocations, 20);
  }
  EXPECT_GT(allocations, 0);
  EXPECT_TRUE(endpoints().isBound(name));
}

// One that ZeroMQ was not even asked to connect would be waited on for ever.
TEST(ZmqSocketWithoutMemory, SendsNothingThroughOneThatCouldNotConnectAgain) {
  const std::string endpoint = longInproc();
  ThreadSocketCache cache(ZMQ_PUSH);
  auto broker = std::make_unique<ZmqSocket>(ZMQ_PULL);
  broker->bind(endpoint);
  cache.socketFor(endpoint);
  broker.reset();
  broker = std::make_unique<ZmqSocket>(ZMQ_PULL);
  broker->bind(endpoint);
  ZmqFrame value(true);
  const auto send = [&] { cache.socketFor(endpoint).sendFirst(value, 0); };
  int allocations = 0;
  withoutHanging("sending", [&] {
    while (runsOutOfMemory(allocations, send)) ASSERT_LT(++allocations, 20);
  });
  EXPECT_GT(allocations, 0);
  EXPECT_TRUE(broker->receive(value, 0));
  EXPECT_TRUE(value.firstByteAsBool());
}

// Threads end when they do, whether there is memory or not.
TEST(ThreadSocketsWithoutMemory, LeaveWhatWaitsForABroker) {
  auto sockets = std::make_unique<ThreadSockets>();
  const std::string endpoint = longInproc();
  ZmqFrame value(true);
  sockets->publishers.socketFor(endpoint).sendFirst(value, 0);
  EXPECT_FALSE(runsOutOfMemory(0, [&] { sockets.reset(); }));
  ZmqSocket broker(ZMQ_PULL);
  broker.bind(endpoint);
  EXPECT_TRUE(broker.receive(value, 0));
  EXPECT_TRUE(value.firstByteAsBool());
}

TEST(LeftSocketsWithoutMemory, CloseWhatTheyHaveNoRoomFor) {
  constexpr int kLeft = 90;  // fewer than are kept, more than there is room for at first
  ThreadSocketCache(ZMQ_PUSH).socketFor(longInproc());  // ZeroMQ has the files that it needs
  const int before = openDescriptors();
  const std::string endpoint = longInproc();
  for (int i = 0; i < kLeft; ++i) {
    auto sockets = std::make_unique<ThreadSockets>();
    sockets->publishers.socketFor(endpoint);
    EXPECT_FALSE(runsOutOfMemory(0, [&] { sockets.reset(); }));
  }
  EXPECT_TRUE(eventually([&] { return openDescriptors() < before + kLeft; }));
  ZmqSocket(ZMQ_PULL).bind(endpoint);
  EXPECT_TRUE(eventually([&] { return openDescriptors() <= before; }));
}

TEST(WorkQueueWithoutMemory, DoesNotCountATaskThatThereWasNoRoomFor) {
  WorkQueue queue(0);
  const WorkQueue::Task task = [] {};
  int pushed = 0;
  while (!runsOutOfMemory(1, [&] { queue.push(task); })) ASSERT_LT(++pushed, 10000);
  WorkQueue idle(1);
  bool ran = false;
  while (!runsOutOfMemory(0, [&] { idle.push(task); })) ASSERT_TRUE(idle.waitIdle());
  EXPECT_TRUE(idle.waitIdle());
  idle.push([&] { ran = true; });
  EXPECT_TRUE(idle.waitIdle());
  EXPECT_TRUE(ran);
}

}  // namespace
}  // namespace tessel::test
