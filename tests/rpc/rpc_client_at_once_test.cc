// Calls that must not wait. In a program of its own, since it stands in for the function of libzmq
// by which the reply is read: what happens just before that is decided by the test.

#include <gtest/gtest.h>
#include <tessel/rpc_client.h>
#include <zmq.h>

#include <chrono>
#include <functional>
#include <string>
#include <utility>

#include "support/call_outcome.h"
#include "support/endpoints.h"
#include "support/stand_in.h"
#include "support/watchdog.h"

namespace {

// What is done once, before the next message is read; null for nothing.
std::function<void(void* socket)> beforeReading;

}  // namespace

extern "C" int zmq_msg_recv(zmq_msg_t* message, void* socket, int flags) {
  static const auto receive = tessel::test::real("zmq_msg_recv", &zmq_msg_recv);
  if (const auto now = std::exchange(beforeReading, nullptr)) now(socket);
  return receive(message, socket, flags);
}

namespace tessel::test {
namespace {

using std::chrono::milliseconds;

class RpcClientAtOnce : public testing::Test {
 protected:
  RpcClientAtOnce() { broker.bind(endpoint); }

  // A call that is answered before the client looks for the answer.
  std::string callAnswered() {
    beforeReading = [this](void* socket) {
      Frames answer = replyFrames(0, "ok");
      answer.insert(answer.begin(), {broker.receive().front(), ""});
      broker.send(answer);
      zmq_pollitem_t item = {socket, 0, ZMQ_POLLIN, 0};
      EXPECT_EQ(zmq_poll(&item, 1, static_cast<long>(milliseconds(kPatience).count())), 1);
    };
    return outcomeOf(client, "s", "i");
  }

  const std::string endpoint = uniqueInproc();
  RawPeer broker{ZMQ_ROUTER};
  RpcClient client{endpoint, milliseconds(0)};
};

TEST_F(RpcClientAtOnce, HasTheAnswerThatIsAlreadyThere) {
  EXPECT_EQ(callAnswered(), "result ok");
  EXPECT_EQ(callAnswered(), "result ok");
}

TEST_F(RpcClientAtOnce, FailsWithoutWaitingWhenNoneIsThere) {
  const Watchdog watchdog("a call that must not wait");
  client.setReceiveTimeout(std::chrono::minutes(1));
  EXPECT_EQ(callAnswered(), "result ok");
  client.setReceiveTimeout(milliseconds(0));
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_EQ(outcomeOf(client, "s", "i"), "timeout RPC timeout");
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(5));
}

}  // namespace
}  // namespace tessel::test
