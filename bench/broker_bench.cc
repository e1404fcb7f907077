// What one publication costs the broker: reading it, keeping its value, notifying on two sockets.
// Peers and broker run in turn on one thread, in process, so that nothing but the broker is timed.

#include <benchmark/benchmark.h>
#include <zmq.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "messages/message_publish.h"
#include "messages/value_notification.h"
#include "pubsub/message_broker_impl.h"
#include "support/measure.h"
#include "support/raw.h"
#include "support/roads.h"
#include "transport/zmq_socket.h"

namespace tessel::bench {
namespace {

constexpr int kBatch = 500;  // fewer than the queues hold

class TesselBroker {
 public:
  static constexpr const char* kName = "tessel";

  explicit TesselBroker(const raw::Endpoints& endpoints)
      : broker_({}, {endpoints.updates}, {endpoints.cache}),
        push_(ZMQ_PUSH, broker_.inprocEndpoint()),
        sub_(ZMQ_SUB, endpoints.updates) {
    sub_.setOption(ZMQ_SUBSCRIBE, kTopic + ":" + kTag);
  }
  void send(const std::vector<std::uint8_t>& value) {
    MessagePublish(kTopic, kTag, value.data(), value.size(), kKeepInCache).send(push_);
  }
  void serve() { broker_.serveOnce(); }
  bool receive() {
    ReceivedNotification notification;
    return receiveNotification(sub_, notification, ZMQ_DONTWAIT);
  }

 private:
  MessageBrokerImpl broker_;
  ZmqSocket push_;
  ZmqSocket sub_;
};

class RawBroker {
 public:
  static constexpr const char* kName = "raw";

  explicit RawBroker(const raw::Endpoints& endpoints)
      : broker_(context_, endpoints, true), push_(context_, ZMQ_PUSH), sub_(context_, ZMQ_SUB) {
    push_.connect(endpoints.pull);
    sub_.connect(endpoints.updates).subscribe(kTopic + ":" + kTag);
    zmq_msg_init(&frame_);
  }
  ~RawBroker() { zmq_msg_close(&frame_); }
  void send(const std::vector<std::uint8_t>& value) {
    raw::Publication(kTopic, kTag, value.data(), value.size()).send(push_);
  }
  void serve() { broker_.serveOnce(); }
  bool receive() {
    if (!sub_.receive(frame_, ZMQ_DONTWAIT)) return false;
    while (zmq_msg_more(&frame_) != 0) sub_.receive(frame_);
    return true;
  }

 private:
  raw::Context context_;
  raw::Broker broker_;
  raw::Socket push_;
  raw::Socket sub_;
  zmq_msg_t frame_;
};

template <typename Broker>
void serve(benchmark::State& state, std::size_t size) {
  Broker broker(newEndpoints(Transport::kInproc));
  std::vector<std::uint8_t> value(size, 'x');
  std::uint64_t number = 0;
  const auto send = [&] {
    setNumber(value, ++number);
    broker.send(value);
  };
  do {  // until the broker knows of the subscription
    send();
    broker.serve();
  } while (!broker.receive());
  const auto passBatch = [&](const auto& around) {
    for (int i = 0; i < kBatch; ++i) send();
    around([&] {
      for (int i = 0; i < kBatch; ++i) broker.serve();
    });
    for (int i = 0; i < kBatch; ++i) {
      if (!broker.receive()) throw std::runtime_error("a notification was lost");
    }
  };
  for (auto _ : state) {
    passBatch([&](const auto& batch) {
      const double begin = threadSeconds();
      batch();
      state.SetIterationTime(threadSeconds() - begin);
    });
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kBatch);
  passBatch([&](const auto& batch) {
    state.counters["allocations"] = static_cast<double>(allocationsDuring(batch)) / kBatch;
  });
}

template <typename Broker>
void registerBroker() {
  for (const std::size_t size : {std::size_t{16}, std::size_t{1024}, std::size_t{65536}}) {
    benchmark::RegisterBenchmark(("serve/" + std::to_string(size) + "/" + Broker::kName).c_str(),
                                 [=](benchmark::State& state) { serve<Broker>(state, size); })
        ->UseManualTime();
  }
}

}  // namespace
}  // namespace tessel::bench

int main(int argc, char** argv) {
  tessel::bench::registerBroker<tessel::bench::TesselBroker>();
  tessel::bench::registerBroker<tessel::bench::RawBroker>();
  return tessel::bench::runBenchmarks(argc, argv);
}
