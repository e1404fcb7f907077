// The last-value cache of a broker: what a kept value takes, and how fast those who come late get
// all of them.

#include <benchmark/benchmark.h>
#include <tessel/message_broker.h>
#include <tessel/message_dispatcher.h>
#include <tessel/publisher.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "support/loads.h"
#include "support/measure.h"
#include "support/raw.h"
#include "support/roads.h"
#include "support/window.h"

namespace tessel::bench {
namespace {

// Lets the sender know how far the broker has come.
class CountingObserver : public MessageBrokerObserver {
 public:
  explicit CountingObserver(Window& window) : window_(window) {}
  void onSubscribe(const std::string&, const std::string&) override {}
  void onUnsubscribe(const std::string&, const std::string&) override {}
  void onPublish(const std::string&, const std::string&, bool, bool, bool) override {
    window_.arrive();
  }
  void onUnpublish(const std::string&, const std::string&, bool, bool, bool) override {}

 private:
  Window& window_;
};

/// A broker with `count` values in its cache, and a consumer of all of them.
class TesselCache {
 public:
  static constexpr const char* kName = "tessel";

  explicit TesselCache(Transport transport)
      : endpoints_(newEndpoints(transport)),
        broker_({endpoints_.pull}, {endpoints_.updates}, {endpoints_.cache}),
        observer_(std::make_shared<CountingObserver>(window_)) {
    broker_.attach(observer_);
    broker_.start();
  }
  void fill(int count) {
    const std::string value(kCachedSize, 'x');
    for (int i = 0; i < count; ++i) {
      window_.send();
      Publisher(broker_, kTopic, cachedTag(i)).publish(value.data(), value.size());
    }
    window_.drain();
  }
  void prepare(int count, const Callback& callback) {
    dispatcher_ = std::make_unique<MessageDispatcher>(endpoints_.updates, endpoints_.cache);
    for (int i = 0; i < count; ++i) {
      subscribers_.push_back(std::make_shared<CallbackSubscriber>(SubscriptionMode::AllValues,
                                                                  kTopic, cachedTag(i), callback));
      dispatcher_->registerSubscriber(subscribers_.back());
    }
  }
  void join() { dispatcher_->start(); }

 private:
  const raw::Endpoints endpoints_;
  Window window_{500};
  MessageBroker broker_;
  std::shared_ptr<CountingObserver> observer_;
  std::vector<std::shared_ptr<CallbackSubscriber>> subscribers_;
  std::unique_ptr<MessageDispatcher> dispatcher_;
};

class RawCache {
 public:
  static constexpr const char* kName = "raw";

  explicit RawCache(Transport transport)
      : endpoints_(newEndpoints(transport)), broker_(context_, endpoints_, true) {
    context_.run([this] { broker_.run(); });
  }
  ~RawCache() { context_.end(); }
  void fill(int count) {
    raw::Socket push(context_, ZMQ_PUSH);
    push.connect(endpoints_.pull);
    const std::string value(kCachedSize, 'x');
    for (int i = 0; i < count; ++i) {
      raw::Publication(kTopic, cachedTag(i), value.data(), value.size()).send(push);
    }
    broker_.waitForValues(static_cast<std::size_t>(count));
  }
  void prepare(int count, const Callback& callback) {
    count_ = count;
    consumer_ = std::make_unique<raw::Consumer>(context_, endpoints_.cache, callback);
  }
  void join() {
    context_.run([this] {
      for (int i = 0; i < count_; ++i) consumer_->subscribe(kTopic + ":" + cachedTag(i));
      consumer_->run();
    });
  }

 private:
  const raw::Endpoints endpoints_;
  raw::Context context_;
  raw::Broker broker_;
  std::unique_ptr<raw::Consumer> consumer_;
  int count_ = 0;
};

// Bytes for each value, beyond those of an empty broker; to be run in a process of its own.
void memory(benchmark::State& state, int keys, const std::function<void(int)>& fill) {
  for (auto _ : state) {
    const std::uint64_t heap = heapBytes();
    const std::uint64_t resident = residentBytes();
    fill(keys);
    state.counters["heap_bytes"] = static_cast<double>(heapBytes() - heap) / keys;
    state.counters["resident_bytes"] = static_cast<double>(residentBytes() - resident) / keys;
  }
}

void registerMemory(int keys) {
  benchmark::RegisterBenchmark("cache_memory/tessel", [=](benchmark::State& state) {
    TesselCache cache(Transport::kInproc);
    memory(state, keys, [&](int count) { cache.fill(count); });
  })->Iterations(1);
  benchmark::RegisterBenchmark("cache_memory/raw", [=](benchmark::State& state) {
    std::unordered_map<std::string, std::string> values;
    memory(state, keys, [&](int count) {
      for (int i = 0; i < count; ++i) {
        values[kTopic + ":" + cachedTag(i)] = std::string(kCachedSize, 'x');
      }
    });
  })->Iterations(1);
}

template <typename Cache>
void registerReplay() {
  for (const Transport transport : {Transport::kTcp, Transport::kInproc}) {
    for (const int keys : {10000, 100000}) {
      const std::string over = transport == Transport::kTcp ? "tcp" : "inproc";
      benchmark::RegisterBenchmark(
          ("replay/" + over + "/" + std::to_string(keys) + "/" + Cache::kName).c_str(),
          [=](benchmark::State& state) { replay<Cache>(state, transport, keys); })
          ->UseManualTime()
          ->Iterations(1);
    }
  }
}

}  // namespace
}  // namespace tessel::bench

int main(int argc, char** argv) {
  tessel::bench::registerMemory(100000);
  tessel::bench::registerReplay<tessel::bench::TesselCache>();
  tessel::bench::registerReplay<tessel::bench::RawCache>();
  return tessel::bench::runBenchmarks(argc, argv);
}
