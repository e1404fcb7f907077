#ifndef TESSEL_BENCH_SUPPORT_LOADS_H
#define TESSEL_BENCH_SUPPORT_LOADS_H

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "support/measure.h"
#include "support/roads.h"
#include "support/window.h"

/// What every road and every cache is put to, whoever made it.
namespace tessel::bench {

/// What is under way stays below the 1000 messages at which a publishing socket drops, and below
/// what the sockets of the system buffer when values are large.
inline std::uint64_t windowFor(std::size_t size) { return size > 4096 ? 64 : 500; }
inline std::uint64_t burstFor(std::size_t size) { return size > 4096 ? 1000 : 5000; }

/// Publishes `count` times, one behind the other, as many on their way as the window lets, and
/// waits until everything has arrived.
template <typename Publish>
void sendBurst(Window& window, std::uint64_t count, const Publish& publish) {
  for (std::uint64_t i = 0; i < count; ++i) {
    window.send();
    publish();
  }
  window.drain();
}

/// Values in bursts.
template <typename Road>
void throughput(benchmark::State& state, Transport transport, std::size_t size) {
  Window window(windowFor(size));
  OpenRoad<Road> road(transport, size, [&](std::uint64_t) { window.arrive(); });
  const std::uint64_t burst = burstFor(size);
  std::uint64_t number = 0;
  const auto send = [&] { sendBurst(window, burst, [&] { road.publish(++number); }); };
  const Usage before = Usage::now();
  for (auto _ : state) send();
  reportUsage(state, before, static_cast<double>(number));
  state.SetItemsProcessed(static_cast<std::int64_t>(number));
  state.counters["allocations"] =
      static_cast<double>(allocationsDuring(send)) / static_cast<double>(burst);
}

/// One value at a time, from just before publish() until the callback begins; everybody sleeps
/// before it.
template <typename Road>
void latency(benchmark::State& state, Transport transport, std::size_t size) {
  constexpr int kValues = 2000;
  Window window(1);
  std::vector<double> nanoseconds;
  OpenRoad<Road> road(transport, size, [&](std::uint64_t sent) {
    const auto now = static_cast<std::uint64_t>(Clock::now().time_since_epoch().count());
    nanoseconds.push_back(static_cast<double>(now - sent));
    window.arrive();
  });
  const Usage before = Usage::now();
  for (auto _ : state) {
    for (int i = 0; i < kValues; ++i) {
      window.send();
      road.publish(static_cast<std::uint64_t>(Clock::now().time_since_epoch().count()));
      window.drain();
    }
  }
  reportUsage(state, before, static_cast<double>(nanoseconds.size()));
  state.SetItemsProcessed(static_cast<std::int64_t>(nanoseconds.size()));
  state.counters["p50_ns"] = quantile(nanoseconds, 0.50);
  state.counters["p99_ns"] = quantile(nanoseconds, 0.99);
}

/// The values that are kept, and their tags; the topic is kTopic.
constexpr std::size_t kCachedSize = 100;
inline std::string cachedTag(int index) { return "key" + std::to_string(index); }

/// From the start of a consumer of every cached key until it has each value; per key. One iteration
/// is one consumer.
template <typename Cache>
void replay(benchmark::State& state, Transport transport, int keys) {
  Usage before;
  for (auto _ : state) {
    Window window(static_cast<std::uint64_t>(keys));
    Cache cache(transport);
    cache.fill(keys);
    cache.prepare(keys, [&](const void*, std::size_t) { window.arrive(); });
    for (int i = 0; i < keys; ++i) window.send();
    before = Usage::now();
    const Clock::time_point begin = Clock::now();
    cache.join();
    window.drain();  // throws when one does not come
    state.SetIterationTime(secondsSince(begin));
    reportUsage(state, before, keys);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * keys);
}

}  // namespace tessel::bench

#endif
