#ifndef TESSEL_BENCH_SUPPORT_CALL_LOADS_H
#define TESSEL_BENCH_SUPPORT_CALL_LOADS_H

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/crew.h"
#include "support/measure.h"
#include "support/roads.h"

/// What a call costs on a road that echoes: see calls.h for what a road offers. Any road is
/// measured in the same way, so that their figures stand beside each other.
namespace tessel::bench {

struct CallLoad {
  Transport transport;
  std::size_t threads;
  std::size_t size;           // of question and answer, in bytes
  std::size_t callsPerRound;  // of each thread
};

// What the small calls of all roads have in common. A round is to take some milliseconds, also on
// roads without sockets.
constexpr std::size_t kSmallCall = 16;  // bytes
constexpr std::size_t kCalls = 500;
constexpr std::size_t kLocalCalls = 20 * kCalls;

using CallTimes = std::vector<double>;  // nanoseconds

/// A thread that calls, one call after the other.
template <typename Road>
Crew::Work callerOf(Road& road, const CallLoad& load, CallTimes& times) {
  const auto client = std::make_shared<typename Road::Client>(road);
  return [client, &times, count = load.callsPerRound, number = std::uint64_t{0},
          question = std::vector<std::uint8_t>(load.size)]() mutable {
    for (std::size_t i = 0; i < count; ++i) {
      setNumber(question, ++number);
      const Clock::time_point begin = Clock::now();
      client->call(question.data(), question.size());
      times.push_back(secondsSince(begin) * 1e9);
      if (client->size() != question.size() || numberOf(client->data()) != number) {
        throw std::runtime_error("a wrong answer");
      }
    }
  };
}

template <typename Road>
void measureCalls(benchmark::State& state, const CallLoad& load) {
  Road road(load.transport);
  std::vector<CallTimes> times(load.threads);
  Crew crew(load.threads, [&](std::size_t i) { return callerOf(road, load, times[i]); });
  crew.round();  // connects
  for (CallTimes& all : times) all.clear();

  const Usage before = Usage::now();
  const Clock::time_point begin = Clock::now();
  for (auto _ : state) crew.round();
  const double seconds = secondsSince(begin);
  CallTimes all;
  for (const CallTimes& some : times) all.insert(all.end(), some.begin(), some.end());
  const auto count = static_cast<double>(all.size());
  reportUsage(state, before, count);
  state.SetItemsProcessed(static_cast<std::int64_t>(all.size()));
  state.counters["wall_ns"] = seconds * 1e9 / count;  // of all threads together
  state.counters["p50_ns"] = quantile(all, 0.50);
  state.counters["p99_ns"] = quantile(all, 0.99);
  state.counters["allocations"] = static_cast<double>(allocationsDuring([&] { crew.round(); })) /
                                  static_cast<double>(load.threads * load.callsPerRound);
}

/// Registers "call/<road>/<transport>/<threads>/<size>" with the side behind it: who moves the
/// call.
template <typename Road>
void addCalls(const std::string& road, const CallLoad& load, const std::string& side) {
  const std::string over = load.transport == Transport::kTcp ? "tcp" : "inproc";
  const std::string name = "call/" + road + "/" + over + "/" + std::to_string(load.threads) + "/" +
                           std::to_string(load.size) + side;
  benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
    measureCalls<Road>(state, load);
  })->UseRealTime();
}

}  // namespace tessel::bench

#endif
