#ifndef TESSEL_BENCH_PEERS_SUPPORT_PEER_LOADS_H
#define TESSEL_BENCH_PEERS_SUPPORT_PEER_LOADS_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/loads.h"
#include "support/measure.h"
#include "support/roads.h"
#include "support/try_until.h"
#include "support/window.h"

/// The loads of the library's own benchmarks for publish and subscribe, under the same names with
/// that of the peer behind them.
///
/// A peer is a class with `kName`, a constructor of (how many subscriptions, an IndexedCallback)
/// and publish(data, size); the subscriptions are all to the same key. It keeps no value and loses
/// none.
namespace tessel::bench {

/// Gets the values of the subscription with this index.
using IndexedCallback = std::function<void(std::size_t, const void*, std::size_t)>;

/// A peer as a road to a single subscription.
template <typename Peer>
class PeerRoad {
 public:
  PeerRoad(Transport transport, const Callback& callback)
      : peer_(transport, 1, [callback](std::size_t, const void* data, std::size_t size) {
          callback(data, size);
        }) {}
  void publish(const void* data, std::size_t size) { peer_.publish(data, size); }

 private:
  Peer peer_;
};

/// What the subscriptions have got, each counted on cache lines of its own.
class Counts {
 public:
  explicit Counts(std::size_t size) : counts_(size) {}
  void add(std::size_t index, std::uint64_t number) {
    auto& count = (number & kProbe) == 0 ? counts_[index].values : counts_[index].probes;
    count.fetch_add(1, std::memory_order_relaxed);
  }
  bool allHaveProbes() const {
    const auto hasProbe = [](const Count& one) { return one.probes > 0; };
    return std::all_of(counts_.begin(), counts_.end(), hasProbe);
  }
  /// Throws when one of them does not come.
  void waitForValues(std::uint64_t count) const {
    const Clock::time_point begin = Clock::now();
    for (const Count& one : counts_) {
      while (one.values < count) {
        if (secondsSince(begin) > 60) throw std::runtime_error("a callback was lost");
        std::this_thread::yield();
      }
    }
  }

 private:
  struct alignas(128) Count {
    std::atomic<std::uint64_t> values{0};
    std::atomic<std::uint64_t> probes{0};
  };
  std::vector<Count> counts_;
};

/// One value to many subscriptions within this process; counted are the callbacks. The last
/// subscription tells the sender how far the values have come.
template <typename Peer>
void peerFanOut(benchmark::State& state, Transport transport, std::size_t subscriptions) {
  constexpr int kValues = 1000;
  Window window(100);
  Counts counts(subscriptions);
  Peer peer(transport, subscriptions, [&](std::size_t index, const void* data, std::size_t) {
    counts.add(index, numberOf(data));
    if (index + 1 == subscriptions && (numberOf(data) & kProbe) == 0) window.arrive();
  });
  std::vector<std::uint8_t> value(16);
  const auto publish = [&](std::uint64_t number) {
    setNumber(value, number);
    peer.publish(value.data(), value.size());
  };
  const auto allHaveProbes = [&] {
    publish(kProbe);
    return counts.allHaveProbes();
  };
  tryUntil(allHaveProbes, "not all subscriptions get values");
  std::uint64_t number = 0;
  const Usage before = Usage::now();
  for (auto _ : state) {
    sendBurst(window, kValues, [&] { publish(++number); });
    counts.waitForValues(number);
  }
  const double callbacks = static_cast<double>(number) * static_cast<double>(subscriptions);
  reportUsage(state, before, callbacks);
  state.SetItemsProcessed(static_cast<std::int64_t>(callbacks));
}

/// Bytes for each value in the server, beyond those when it was empty.
template <typename Cache>
void peerMemory(benchmark::State& state, int keys) {
  for (auto _ : state) {
    Cache cache(Transport::kTcp);
    const std::uint64_t resident = cache.residentBytes();
    cache.fill(keys);
    state.counters["resident_bytes"] = static_cast<double>(cache.residentBytes() - resident) / keys;
  }
}

/// A peer that can do without a server between its ends registers for both transports, and fans out
/// within the process.
template <typename Peer>
void registerPeer(const std::vector<Transport>& transports = {Transport::kTcp}) {
  const std::string name = Peer::kName;
  const auto add = [](const std::string& title, auto&& run) {
    benchmark::RegisterBenchmark(title.c_str(), run)->UseRealTime();
  };
  for (const Transport transport : transports) {
    const std::string over = transport == Transport::kTcp ? "tcp/" : "inproc/";
    for (const std::size_t size : {std::size_t{16}, std::size_t{1024}, std::size_t{65536}}) {
      add("throughput/" + over + std::to_string(size) + "/" + name,
          [=](benchmark::State& state) { throughput<PeerRoad<Peer>>(state, transport, size); });
    }
    add("latency/" + over + name,
        [=](benchmark::State& state) { latency<PeerRoad<Peer>>(state, transport, 16); });
  }
  add("fan_out/100/" + name, [transport = transports.back()](benchmark::State& state) {
    peerFanOut<Peer>(state, transport, 100);
  });
}

/// "replay" for a consumer that names each key, as the library's does; "replay_all" for one that
/// asks for all at once.
template <typename Cache>
void registerPeerReplay(const std::string& title) {
  for (const int keys : {10000, 100000}) {
    benchmark::RegisterBenchmark(
        (title + "/tcp/" + std::to_string(keys) + "/" + Cache::kName).c_str(),
        [=](benchmark::State& state) { replay<Cache>(state, Transport::kTcp, keys); })
        ->UseManualTime()
        ->Iterations(1);
  }
}

template <typename Cache>
void registerPeerMemory() {
  benchmark::RegisterBenchmark((std::string("cache_memory/") + Cache::kName).c_str(),
                               [](benchmark::State& state) { peerMemory<Cache>(state, 100000); })
      ->Iterations(1);
}

}  // namespace tessel::bench

#endif
