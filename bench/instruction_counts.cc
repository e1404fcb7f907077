// What scripts/instruction_counts lets callgrind count: each measured function does its step
// kMessages times, the rest is not counted. What can run on one thread does, so that the figures do
// not depend on who is scheduled when.

#include <tessel/publisher.h>
#include <tessel/rpc_broker.h>
#include <tessel/rpc_client.h>
#include <tessel/rpc_dispatcher.h>
#include <tessel/service.h>
#include <zmq.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "messages/message_reply.h"
#include "messages/message_request.h"
#include "messages/value_notification.h"
#include "pubsub/deliveries.h"
#include "pubsub/message_broker_impl.h"
#include "pubsub/subscription_table.h"
#include "rpc/rpc_broker_impl.h"
#include "transport/work_queue.h"

namespace tessel::bench {
namespace {

constexpr int kMessages = 500;    // fewer than the queues hold
constexpr int kSubscribers = 10;  // of each value

const std::string kTopic = "temperature";
const std::string kTag = "outside";
const std::string kUpdates = "inproc://counted_updates";

void require(bool holds) {
  if (!holds) std::abort();
}

class EmptySubscriber : public Subscriber {
 public:
  EmptySubscriber() : Subscriber(SubscriptionMode::NewValues, kTopic, kTag) {}
};

class EmptyService : public Service {
 public:
  EmptyService() : Service("counter", "first") {}
  void callMethod(const std::string&, const void*, std::size_t,
                  std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) override {
    outSize = 16;
    out.reset(new std::uint8_t[outSize]());
  }
};

// Runs calls on the thread of the broker, which here is the only one.
class InlineDispatcher : public RpcDispatcher {
 public:
  void start() override {}
  void stop() override {}
  void submit(std::shared_ptr<RpcRequest> request) override { request->execute(); }
};

}  // namespace

// The names that callgrind is told.
extern "C" {

[[gnu::noinline]] void countedPublish(const Publisher& publisher, std::uint64_t& number) {
  std::uint64_t value[2] = {};
  for (int i = 0; i < kMessages; ++i) {
    value[0] = ++number;
    publisher.publish(value, sizeof value);
  }
}

[[gnu::noinline]] void countedServe(MessageBrokerImpl& broker) {
  for (int i = 0; i < kMessages; ++i) broker.serveOnce();
}

// What a dispatcher does with a value, but for waiting.
[[gnu::noinline]] void countedDispatch(SubscriptionTable& table, ReceivedNotification& received,
                                       Deliveries& deliveries, WorkQueue& queue) {
  require(receiveNotification(table.socket(), received, ZMQ_DONTWAIT));
  deliveries.clear();
  table.visitMatches(received.key, [&](const std::shared_ptr<SubscriptionBase>& subscription) {
    deliveries.add(*subscription);
    return true;
  });
  deliveries.run(std::move(received), queue);
}

[[gnu::noinline]] void countedCall(RpcClient& client, std::unique_ptr<std::uint8_t[]>& out) {
  const std::uint64_t question[2] = {};
  std::size_t size = 0;
  for (int i = 0; i < kMessages; ++i) {
    client.CallMethod("counter", "first", "next", question, sizeof question, out, size);
  }
}

// What a client does, but for waiting and for looking its socket up; and a broker that
// always finds a message, with its worker.
[[gnu::noinline]] void countedRemoteCall(ZmqSocket& client, RpcBrokerImpl& broker,
                                         std::unique_ptr<std::uint8_t[]>& out) {
  static const std::vector<std::uint8_t>& reserved = *new std::vector<std::uint8_t>{0};
  const std::uint64_t question[2] = {};
  std::size_t size = 0;
  for (int i = 0; i < kMessages; ++i) {
    MessageRequest(reserved, "counter", "first", "next", question, sizeof question).send(client);
    broker.serveOnce();  // the request
    broker.serveOnce();  // its reply
    MessageReply reply;
    require(reply.receive(client));
    reply.copyPayload(out, size);
  }
}

}  // extern "C"

namespace {

void countValues() {
  MessageBrokerImpl broker({}, {kUpdates}, {});
  const Publisher publisher({broker.inprocEndpoint()}, kTopic, kTag);
  SubscriptionTable table;
  table.socket().connect(kUpdates);
  std::vector<std::shared_ptr<Subscriber>> alive;
  for (int i = 0; i < kSubscribers; ++i) {
    alive.push_back(std::make_shared<EmptySubscriber>());
    table.add(std::make_shared<Subscription<Subscriber>>(alive.back()));
  }
  Deliveries deliveries(1);
  WorkQueue queue(1);
  ReceivedNotification received;
  std::uint64_t number = 0;
  publisher.publish(&number, sizeof number);  // connects; and the broker hears of the subscription
  broker.serveOnce();
  receiveNotification(table.socket(), received, ZMQ_DONTWAIT);
  countedPublish(publisher, number);
  countedServe(broker);
  for (int i = 0; i < kMessages; ++i) {
    countedDispatch(table, received, deliveries, queue);
    require(queue.waitIdle());
  }
}

void countCalls() {
  const auto broker = std::make_shared<RpcBroker>(true, std::vector<std::string>(),
                                                  std::make_shared<InlineDispatcher>());
  const auto service = std::make_shared<EmptyService>();
  broker->registerService(service);
  broker->start();
  RpcClient client(broker, std::chrono::seconds(10));
  std::unique_ptr<std::uint8_t[]> out;
  countedCall(client, out);
  broker->stop();
}

void countRemoteCalls() {
  RpcBrokerImpl broker(true, {}, std::make_shared<InlineDispatcher>());
  const auto service = std::make_shared<EmptyService>();
  broker.registerService(service);
  ZmqSocket client(ZMQ_REQ, broker.clientEndpoint());
  client.setReceiveTimeout(10000);
  std::unique_ptr<std::uint8_t[]> out;
  countedRemoteCall(client, broker, out);
}

}  // namespace
}  // namespace tessel::bench

int main() {
  tessel::bench::countValues();
  tessel::bench::countCalls();
  tessel::bench::countRemoteCalls();
}
