// The road of a value from a publisher by way of the broker to a callback, against bare libzmq.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/crew.h"
#include "support/loads.h"
#include "support/measure.h"
#include "support/roads.h"
#include "support/try_until.h"
#include "support/window.h"

namespace tessel::bench {
namespace {

constexpr std::size_t kSmall = 16;

// Counts its callbacks; on cache lines of its own, so that workers do not meet in the benchmark.
// The callbacks of one value end before those of the next begin, hence no atomic count.
class alignas(128) CountingSubscriber : public Subscriber {
 public:
  CountingSubscriber() : Subscriber(SubscriptionMode::NewValues, kTopic, kTag) {}
  bool isLive() const { return live_; }
  std::uint64_t count() const { return count_; }

 protected:
  void onValue(const void* data, std::size_t /*size*/) override {
    if ((numberOf(data) & kProbe) == 0) {
      ++count_;
    } else {
      live_ = true;
    }
  }

 private:
  std::uint64_t count_ = 0;
  std::atomic<bool> live_{false};
};

// One value to many subscribers of the same key; counted are the callbacks. The first subscriber
// tells the sender how far the values have come.
void fanOut(benchmark::State& state, int subscribers) {
  constexpr int kValues = 1000;
  Window window(100);
  OpenRoad<TesselRoad> road(Transport::kInproc, kSmall, [&](std::uint64_t) { window.arrive(); });
  std::vector<std::shared_ptr<CountingSubscriber>> others;
  for (int i = 1; i < subscribers; ++i) {
    others.push_back(std::make_shared<CountingSubscriber>());
    road.road().dispatcher().registerSubscriber(others.back());
  }
  const auto isLive = [](const auto& subscriber) { return subscriber->isLive(); };
  std::uint64_t probe = kProbe + (std::uint64_t{1} << 32);  // none of those of the road
  const auto allAreLive = [&] {
    road.publish(++probe);
    return std::all_of(others.begin(), others.end(), isLive);
  };
  tryUntil(allAreLive, "not all subscribers get values");
  std::uint64_t number = 0;
  const auto send = [&] { sendBurst(window, kValues, [&] { road.publish(++number); }); };
  const Usage before = Usage::now();
  for (auto _ : state) send();
  const double callbacks = static_cast<double>(number) * subscribers;
  reportUsage(state, before, callbacks);
  state.SetItemsProcessed(static_cast<std::int64_t>(callbacks));
  state.counters["allocations"] =
      static_cast<double>(allocationsDuring(send)) / (kValues * subscribers);
  road.road().dispatcher().stop(false);
  for (const auto& subscriber : others) {
    // The last value's callbacks may have been dropped by the stop.
    if (subscriber->count() + 1 < number) throw std::runtime_error("a callback was lost");
  }
}

// Several threads publish at once, each with its own share of what may be on its way.
template <typename Road>
void publishers(benchmark::State& state, std::size_t threads) {
  constexpr unsigned kThreadShift = 40;  // a value's number tells the thread and the count
  constexpr std::uint64_t kBurst = 4096;
  std::vector<std::unique_ptr<Window>> windows;
  for (std::size_t i = 0; i < threads; ++i) {
    windows.push_back(std::make_unique<Window>(512 / threads));
  }
  OpenRoad<Road> road(Transport::kInproc, kSmall,
                      [&](std::uint64_t number) { windows[number >> kThreadShift]->arrive(); });
  Crew crew(threads, [&](std::size_t thread) {
    const auto sender = std::make_shared<typename Road::Sender>(road.road());
    return [&, thread, sender, number = std::uint64_t{thread} << kThreadShift,
            value = std::vector<std::uint8_t>(kSmall)]() mutable {
      sendBurst(*windows[thread], kBurst / threads, [&] {
        setNumber(value, ++number);
        sender->publish(value.data(), value.size());
      });
    };
  });
  crew.round();  // connects
  const Usage before = Usage::now();
  for (auto _ : state) crew.round();
  const auto values = static_cast<double>(state.iterations()) * static_cast<double>(kBurst);
  reportUsage(state, before, values);
  state.SetItemsProcessed(static_cast<std::int64_t>(values));
}

// Broker, publisher and dispatcher made, started, stopped and released; the twin with its context.
template <typename Road>
void life(benchmark::State& state) {
  for (auto _ : state) Road(Transport::kInproc, [](const void*, std::size_t) {});
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}

template <typename Road>
void registerRoad() {
  const std::string name = Road::kName;
  const auto add = [](const std::string& title, auto&& run) {
    benchmark::RegisterBenchmark(title.c_str(), run)->UseRealTime();
  };
  for (const Transport transport : {Transport::kTcp, Transport::kInproc}) {
    const std::string over = transport == Transport::kTcp ? "tcp" : "inproc";
    for (const std::size_t size : {kSmall, std::size_t{1024}, std::size_t{65536}}) {
      add("throughput/" + over + "/" + std::to_string(size) + "/" + name,
          [=](benchmark::State& state) { throughput<Road>(state, transport, size); });
    }
    add("latency/" + over + "/" + name,
        [=](benchmark::State& state) { latency<Road>(state, transport, kSmall); });
  }
  for (const std::size_t threads : {1, 2, 4, 8, 16}) {
    add("publishers/" + std::to_string(threads) + "/" + name,
        [=](benchmark::State& state) { publishers<Road>(state, threads); });
  }
  add("life/" + name, life<Road>);
}

void registerAll() {
  registerRoad<TesselRoad>();
  registerRoad<RawRoad>();
  for (const int subscribers : {1, 10, 100}) {
    benchmark::RegisterBenchmark(("fan_out/" + std::to_string(subscribers)).c_str(),
                                 [=](benchmark::State& state) { fanOut(state, subscribers); })
        ->UseRealTime();
  }
}

}  // namespace
}  // namespace tessel::bench

int main(int argc, char** argv) {
  tessel::bench::registerAll();
  return tessel::bench::runBenchmarks(argc, argv);
}
