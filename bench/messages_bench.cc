// What a publication costs by itself: building it, sending it, reading it; one thread, in process.

#include <benchmark/benchmark.h>
#include <zmq.h>

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "messages/message_header.h"
#include "messages/message_publish.h"
#include "support/measure.h"
#include "support/raw.h"
#include "support/roads.h"
#include "transport/zmq_socket.h"

namespace tessel::bench {
namespace {

// As many as are built, then sent, then read in one go; fewer than a queue in the process holds.
constexpr int kBatch = 500;

class TesselSide {
 public:
  static constexpr const char* kName = "tessel";

  explicit TesselSide(std::size_t size) : value_(size, 'x'), pull_(ZMQ_PULL), push_(ZMQ_PUSH) {
    const std::string endpoint = newEndpoints(Transport::kInproc).pull;
    pull_.bind(endpoint);
    push_.connect(endpoint);
  }
  void build() { built_.emplace_back(kTopic, kTag, value_.data(), value_.size(), kKeepInCache); }
  void send() {
    built_.front().send(push_);
    built_.pop_front();
  }
  void receive() {
    MessageHeader header;
    readMessageHeader(pull_, header, ZMQ_DONTWAIT);
    MessagePublish message(std::move(header));
    message.receive(pull_);
    benchmark::DoNotOptimize(message.data());
  }

 private:
  const std::vector<std::uint8_t> value_;
  ZmqSocket pull_;
  ZmqSocket push_;
  std::deque<MessagePublish> built_;
};

class RawSide {
 public:
  static constexpr const char* kName = "raw";

  explicit RawSide(std::size_t size)
      : value_(size, 'x'), pull_(context_, ZMQ_PULL), push_(context_, ZMQ_PUSH) {
    const std::string endpoint = newEndpoints(Transport::kInproc).pull;
    pull_.bind(endpoint);
    push_.connect(endpoint);
  }
  void build() { built_.emplace_back(kTopic, kTag, value_.data(), value_.size()); }
  void send() {
    built_.front().send(push_);
    built_.pop_front();
  }
  void receive() {
    raw::Publication message;
    message.receive(pull_, ZMQ_DONTWAIT);
    benchmark::DoNotOptimize(zmq_msg_data(&message.frames[5]));
  }

 private:
  const std::vector<std::uint8_t> value_;
  raw::Context context_;
  raw::Socket pull_;
  raw::Socket push_;
  std::deque<raw::Publication> built_;
};

enum class Step { kBuild, kSend, kReceive };

// Builds, sends and reads a batch, calling `around(batch)` for the step that is looked at.
template <typename Side, typename Around>
void passBatch(Side& side, Step step, const Around& around) {
  const auto run = [&](Step now, void (Side::*operation)()) {
    const auto batch = [&] {
      for (int i = 0; i < kBatch; ++i) (side.*operation)();
    };
    if (now == step) {
      around(batch);
    } else {
      batch();
    }
  };
  run(Step::kBuild, &Side::build);
  run(Step::kSend, &Side::send);
  run(Step::kReceive, &Side::receive);
}

template <typename Side>
void message(benchmark::State& state, Step step, std::size_t size) {
  Side side(size);
  for (auto _ : state) {
    passBatch(side, step, [&](const auto& batch) {
      const double begin = threadSeconds();
      batch();
      state.SetIterationTime(threadSeconds() - begin);
    });
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kBatch);
  passBatch(side, step, [&](const auto& batch) {
    state.counters["allocations"] = static_cast<double>(allocationsDuring(batch)) / kBatch;
  });
}

template <typename Side>
void registerSide() {
  const auto add = [](const std::string& step, Step timed) {
    for (const std::size_t size : {std::size_t{16}, std::size_t{1024}}) {
      const std::string name = "message/" + step + "/" + std::to_string(size) + "/" + Side::kName;
      benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
        message<Side>(state, timed, size);
      })->UseManualTime();
    }
  };
  add("build", Step::kBuild);
  add("send", Step::kSend);
  add("receive", Step::kReceive);
}

}  // namespace
}  // namespace tessel::bench

int main(int argc, char** argv) {
  tessel::bench::registerSide<tessel::bench::TesselSide>();
  tessel::bench::registerSide<tessel::bench::RawSide>();
  return tessel::bench::runBenchmarks(argc, argv);
}
