// That the broker's thread does not try to survive a socket that fails it. In a program of its own,
// since it stands in for functions of libzmq.

#include <gtest/gtest.h>
#include <tessel/rpc_broker.h>
#include <zmq.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "support/deadline.h"
#include "support/endpoints.h"
#include "support/failing_zmq_calls.h"
#include "support/rpc_peers.h"
#include "support/threads.h"
#include "support/watchdog.h"
#include "support/watched_joins.h"

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

// A master whose thread is held up in its receive, without a look at anything else, until both a
// message and the stop are there. It has just served the sender, and so takes first what came
// first.
class RpcMasterWithAMessageAtItsStop : public ::testing::Test {
 protected:
  RpcMasterWithAMessageAtItsStop() {
    broker_->registerService(echoing("s", "i"));
    broker_->start();
    client_.connect(endpoint_);
  }
  ~RpcMasterWithAMessageAtItsStop() override { armed = false; }

  // Once all is served that the sender has sent, and a call behind it.
  void holdAfterServing(RawPeer& sender) {
    const auto holder = std::make_shared<Holder>();
    const int before = failed;
    broker_->attach(holder);
    callUnknown(sender, "hold");
    ASSERT_TRUE(eventually([&] { return failed > before + 3; }));
    broker_->detach(holder);
  }
  // What was sent to the held master is there; lets it go when the stop is, too.
  void stopAndLetGo(bool clear = false) {
    const int before = joinsBegun;
    const ScopedThread stop([&] { broker_->stop(clear, clear); });
    EXPECT_TRUE(waitForJoins(before, 1));  // the thread has been woken
    armed = false;
  }
  void stopTogetherWith(RawPeer& sender, const Frames& message, bool clear = false) {
    holdAfterServing(sender);
    sender.send(message);
    stopAndLetGo(clear);
  }

  static Frames request(const std::string& payload) {
    return enveloped({}, requestFrames("s", "i", "m", payload));
  }
  static Frames result(const std::string& payload) {
    return enveloped({}, replyFrames(0, "m(" + payload + ")"));
  }
  // The broker's thread answers it, so that nothing else is on its way to that peer before.
  static void callUnknown(RawPeer& peer, const std::string& instance) {
    peer.send(enveloped({}, requestFrames("none", instance, "m", "")));
    EXPECT_EQ(peer.receive(),
              enveloped({}, replyFrames(2, "service not found: none - " + instance)));
  }
  // A raw slave with a service, which has been announced.
  void registerFrom(RawPeer& slave) {
    slave.connect(endpoint_).send(enveloped({}, registrationFrames(true, "remote", "i")));
    callUnknown(slave, "registered");
  }

  class Holder : public QuietObserver {
   public:
    void onReply(const std::string&, const std::string&, const std::string&, int, const void*,
                 std::size_t) override {
      arm({"zmq_msg_recv", ZMQ_ROUTER, EINTR});
    }
  };

  const Watchdog watchdog_{"a message together with a stop"};
  const std::string endpoint_ = uniqueInproc();
  const std::shared_ptr<KeepingDispatcher> dispatcher_ = std::make_shared<KeepingDispatcher>();
  std::unique_ptr<RpcBroker> broker_ =
      std::make_unique<RpcBroker>(true, std::vector<std::string>{endpoint_}, dispatcher_);
  RawPeer client_{ZMQ_DEALER};
};

TEST_F(RpcMasterWithAMessageAtItsStop, ServesItAtTheNextStartInItsPlace) {
  client_.send(request("first"));
  stopTogetherWith(client_, request("second"));
  EXPECT_EQ(dispatcher_->size(), 1U);
  client_.send(request("third"));
  broker_->start();
  for (const char* payload : {"first", "second", "third"}) {
    dispatcher_->runOne();
    EXPECT_EQ(client_.receive(), result(payload));
  }
}

TEST_F(RpcMasterWithAMessageAtItsStop, ServesItOnceHoweverOftenItStarts) {
  stopTogetherWith(client_, request("kept"));
  for (int i = 0; i < 20; ++i) {  // some before the thread has looked at it
    broker_->start();
    broker_->stop();
  }
  broker_->start();
  dispatcher_->runOne();
  EXPECT_EQ(client_.receive(), result("kept"));
  broker_->stop();
  broker_->start();
  callUnknown(client_, "marker");
  EXPECT_EQ(dispatcher_->size(), 0U);
}

TEST_F(RpcMasterWithAMessageAtItsStop, ServesAnotherAfterAnotherStop) {
  for (const char* payload : {"one", "another"}) {
    stopTogetherWith(client_, request(payload));
    EXPECT_EQ(dispatcher_->size(), 0U);
    broker_->start();
    dispatcher_->runOne();
    EXPECT_EQ(client_.receive(), result(payload));
  }
}

TEST_F(RpcMasterWithAMessageAtItsStop, AnswersACallOfAServiceThatTheStopHasCleared) {
  stopTogetherWith(client_, request("kept"), true);
  broker_->start();
  EXPECT_EQ(client_.receive(), enveloped({}, replyFrames(2, "service not found: s - i")));
  callUnknown(client_, "marker");
  EXPECT_EQ(dispatcher_->size(), 0U);
}

TEST_F(RpcMasterWithAMessageAtItsStop, PassesTheReplyOfASlaveOn) {
  RawPeer slave(ZMQ_DEALER);
  registerFrom(slave);
  client_.send(enveloped({}, requestFrames("remote", "i", "m", "payload")));
  const Frames forwarded = slave.receive();
  ASSERT_EQ(forwarded.size(), 9U);
  const std::string caller = forwarded.front();
  EXPECT_EQ(forwarded, enveloped({caller}, requestFrames("remote", "i", "m", "payload")));
  stopTogetherWith(slave, enveloped({caller}, replyFrames(0, "result")));
  EXPECT_FALSE(client_.readable());
  broker_->start();
  EXPECT_EQ(client_.receive(), enveloped({}, replyFrames(0, "result")));
}

TEST_F(RpcMasterWithAMessageAtItsStop, GoesByARegistrationFromTheNextStartOn) {
  RawPeer slave(ZMQ_DEALER);
  slave.connect(endpoint_);
  stopTogetherWith(slave, enveloped({}, registrationFrames(true, "remote", "i")), true);
  const auto observer = std::make_shared<RecordingRpcObserver>();
  broker_->attach(observer);
  broker_->start();
  EXPECT_TRUE(observer->journal.waitFor(1));
  client_.send(enveloped({}, requestFrames("remote", "i", "m", "")));
  const Frames forwarded = slave.receive();
  ASSERT_EQ(forwarded.size(), 9U);
  EXPECT_EQ(forwarded, enveloped({forwarded.front()}, requestFrames("remote", "i", "m", "")));
}

TEST_F(RpcMasterWithAMessageAtItsStop, DropsItWhenItsBodyIsMalformed) {
  Frames tooShort = request("short");
  tooShort.pop_back();
  Frames tooLong = request("long");
  tooLong.emplace_back("more");
  for (const Frames& malformed : {tooShort, tooLong}) {
    stopTogetherWith(client_, malformed);
    client_.send(request("good"));
    broker_->start();
    dispatcher_->runOne();
    EXPECT_EQ(client_.receive(), result("good"));
    EXPECT_EQ(dispatcher_->size(), 0U);
  }
}

// What is left of the request is not taken from the next one.
TEST_F(RpcMasterWithAMessageAtItsStop, ServesOthersWhenItsSenderHasGone) {
  auto gone = std::make_unique<RawPeer>(ZMQ_DEALER);
  gone->connect(endpoint_);
  stopTogetherWith(*gone, request("gone"));
  client_.send(request("other"));
  gone.reset();
  broker_->start();
  for (int i = 0; i < 2; ++i) dispatcher_->runOne();  // that of the one who has gone, too
  EXPECT_EQ(client_.receive(), result("other"));
}

TEST_F(RpcMasterWithAMessageAtItsStop, TakesItAlongWhenItIsDestroyed) {
  stopTogetherWith(client_, request("kept"));
  broker_.reset();
  RpcBroker next(true, {endpoint_}, dispatcher_);
  next.start();
  RawPeer client(ZMQ_DEALER);
  client.connect(endpoint_);
  callUnknown(client, "marker");
  EXPECT_EQ(dispatcher_->size(), 0U);
}

}  // namespace
}  // namespace tessel::test
