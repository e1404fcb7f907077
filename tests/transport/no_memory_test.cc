// What is kept and what is undone when memory runs out. In a program of its own, since it stands in
// for the allocation.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <zmq.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "support/endpoints.h"
#include "support/failing_allocations.h"
#include "transport/inproc_endpoints.h"
#include "transport/thread_socket_cache.h"
#include "transport/work_queue.h"
#include "transport/zmq_socket.h"

namespace {

// Memory runs out when so many options have been set: then a new socket is there, and nothing that
// ZeroMQ needs for it fails.
struct Shortage {
  int afterOptions = 0;
  int allocations = 0;
};
thread_local Shortage shortage;

}  // namespace

extern "C" int zmq_setsockopt(void* socket, int option, const void* value, size_t size) {
  using SetOption = int (*)(void*, int, const void*, size_t);
  static const auto setOption = reinterpret_cast<SetOption>(dlsym(RTLD_NEXT, "zmq_setsockopt"));
  const int result = setOption(socket, option, value, size);
  if (shortage.afterOptions > 0 && --shortage.afterOptions == 0) {
    tessel::test::allocationsLeft = shortage.allocations;
  }
  return result;
}

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
  // The first few are the library's own, before ZeroMQ is called.
  for (int allocations = 0; allocations < 4; ++allocations) {
    EXPECT_TRUE(runsOutOfMemory(allocations, [&] { socket.bind(name); })) << allocations;
    EXPECT_FALSE(endpoints().isBound(name));
  }
  ZmqSocket(ZMQ_PULL).bind(name);
  socket.bind(name);
  EXPECT_TRUE(endpoints().isBound(name));
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
