#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <tessel/rpc_broker.h>
#include <tessel/rpc_client.h>
#include <tessel/rpc_error.h>

#include <atomic>
#include <chrono>
#include <future>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "support/call_outcome.h"
#include "support/endpoints.h"
#include "support/no_hang.h"
#include "support/rpc_peers.h"
#include "support/text_of.h"
#include "support/threads.h"

namespace tessel::test {
namespace {

using std::chrono::milliseconds;

static_assert(std::has_virtual_destructor<RpcClient>::value, "exported");
static_assert(!std::is_copy_constructible<RpcClient>::value, "neither copied");
static_assert(!std::is_move_constructible<RpcClient>::value, "nor moved");

constexpr milliseconds kForEver{-1};
const char* const kTimeout = "timeout RPC timeout";

// A bare ROUTER as the broker. The client calls on the test's thread, so that its socket stays the
// same from call to call; the broker meanwhile has a thread of its own.
class RpcClientRemote : public testing::Test {
 protected:
  RpcClientRemote() : endpoint(bindTcp(broker)) {}

  // A call during which the broker does `serve`.
  template <typename Serve>
  std::string callWhile(RpcClient& caller, const Serve& serve) {
    auto served = std::async(std::launch::async, serve);
    const std::string outcome = outcomeOf(caller, "service", "instance");
    served.get();
    return outcome;
  }
  // A call that is answered by these frames, without more about them than the client's identity.
  std::string callAnswered(RpcClient& caller, Frames frames) {
    return callWhile(caller, [this, frames = std::move(frames)]() mutable {
      lastRequest = broker.receive();
      if (lastRequest.empty()) return;
      frames.insert(frames.begin(), lastRequest.front());
      broker.send(frames);
    });
  }
  std::string callAnswered(const Frames& frames) { return callAnswered(client, frames); }
  static Frames reply(int status, const std::string& payload) {
    return enveloped({}, replyFrames(status, payload));
  }
  // The identity of the socket by which this thread calls now.
  std::string identity() {
    EXPECT_EQ(callAnswered(reply(0, "")), "result ");
    return lastRequest.empty() ? "" : lastRequest.front();
  }

  RawPeer broker{ZMQ_ROUTER};
  const std::string endpoint;
  RpcClient client{endpoint, kForEver};
  Frames lastRequest;
};

TEST_F(RpcClientRemote, SendsTheCallAsItStandsOnTheWire) {
  callAnswered(reply(0, "result"));
  ASSERT_EQ(lastRequest.size(), 9U);
  lastRequest.erase(lastRequest.begin());
  EXPECT_EQ(lastRequest,
            (Frames{"", "RS02", kNul, kNul, "service", "instance", "method", "payload"}));
}

TEST_F(RpcClientRemote, SendsNamesAndPayloadsOfAnyBytes) {
  const std::string odd = bytes("\0:\xFF\n", 4);
  const std::string large(3000000, 'l');
  auto served = std::async(std::launch::async, [&] {
    for (int i = 0; i < 2; ++i) {
      lastRequest = broker.receive();
      broker.send({lastRequest.front(), "", "RS02", "\x01", "", kNul, lastRequest.back()});
      if (i != 0) continue;
      EXPECT_EQ(Frames(lastRequest.begin() + 5, lastRequest.end()),
                (Frames{odd, "", odd + odd, ""}));
    }
  });
  Buffer out;
  std::size_t size = 7;
  client.CallMethod(odd, "", odd + odd, nullptr, 0, out, size);
  EXPECT_EQ(size, 0U);
  client.CallMethod("", "", "", large.data(), large.size(), out, size);
  EXPECT_TRUE(text(out, size) == large);
  served.get();
}

TEST_F(RpcClientRemote, WorksWithARep) {
  RawPeer rep(ZMQ_REP);
  RpcClient caller(bindTcp(rep), kForEver);
  const std::string outcome = callWhile(caller, [&] {
    EXPECT_EQ(rep.receive(), requestFrames("service", "instance", "method", "payload"));
    rep.send(replyFrames(0, "result"));
  });
  EXPECT_EQ(outcome, "result result");
}

TEST_F(RpcClientRemote, TurnsEveryStatusIntoItsEnd) {
  EXPECT_EQ(callAnswered(reply(0, "result")), "result result");
  EXPECT_EQ(callAnswered(reply(1, "text")), "service text");
  EXPECT_EQ(callAnswered(reply(2, "text")), "broker text");
  EXPECT_EQ(callAnswered(reply(3, bytes("\0\xFF", 2))), "custom " + bytes("\0\xFF", 2));
  for (const char* kind : {"service ", "broker ", "custom "}) {
    const int status = kind[0] == 's' ? 1 : kind[0] == 'b' ? 2 : 3;
    EXPECT_EQ(callAnswered(reply(status, "")), kind);
  }
}

TEST_F(RpcClientRemote, AnyOtherStatusIsABrokerErrorOfItsOwn) {
  auto served = std::async(std::launch::async, [&] {
    for (int status = 4; status < 256; ++status) {
      Frames frames = reply(status, "text");
      frames.insert(frames.begin(), broker.receive().front());
      broker.send(frames);
    }
  });
  for (int status = 4; status < 256; ++status) {
    EXPECT_EQ(outcomeOf(client, "s", "i"), "broker unknown response type") << status;
  }
  served.get();
}

TEST_F(RpcClientRemote, AnEmptyResultIsAnArrayOfNoBytes) {
  auto served = std::async(std::launch::async, [&] {
    broker.send({broker.receive().front(), "", "RS02", "\x01", kNul, kNul, ""});
  });
  Buffer out;
  std::size_t size = 7;
  client.CallMethod("s", "i", "m", "", 0, out, size);
  EXPECT_NE(out, nullptr);
  EXPECT_EQ(size, 0U);
  served.get();
}

TEST_F(RpcClientRemote, AResultReplacesWhatWasThere) {
  auto served = std::async(std::launch::async, [&] {
    broker.send({broker.receive().front(), "", "RS02", "\x01", kNul, kNul, "new"});
  });
  Buffer out;
  std::size_t size = 0;
  give("something old", out, size);
  client.CallMethod("s", "i", "m", "", 0, out, size);
  EXPECT_EQ(text(out, size), "new");
  served.get();
}

TEST_F(RpcClientRemote, AFailureLeavesTheCallersBufferAlone) {
  Buffer out;
  std::size_t size = 0;
  give("untouched", out, size);
  const std::uint8_t* before = out.get();
  for (const int status : {1, 2, 3, 4, 255}) {
    auto served = std::async(std::launch::async, [&] {
      Frames frames = reply(status, "text");
      frames.insert(frames.begin(), broker.receive().front());
      broker.send(frames);
    });
    EXPECT_THROW(client.CallMethod("s", "i", "m", "", 0, out, size), rpc_error);
    served.get();
    EXPECT_EQ(out.get(), before);
    EXPECT_EQ(text(out, size), "untouched");
  }
  client.setReceiveTimeout(milliseconds(0));
  EXPECT_THROW(client.CallMethod("s", "i", "m", "", 0, out, size), rpc_timeout);
  EXPECT_EQ(text(out, size), "untouched");
}

TEST_F(RpcClientRemote, LargePayloadsOfErrorsArriveWhole) {
  const std::string large(3000000, 'l');
  EXPECT_TRUE(callAnswered(reply(3, large)) == "custom " + large);
  EXPECT_TRUE(callAnswered(reply(1, large)) == "service " + large);
  EXPECT_TRUE(callAnswered(reply(0, large)) == "result " + large);
}

TEST_F(RpcClientRemote, DoesNotLookAtTheReservedFrameOfAReply) {
  for (const std::string& reserved : {std::string(), std::string("anything")}) {
    EXPECT_EQ(callAnswered(enveloped({}, replyFrames(0, "ok", reserved))), "result ok");
  }
}

// Over TCP a short frame is read into memory that still holds the byte of the frame before it.
TEST_F(RpcClientRemote, AnEmptyStatusIsZeroAndOfALongOneTheFirstByteCounts) {
  EXPECT_EQ(callAnswered({"", "RS02", "\x01", "\x03", "", "ok"}), "result ok");
  EXPECT_EQ(callAnswered({"", "RS02", "\x01", "", bytes("\x01\0\x02", 3), "text"}), "service text");
}

TEST_F(RpcClientRemote, AReplyThatCannotBeReadIsATimeoutAtOnceAndRenewsTheSocket) {
  const std::vector<Frames> malformed = {
      {"RS01", "\x01", "", kNul, "ok"},
      {"rs02", "\x01", "", kNul, "ok"},
      {"RS022", "\x01", "", kNul, "ok"},
      {"RS0", "\x01", "", kNul, "ok"},
      {"", "\x01", "", kNul, "ok"},
      {"RS02", kNul, "", kNul, "ok"},
      {"RS02", "\x02", "", kNul, "ok"},
      {"RS02", "\x03", "", kNul, "ok"},
      {"RS02", "\xFF", "", kNul, "ok"},
      {"RS02", "", "", kNul, "ok"},
      {"RS02", bytes("\x01\x01", 2), "", kNul, "ok"},
      {"RS02"},
      {"RS02", "\x01"},
      {"RS02", "\x01", ""},
      {"RS02", "\x01", "", kNul},
      {"RS02", "\x01", "", kNul, "ok", "one too many"},
      {"RS02", "\x01", "", kNul, "ok", "", "", "", "", ""},
      {""},
      {"", "", ""},
  };
  std::string before = identity();
  for (const Frames& frames : malformed) {
    EXPECT_EQ(callAnswered(enveloped({}, frames)), kTimeout) << testing::PrintToString(frames);
    const std::string after = identity();
    EXPECT_NE(after, before) << testing::PrintToString(frames);
    before = after;
  }
}

TEST_F(RpcClientRemote, KeepsItsSocketWhateverAnAnswerSays) {
  const std::string before = identity();
  for (const int status : {0, 1, 2, 3, 4, 255}) {
    callAnswered(reply(status, ""));
    EXPECT_EQ(lastRequest.front(), before) << status;
  }
}

TEST_F(RpcClientRemote, AReplyWithoutADelimiterIsNotSeen) {
  client.setReceiveTimeout(milliseconds(50));
  EXPECT_EQ(callAnswered(replyFrames(0, "ok")), kTimeout);
  client.setReceiveTimeout(kForEver);
  EXPECT_EQ(callAnswered(reply(0, "ok")), "result ok");
}

TEST_F(RpcClientRemote, ATimeoutComesWhenItsTimeIsOver) {
  client.setReceiveTimeout(milliseconds(80));
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_EQ(outcomeOf(client, "s", "i"), kTimeout);
  EXPECT_GE(std::chrono::steady_clock::now() - begun, milliseconds(79));
}

TEST_F(RpcClientRemote, AfterATimeoutTheNextCallGoesByANewSocket) {
  const std::string before = identity();
  client.setReceiveTimeout(milliseconds(0));
  EXPECT_EQ(outcomeOf(client, "s", "i"), kTimeout);
  client.setReceiveTimeout(kForEver);
  // The abandoned request may have been lost with its socket, so it is not asked for.
  const std::string outcome = callWhile(client, [&] {
    do {
      lastRequest = broker.receive();
    } while (!lastRequest.empty() && lastRequest.front() == before);
    broker.send({lastRequest.front(), "", "RS02", "\x01", "", kNul, "ok"});
  });
  EXPECT_EQ(outcome, "result ok");
  EXPECT_NE(lastRequest.front(), before);
}

TEST_F(RpcClientRemote, ALateReplyIsNeverSeen) {
  client.setReceiveTimeout(milliseconds(500));
  Frames abandoned;
  EXPECT_EQ(callWhile(client, [&] { abandoned = broker.receive(); }), kTimeout);
  client.setReceiveTimeout(kForEver);
  const std::string outcome = callWhile(client, [&] {
    const Frames current = broker.receive();
    EXPECT_NE(current.front(), abandoned.front());
    broker.send({abandoned.front(), "", "RS02", "\x01", "", kNul, "late"});
    broker.send({current.front(), "", "RS02", "\x01", "", kNul, "in time"});
  });
  EXPECT_EQ(outcome, "result in time");
}

TEST_F(RpcClientRemote, ANewTimeoutCountsFromTheNextCall) {
  EXPECT_EQ(client.receiveTimeout(), kForEver);
  client.setReceiveTimeout(milliseconds(123));
  EXPECT_EQ(client.receiveTimeout(), milliseconds(123));
  const milliseconds most(std::numeric_limits<std::int64_t>::max());
  client.setReceiveTimeout(most);
  EXPECT_EQ(client.receiveTimeout(), most);
  EXPECT_EQ(RpcClient(endpoint, milliseconds(-7)).receiveTimeout(), milliseconds(-7));
}

// Cut off at 32 bits, one of these would be a negative time and another none at all.
TEST_F(RpcClientRemote, TimesBeyond32BitsWaitForEver) {
  const int caller = thisThread();
  for (const std::int64_t timeout :
       {std::int64_t{-1}, std::int64_t{2147483647}, std::int64_t{2147483648},
        std::int64_t{4294967296}, std::numeric_limits<std::int64_t>::max()}) {
    client.setReceiveTimeout(milliseconds(timeout));
    const std::string outcome = callWhile(client, [&] {
      const Frames request = broker.receive();
      waitUntilAsleep(caller);
      broker.send({request.front(), "", "RS02", "\x01", "", kNul, "ok"});
    });
    EXPECT_EQ(outcome, "result ok") << timeout;
  }
}

TEST_F(RpcClientRemote, OtherNegativeTimesAreRefusedByTheCallAndNothingIsSent) {
  const std::string refused = std::string("runtime ") + zmq_strerror(EINVAL);
  const auto least = std::numeric_limits<std::int64_t>::min();
  const std::int64_t wholeWord = std::int64_t{1} << 32;
  for (const std::int64_t timeout : {std::int64_t{-2}, std::int64_t{-1000}, -wholeWord / 2,
                                     -wholeWord - 1, -wholeWord, 1000 - wholeWord, least}) {
    client.setReceiveTimeout(milliseconds(timeout));
    EXPECT_EQ(outcomeOf(client, "refused", "i"), refused) << timeout;
  }
  client.setReceiveTimeout(kPatience);
  EXPECT_EQ(callAnswered(reply(0, "ok")), "result ok");
  EXPECT_EQ(lastRequest[5], "service");
}

TEST_F(RpcClientRemote, ConnectsOnlyWhenItCalls) {
  RpcClient nowhere("nonsense", kForEver);
  RpcClient empty("", kForEver);
}

TEST_F(RpcClientRemote, AnEndpointThatCannotBeConnectedIsRefusedByEveryCall) {
  RpcClient nowhere("nonsense", kForEver);
  withoutHanging("a call", [&] {
    const std::string refused = std::string("runtime ") + zmq_strerror(EINVAL);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(outcomeOf(nowhere, "s", "i"), refused);
  });
}

TEST_F(RpcClientRemote, ClientsOfAThreadShareItsSocketToAnEndpoint) {
  const std::string first = identity();
  {
    RpcClient other(endpoint, kForEver);
    EXPECT_EQ(callAnswered(other, reply(0, "ok")), "result ok");
    EXPECT_EQ(lastRequest.front(), first);
  }
  EXPECT_EQ(identity(), first);  // the end of one leaves it to the others
}

TEST_F(RpcClientRemote, ATimeoutIsTheClientsAndNotTheSockets) {
  RpcClient hasty(endpoint, milliseconds(0));
  EXPECT_EQ(callAnswered(reply(0, "ok")), "result ok");
  EXPECT_EQ(outcomeOf(hasty, "s", "i"), kTimeout);
  const std::string outcome = callWhile(client, [&] {
    Frames request = broker.receive();
    if (request[5] == "s") request = broker.receive();  // unless it was lost with its socket
    broker.send({request.front(), "", "RS02", "\x01", "", kNul, "waited for"});
  });
  EXPECT_EQ(outcome, "result waited for");
}

TEST_F(RpcClientRemote, ThreadsHaveSocketsOfTheirOwn) {
  const std::string here = identity();
  std::string there;
  std::thread([&] { there = identity(); }).join();
  EXPECT_NE(there, here);
  EXPECT_EQ(identity(), here);
}

TEST_F(RpcClientRemote, TwoEndpointsAreTwoSockets) {
  RawPeer second(ZMQ_ROUTER);
  RpcClient other(bindTcp(second), kForEver);
  const std::string before = identity();
  const std::string outcome = callWhile(other, [&] {
    second.send({second.receive().front(), "", "RS02", "\x01", "", kNul, "from the second"});
  });
  EXPECT_EQ(outcome, "result from the second");
  EXPECT_EQ(identity(), before);
}

void ignoreSignal(int) {}

// Signals that end system calls, as they come without SA_RESTART.
class Interruptions {
 public:
  Interruptions() {
    struct sigaction action = {};
    action.sa_handler = ignoreSignal;
    sigaction(SIGUSR1, &action, &before_);
  }
  ~Interruptions() { sigaction(SIGUSR1, &before_, nullptr); }

 private:
  struct sigaction before_ = {};
};

TEST_F(RpcClientRemote, AnInterruptedCallThrowsAndTheNextOneWorks) {
  const Interruptions interruptions;
  std::atomic<bool> interrupted{false};
  Gate gate;
  std::string first;
  std::string second;
  std::thread caller([&] {
    first = outcomeOf(client, "first", "i");
    interrupted = true;
    gate.pass();
    second = outcomeOf(client, "second", "i");
  });
  const Frames abandoned = broker.receive();
  EXPECT_TRUE(eventually([&] {
    if (!interrupted) pthread_kill(caller.native_handle(), SIGUSR1);
    return interrupted.load();
  }));
  broker.send({abandoned.front(), "", "RS02", "\x01", "", kNul, "late"});
  gate.open();
  const std::optional<Frames> request = broker.tryReceive(kPatience);
  if (request.has_value()) {
    EXPECT_EQ((*request)[5], "second");
    broker.send({request->front(), "", "RS02", "\x01", "", kNul, "ok"});
  }
  caller.join();
  EXPECT_EQ(first, std::string("runtime ") + zmq_strerror(EINTR));
  EXPECT_EQ(second, "result ok");
}

// A broker of this process takes its endpoint with it; nobody will ever bind it again.
TEST(RpcClientOfADestroyedBroker, TimesOut) {
  auto broker =
      std::make_shared<RpcBroker>(true, Lines{}, std::make_shared<ThreadedRpcDispatcher>());
  broker->registerService(answering("s", "i", "ok"));
  broker->start();
  RpcClient client(broker, kPatience);
  EXPECT_EQ(outcomeOf(client, "other", "i"), "broker service not found: other - i");
  client.setReceiveTimeout(milliseconds(20));
  broker.reset();
  withoutHanging("a call", [&] {
    for (int i = 0; i < 3; ++i) EXPECT_EQ(outcomeOf(client, "s", "i"), kTimeout);
  });
  // Also by the socket that was connected while the broker lived.
  EXPECT_EQ(outcomeOf(client, "s", "i"), kTimeout);
}

TEST(RpcClientOfADestroyedBroker, BehavesAsAClientOfItsEndpoint) {
  const std::string endpoint = uniqueInproc();
  RpcBroker master(true, {endpoint}, std::make_shared<ThreadedRpcDispatcher>(1));
  master.registerService(answering("s", "i", "from the master"));
  master.start();
  auto slave = std::make_shared<RpcBroker>(false, Lines{endpoint},
                                           std::make_shared<ThreadedRpcDispatcher>(1));
  slave->registerService(answering("s", "i", "from the slave itself"));
  slave->start();
  RpcClient client(slave, kPatience);
  EXPECT_EQ(outcomeOf(client, "s", "i"), "result from the slave itself");
  slave.reset();
  EXPECT_EQ(outcomeOf(client, "s", "i"), "result from the master");
}

TEST(RpcClientOfADestroyedBroker, ReachesTheBrokerThatTakesItsTransport) {
  const std::string endpoint = uniqueInproc();
  RpcClient client(endpoint, kPatience);
  for (const char* name : {"first", "second", "third"}) {
    RpcBroker broker(true, {endpoint}, std::make_shared<ThreadedRpcDispatcher>(1));
    broker.registerService(answering("s", "i", name));
    broker.start();
    EXPECT_EQ(outcomeOf(client, "s", "i"), std::string("result ") + name);
  }
}

TEST(RpcClient, RefusesANullBroker) {
  EXPECT_THROW(RpcClient(std::shared_ptr<RpcBroker>(), kForEver), std::invalid_argument);
}

TEST(RpcClient, CallsThroughABrokerFromEndToEnd) {
  const std::string endpoint = freeTcp();
  RpcBroker broker(true, {endpoint}, std::make_shared<ThreadedRpcDispatcher>());
  const std::string large(std::size_t{16} << 20, 'l');
  broker.registerService(echoing("echo", ""));
  broker.registerService(answering("large", "", large));
  broker.registerService(throwing("text", "", std::runtime_error("x")));
  broker.registerService(throwing("int", "", 1));
  broker.registerService(throwing("custom", "", rpc_custom_error(bytes("c\0", 2))));
  broker.registerService(throwing("timeout", "", rpc_timeout()));
  broker.start();
  RpcClient client(endpoint, kPatience);
  EXPECT_EQ(outcomeOf(client, "echo", "", "p"), "result method(p)");
  EXPECT_TRUE(outcomeOf(client, "large", "") == "result " + large);
  EXPECT_EQ(outcomeOf(client, "text", ""), "service x");
  EXPECT_EQ(outcomeOf(client, "int", ""), "service unknown exception");
  EXPECT_EQ(outcomeOf(client, "custom", ""), "custom " + bytes("c\0", 2));
  EXPECT_EQ(outcomeOf(client, "timeout", ""), "service RPC timeout");
  EXPECT_EQ(outcomeOf(client, "none", "x"), "broker service not found: none - x");
}

}  // namespace
}  // namespace tessel::test
