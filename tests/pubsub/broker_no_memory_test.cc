// What a broker does when memory runs out. In a program of its own, since it stands in for the
// allocation and for two functions of ZeroMQ.

#include <gtest/gtest.h>
#include <tessel/message_broker.h>
#include <zmq.h>

#include <memory>
#include <string>

#include "support/broker_peers.h"
#include "support/endpoints.h"
#include "support/failing_allocations.h"
#include "support/raw_peer.h"
#include "support/recorders.h"
#include "support/stand_in.h"

extern "C" {

int zmq_msg_send(zmq_msg_t* message, void* socket, int flags) {
  return tessel::test::withMemory(
      [&] { return tessel::test::real("zmq_msg_send", &zmq_msg_send)(message, socket, flags); });
}
int zmq_msg_recv(zmq_msg_t* message, void* socket, int flags) {
  return tessel::test::withMemory(
      [&] { return tessel::test::real("zmq_msg_recv", &zmq_msg_recv)(message, socket, flags); });
}

}  // extern "C"

namespace tessel::test {
namespace {

constexpr unsigned long long kCached = 1;

TEST(BrokerWithoutMemory, ForgetsItsValuesAllTheSameWhenItStops) {
  const std::string topic(100, 't');  // needs memory to be named
  int allocations = 0;
  for (bool ranOut = true; ranOut; ++allocations) {
    ASSERT_LT(allocations, 50);
    const std::string cache = uniqueInproc();
    MessageBroker broker({}, {}, {cache});
    const auto observer = std::make_shared<RecordingBrokerObserver>();
    broker.attach(observer);
    broker.start();
    RawPeer in(ZMQ_PUSH);
    in.connect(broker.getInprocPullTransport());
    for (const char* tag : {"a", "b"}) in.send(publication(topic, tag, "1", kCached));
    ASSERT_TRUE(observer->journal.waitFor(2));
    ranOut = runsOutOfMemory(allocations, [&] { broker.stop(true, false); });
    broker.start();
    RawPeer late(ZMQ_SUB);
    late.connect(cache);
    for (const char* tag : {"a", "b"}) {
      const std::size_t before = observer->journal.size();
      late.subscribe(topic + ":" + tag);
      ASSERT_TRUE(observer->journal.waitFor(before + 1));
      in.send(publication(topic, tag, "2", 0));
      EXPECT_EQ(late.receive(), notification(topic + ":" + tag, "2", 0)) << allocations;
    }
    broker.stop();
  }
  EXPECT_GT(allocations, 2);
}

}  // namespace
}  // namespace tessel::test
