#include "rpc/rpc_request_impl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tessel/rpc_error.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "support/endpoints.h"
#include "support/no_hang.h"
#include "support/rpc_peers.h"
#include "support/socket_budget.h"
#include "support/threads.h"
#include "support/zmq_errors.h"
#include "transport/zmq_socket.h"

namespace tessel::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Accepts a call as a broker does, and reads what its workers send back as the broker would get it.
class RpcRequestTest : public testing::Test {
 protected:
  RpcRequestTest() {
    replies.set(ZMQ_RCVHWM, 0);
    replyEndpoint = bindTcp(replies);
    observers->attach(observer);
  }

  // `frames` go through a pair of sockets, because a request is made from what has been received.
  static std::shared_ptr<MessageRequest> received(const Frames& frames) {
    const std::string endpoint = uniqueInproc();
    ZmqSocket in(ZMQ_PULL);
    in.bind(endpoint);
    RawPeer out(ZMQ_PUSH);
    out.connect(endpoint).send(frames);
    auto message = std::make_shared<MessageRequest>();
    EXPECT_TRUE(message->receive(in));
    return message;
  }
  static Frames call(const std::string& payload = "payload") {
    return enveloped({"client"}, requestFrames("service", "instance", "method", payload));
  }
  std::shared_ptr<RpcRequestImpl> accept(const std::shared_ptr<Service>& service,
                                         const Frames& frames = call()) {
    return std::make_shared<RpcRequestImpl>(observers, service, received(frames), replyEndpoint);
  }
  // The reply without the identity of the worker's socket, which the ROUTER puts in front.
  Frames nextReply() {
    Frames reply = replies.receive();
    if (!reply.empty()) reply.erase(reply.begin());
    return reply;
  }
  Frames replyOf(const std::shared_ptr<Service>& service, const Frames& frames = call()) {
    accept(service, frames)->execute();
    return nextReply();
  }

  static Frames toClient(int status, const std::string& payload) {
    return enveloped({"client"}, replyFrames(status, payload));
  }

  RawPeer replies{ZMQ_ROUTER};
  std::string replyEndpoint;
  const std::shared_ptr<ObserverData> observers = std::make_shared<ObserverData>();
  const std::shared_ptr<RecordingRpcObserver> observer = std::make_shared<RecordingRpcObserver>();
};

const char* const kRequestLine = "request service instance method payload";

TEST_F(RpcRequestTest, SaysWhatItIsAbout) {
  const auto request = accept(nullptr);
  EXPECT_EQ(request->getServiceName(), "service");
  EXPECT_EQ(request->getInstanceName(), "instance");
  EXPECT_EQ(request->getMethodName(), "method");
}

TEST_F(RpcRequestTest, SendsTheResultAsStatusZero) {
  const Frames reply = replyOf(echoing("service", "instance"));
  EXPECT_EQ(reply, (Frames{"client", "", "RS02", "\x01", kNul, kNul, "method(payload)"}));
  EXPECT_THAT(observer->journal.lines(),
              ElementsAre(kRequestLine, "reply service instance method 0 method(payload)"));
}

TEST_F(RpcRequestTest, GivesTheServiceThePayloadWhereItLies) {
  const auto message = received(call(std::string(1000, 'x')));
  const void* seen = nullptr;
  std::size_t seenSize = 0;
  const auto service = makeService(
      "service", "instance",
      [&](const std::string&, const void* data, std::size_t size, Buffer&, std::size_t&) {
        seen = data;
        seenSize = size;
      });
  RpcRequestImpl(observers, service, message, replyEndpoint).execute();
  EXPECT_EQ(seen, message->payload());
  EXPECT_EQ(seenSize, 1000U);
  nextReply();
}

TEST_F(RpcRequestTest, BeginsWithoutABuffer) {
  bool empty = false;
  const auto service =
      makeService("service", "instance",
                  [&](const std::string&, const void*, std::size_t, Buffer& out,
                      std::size_t& outSize) { empty = out == nullptr && outSize == 0; });
  replyOf(service);
  EXPECT_TRUE(empty);
}

TEST_F(RpcRequestTest, CarriesTheWholeEnvelopeBackInItsOrder) {
  const Frames frames = enveloped({"slave", "client", std::string(300, 'e')},
                                  requestFrames("service", "instance", "method", "p"));
  const Frames expected =
      enveloped({"slave", "client", std::string(300, 'e')}, replyFrames(0, "method(p)"));
  EXPECT_EQ(replyOf(echoing("service", "instance"), frames), expected);
}

TEST_F(RpcRequestTest, AnEmptyEnvelopeStaysEmpty) {
  const Frames frames = enveloped({}, requestFrames("service", "instance", "method", "p"));
  EXPECT_EQ(replyOf(echoing("service", "instance"), frames),
            enveloped({}, replyFrames(0, "method(p)")));
}

TEST_F(RpcRequestTest, EchoesTheReservedFrameWhateverItIs) {
  for (const std::string& reserved :
       {std::string(), std::string("\x07"), bytes("\0\xFF\0", 3), std::string(5000, 'r')}) {
    const Frames frames =
        enveloped({"client"}, requestFrames("service", "instance", "method", "", reserved));
    EXPECT_EQ(replyOf(answering("service", "instance", "ok"), frames),
              enveloped({"client"}, replyFrames(0, "ok", reserved)));
  }
}

TEST_F(RpcRequestTest, AServiceThatSetsNothingGivesAnEmptyResult) {
  const auto service =
      makeService("service", "instance",
                  [](const std::string&, const void*, std::size_t, Buffer&, std::size_t&) {});
  EXPECT_EQ(replyOf(service), toClient(0, ""));
  EXPECT_THAT(observer->journal.lines(),
              ElementsAre(kRequestLine, "reply service instance method 0 null 0"));
}

TEST_F(RpcRequestTest, AServiceThatSetsASizeButNoBufferGivesAnEmptyResult) {
  for (const std::size_t size : {std::size_t{1}, std::size_t{8192}, std::size_t{1} << 40}) {
    const auto service = makeService("service", "instance",
                                     [size](const std::string&, const void*, std::size_t, Buffer&,
                                            std::size_t& outSize) { outSize = size; });
    EXPECT_EQ(replyOf(service), toClient(0, ""));
    // Observers are told what the service set.
    EXPECT_EQ(observer->journal.lines().back(),
              "reply service instance method 0 null " + std::to_string(size));
  }
}

TEST_F(RpcRequestTest, AServiceThatSetsABufferButNoSizeGivesAnEmptyResult) {
  const auto service = makeService("service", "instance",
                                   [](const std::string&, const void*, std::size_t, Buffer& out,
                                      std::size_t&) { out.reset(new std::uint8_t[10]()); });
  EXPECT_EQ(replyOf(service), toClient(0, ""));
}

TEST_F(RpcRequestTest, ResultsOfAnySizeArriveWhole) {
  for (const std::size_t size : {0U, 1U, 29U, 33U, 34U, 4095U, 4096U, 4097U, 1000000U}) {
    std::string result(size, 'r');
    for (std::size_t i = 0; i < size; ++i) result[i] = static_cast<char>(i * 31 % 251);
    const Frames reply = replyOf(answering("service", "instance", result));
    EXPECT_TRUE(reply == toClient(0, result)) << size;
  }
}

TEST_F(RpcRequestTest, AResultOf64MiBArrivesWhole) {
  std::string result(std::size_t{64} << 20, 'r');
  result.front() = 'f';
  result.back() = 'b';
  EXPECT_TRUE(replyOf(answering("service", "instance", result)) == toClient(0, result));
}

TEST_F(RpcRequestTest, AnErrorOfTheServiceIsStatusOneWithItsText) {
  EXPECT_EQ(replyOf(throwing("service", "instance", rpc_service_error("x"))), toClient(1, "x"));
  EXPECT_THAT(observer->journal.lines(),
              ElementsAre(kRequestLine, withNul("reply service instance method 1 x")));
}

TEST_F(RpcRequestTest, EveryStandardExceptionIsStatusOneWithItsText) {
  EXPECT_EQ(replyOf(throwing("service", "instance", std::runtime_error("run"))),
            toClient(1, "run"));
  EXPECT_EQ(replyOf(throwing("service", "instance", std::logic_error(""))), toClient(1, ""));
  EXPECT_EQ(replyOf(throwing("service", "instance", std::bad_alloc())),
            toClient(1, std::bad_alloc().what()));
  EXPECT_EQ(replyOf(throwing("service", "instance", rpc_timeout())), toClient(1, "RPC timeout"));
  EXPECT_EQ(replyOf(throwing("service", "instance", rpc_broker_error("broker"))),
            toClient(1, "broker"));
  EXPECT_EQ(replyOf(throwing("service", "instance", rpc_error("rpc"))), toClient(1, "rpc"));
  EXPECT_EQ(observer->journal.lines()[3], withNul("reply service instance method 1 "));
}

TEST_F(RpcRequestTest, ACustomErrorIsStatusThreeWithItsBytes) {
  const std::string payload = bytes("a\0b\xFF", 4);
  EXPECT_EQ(replyOf(throwing("service", "instance", rpc_custom_error(payload))),
            toClient(3, payload));
  EXPECT_THAT(observer->journal.lines(),
              ElementsAre(kRequestLine, "reply service instance method 3 " + payload));
}

TEST_F(RpcRequestTest, ACustomErrorMayBeEmpty) {
  EXPECT_EQ(replyOf(throwing("service", "instance", rpc_custom_error(std::string()))),
            toClient(3, ""));
}

TEST_F(RpcRequestTest, AnythingElseThatIsThrownIsAnUnknownException) {
  EXPECT_EQ(replyOf(throwing("service", "instance", 42)), toClient(1, "unknown exception"));
  EXPECT_EQ(replyOf(throwing("service", "instance", std::string("text"))),
            toClient(1, "unknown exception"));
  const Lines lines = observer->journal.lines();
  const std::string told = withNul("reply service instance method 1 unknown exception");
  EXPECT_THAT(lines, ElementsAre(kRequestLine, told, kRequestLine, told));
}

TEST_F(RpcRequestTest, WhatAServiceWroteBeforeItThrewIsNotSent) {
  const auto service = makeService(
      "service", "instance",
      [](const std::string&, const void*, std::size_t, Buffer& out, std::size_t& outSize) {
        give("half a result", out, outSize);
        throw std::runtime_error("no");
      });
  EXPECT_EQ(replyOf(service), toClient(1, "no"));
}

TEST_F(RpcRequestTest, DoesNotKeepItsServiceAlive) {
  auto service = echoing("service", "instance");
  const auto request = accept(service);
  EXPECT_EQ(service.use_count(), 1);
}

TEST_F(RpcRequestTest, DoesNotKeepTheObserversAlive) {
  const auto request = accept(nullptr);
  EXPECT_EQ(observers.use_count(), 1);
}

TEST_F(RpcRequestTest, AnswersThatAServiceWhichHasGoneWasNotFound) {
  const auto request = accept(echoing("service", "instance"));  // nobody else owns it
  request->execute();
  EXPECT_EQ(nextReply(), toClient(2, "service not found: service - instance"));
  EXPECT_THAT(observer->journal.lines(),
              ElementsAre(withNul("reply service instance method 2 service not found")));
}

class SizeObserver : public RecordingRpcObserver {
 public:
  std::size_t told = 0;

  void onReply(const std::string&, const std::string&, const std::string&, int, const void*,
               std::size_t size) override {
    told = size;
  }
};

TEST_F(RpcRequestTest, CountsTheNulOfATextForObservers) {
  const auto sizes = std::make_shared<SizeObserver>();
  observers->attach(sizes);
  accept(nullptr)->execute();
  EXPECT_EQ(sizes->told, 18U);
  sizes->told = 0;
  accept(throwing("service", "instance", 1))->execute();
  EXPECT_EQ(sizes->told, 18U);
  accept(throwing("service", "instance", std::runtime_error("x")))->execute();
  EXPECT_EQ(sizes->told, 2U);
  accept(throwing("service", "instance", rpc_custom_error("x", 1)))->execute();
  EXPECT_EQ(sizes->told, 1U);
}

TEST_F(RpcRequestTest, AnswersWithoutObserversWhenTheBrokerHasGone) {
  const auto service = echoing("service", "instance");
  auto list = std::make_shared<ObserverData>();
  list->attach(observer);
  RpcRequestImpl request(list, service, received(call()), replyEndpoint);
  list.reset();
  request.execute();
  EXPECT_EQ(nextReply(), toClient(0, "method(payload)"));
  EXPECT_THAT(observer->journal.lines(), IsEmpty());
}

TEST_F(RpcRequestTest, DoesNotWaitForAnEndpointOfThisProcessThatNobodyHasBound) {
  withoutHanging("execute", [&] {
    for (int i = 0; i < 3; ++i) {
      RpcRequestImpl(observers, echoing("service", "instance"), received(call()), uniqueInproc())
          .execute();
    }
  });
}

TEST_F(RpcRequestTest, ACallThatCouldNotBeAnsweredIsNotBegun) {
  bool called = false;
  const auto service = makeService(
      "service", "instance",
      [&](const std::string&, const void*, std::size_t, Buffer&, std::size_t&) { called = true; });
  const auto request = accept(service);
  const SocketBudget everySocket;
  EXPECT_ZMQ_ERROR(request->execute(), EMFILE);
  EXPECT_FALSE(called);
  EXPECT_THAT(observer->journal.lines(), IsEmpty());
}

TEST_F(RpcRequestTest, CallsObserversInOrderOfAttachment) {
  Journal journal;
  std::vector<std::shared_ptr<RecordingRpcObserver>> three;
  for (const char* name : {"1 ", "2 ", "3 "}) {
    three.push_back(std::make_shared<RecordingRpcObserver>(
        [&journal, name](const std::string& line) { journal.add(name + line.substr(0, 3)); }));
    observers->attach(three.back());
  }
  replyOf(echoing("service", "instance"));
  EXPECT_THAT(journal.lines(), ElementsAre("1 req", "2 req", "3 req", "1 rep", "2 rep", "3 rep"));
}

TEST_F(RpcRequestTest, ObserversThatHaveGoneAreLeftOut) {
  const auto before = std::make_shared<RecordingRpcObserver>();
  auto gone = std::make_shared<RecordingRpcObserver>();
  const auto after = std::make_shared<RecordingRpcObserver>();
  for (const auto& one : {before, gone, after}) observers->attach(one);
  gone.reset();
  replyOf(echoing("service", "instance"));
  EXPECT_EQ(before->journal.size(), 2U);
  EXPECT_EQ(after->journal.size(), 2U);
}

TEST_F(RpcRequestTest, AnObserverDetachedDuringTheCallHearsItsEnd) {
  const auto service = makeService("service", "instance",
                                   [&](const std::string&, const void*, std::size_t, Buffer&,
                                       std::size_t&) { observers->detach(observer); });
  replyOf(service);
  EXPECT_EQ(observer->journal.size(), 2U);
  replyOf(service);
  EXPECT_EQ(observer->journal.size(), 2U);
}

TEST_F(RpcRequestTest, AnObserverAttachedDuringTheCallHearsOnlyTheNext) {
  const auto late = std::make_shared<RecordingRpcObserver>();
  const auto attacher = std::make_shared<RecordingRpcObserver>([&](const std::string& line) {
    if (line.substr(0, 7) == "request" && late->journal.size() == 0) observers->attach(late);
  });
  observers->attach(attacher);
  replyOf(echoing("service", "instance"));
  EXPECT_THAT(late->journal.lines(), IsEmpty());
  replyOf(echoing("service", "instance"));
  EXPECT_EQ(late->journal.size(), 2U);
}

TEST_F(RpcRequestTest, AnObserverReleasedDuringTheCallLivesUntilItsEnd) {
  auto released = std::make_shared<RecordingRpcObserver>();
  const std::weak_ptr<RecordingRpcObserver> weak = released;
  observers->attach(released);
  bool alive = false;
  const auto service =
      makeService("service", "instance",
                  [&](const std::string&, const void*, std::size_t, Buffer&, std::size_t&) {
                    released.reset();
                    alive = !weak.expired();
                  });
  replyOf(service);
  EXPECT_TRUE(alive);
  EXPECT_TRUE(weak.expired());
}

TEST_F(RpcRequestTest, AServiceUnregisteredDuringItsCallLivesUntilItsEnd) {
  std::shared_ptr<Service> service;
  service = makeService(
      "service", "instance",
      [&](const std::string&, const void*, std::size_t, Buffer& out, std::size_t& outSize) {
        service.reset();
        give("still here", out, outSize);
      });
  const auto request = accept(service);
  request->execute();
  EXPECT_EQ(nextReply(), toClient(0, "still here"));
}

TEST_F(RpcRequestTest, ObserversAreCalledWithoutALock) {
  const auto attacher = std::make_shared<RecordingRpcObserver>([&](const std::string&) {
    const auto other = std::make_shared<RecordingRpcObserver>();
    observers->attach(other);
    observers->detach(other);
  });
  observers->attach(attacher);
  withoutHanging("execute", [&] { replyOf(echoing("service", "instance")); });
  EXPECT_EQ(attacher->journal.size(), 2U);
}

// With a socket in the process, what has been sent can be seen at once.
TEST_F(RpcRequestTest, ObserversAreToldBeforeTheReplyIsSent) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket broker(ZMQ_ROUTER);
  broker.bind(endpoint);
  const auto readable = [&] {
    zmq_pollitem_t item = {broker.handle(), 0, ZMQ_POLLIN, 0};
    return zmq_poll(&item, 1, 0) > 0;
  };
  int early = 0;
  const auto watcher = std::make_shared<RecordingRpcObserver>(
      [&](const std::string&) { early += readable() ? 1 : 0; });
  observers->attach(watcher);
  const auto answered = [&](const std::shared_ptr<Service>& service) {
    RpcRequestImpl(observers, service, received(call()), endpoint).execute();
    if (!readable()) return false;
    ZmqFrame frame;
    do {
      broker.receive(frame, 0);
    } while (frame.more());
    return true;
  };
  EXPECT_TRUE(answered(echoing("service", "instance")));
  EXPECT_TRUE(answered(throwing("service", "instance", std::runtime_error("x"))));
  EXPECT_TRUE(answered(throwing("service", "instance", rpc_custom_error("x"))));
  EXPECT_TRUE(answered(throwing("service", "instance", 1)));
  EXPECT_TRUE(answered(nullptr));
  EXPECT_EQ(watcher->journal.size(), 9U);
  EXPECT_EQ(early, 0);
}

// An observer that throws whenever its line begins as given.
template <typename Error>
std::shared_ptr<RecordingRpcObserver> throwingAt(const std::string& beginning, const Error& error) {
  return std::make_shared<RecordingRpcObserver>([=](const std::string& line) {
    if (line.compare(0, beginning.size(), beginning) == 0) throw error;
  });
}

TEST_F(RpcRequestTest, AnObserverThatThrowsAtTheRequestEndsTheCallBeforeTheService) {
  bool called = false;
  const auto service = makeService(
      "service", "instance",
      [&](const std::string&, const void*, std::size_t, Buffer&, std::size_t&) { called = true; });
  const auto thrower = throwingAt("request", std::runtime_error("observer"));
  const auto behind = std::make_shared<RecordingRpcObserver>();
  observers->attach(thrower);
  observers->attach(behind);
  EXPECT_EQ(replyOf(service), toClient(1, "observer"));
  EXPECT_FALSE(called);
  const std::string end = withNul("reply service instance method 1 observer");
  EXPECT_THAT(observer->journal.lines(), ElementsAre(kRequestLine, end));
  EXPECT_THAT(thrower->journal.lines(), ElementsAre(kRequestLine, end));
  EXPECT_THAT(behind->journal.lines(), ElementsAre(end));
}

TEST_F(RpcRequestTest, AnObserverThatThrowsAtTheSuccessTurnsItIntoAFailure) {
  const auto thrower = throwingAt("reply service instance method 0", std::runtime_error("no"));
  const auto behind = std::make_shared<RecordingRpcObserver>();
  observers->attach(thrower);
  observers->attach(behind);
  EXPECT_EQ(replyOf(answering("service", "instance", "ok")), toClient(1, "no"));
  const std::string good = "reply service instance method 0 ok";
  const std::string bad = withNul("reply service instance method 1 no");
  EXPECT_THAT(observer->journal.lines(), ElementsAre(kRequestLine, good, bad));
  EXPECT_THAT(thrower->journal.lines(), ElementsAre(kRequestLine, good, bad));
  EXPECT_THAT(behind->journal.lines(), ElementsAre(kRequestLine, bad));
}

TEST_F(RpcRequestTest, WhatAnObserverThrowsOnTheWayToSuccessIsMappedLikeAServicesError) {
  const auto custom = throwingAt("request", rpc_custom_error("own"));
  observers->attach(custom);
  EXPECT_EQ(replyOf(echoing("service", "instance")), toClient(3, "own"));
  observers->detach(custom);
  const auto number = throwingAt("reply service instance method 0", 7);
  observers->attach(number);
  EXPECT_EQ(replyOf(echoing("service", "instance")), toClient(1, "unknown exception"));
}

TEST_F(RpcRequestTest, AnObserverThatThrowsAtAFailureKeepsNobodyFromHearingOfIt) {
  const auto first = throwingAt("reply", std::runtime_error("observer"));
  const auto second = throwingAt("reply", 7);
  const auto third = throwingAt("reply", rpc_custom_error("observer"));
  const auto last = std::make_shared<RecordingRpcObserver>();
  for (const auto& one : {first, second, third, last}) observers->attach(one);
  EXPECT_EQ(replyOf(throwing("service", "instance", std::runtime_error("x"))), toClient(1, "x"));
  EXPECT_EQ(replyOf(throwing("service", "instance", rpc_custom_error("c"))), toClient(3, "c"));
  EXPECT_EQ(replyOf(throwing("service", "instance", 1)), toClient(1, "unknown exception"));
  EXPECT_EQ(replyOf(nullptr), toClient(2, "service not found: service - instance"));
  EXPECT_THAT(last->journal.lines(),
              ElementsAre(kRequestLine, withNul("reply service instance method 1 x"), kRequestLine,
                          "reply service instance method 3 c", kRequestLine,
                          withNul("reply service instance method 1 unknown exception"),
                          withNul("reply service instance method 2 service not found")));
}

TEST_F(RpcRequestTest, RequestsOfOneThreadUseOneSocket) {
  std::string identities[2];
  for (std::string& identity : identities) {
    accept(echoing("service", "instance"))->execute();
    identity = replies.receive().front();
  }
  EXPECT_EQ(identities[0], identities[1]);
}

TEST_F(RpcRequestTest, ThreadsHaveSocketsOfTheirOwn) {
  accept(echoing("service", "instance"))->execute();
  const std::string here = replies.receive().front();
  const auto elsewhere = accept(echoing("service", "instance"));
  std::string there;
  ScopedThread worker([&] {
    elsewhere->execute();
    there = replies.receive().front();  // before the thread's end closes its socket
  });
  worker.join();
  EXPECT_NE(there, here);
}

}  // namespace
}  // namespace tessel::test
