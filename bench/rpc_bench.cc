// The road of a call and of its answer, by way of a master, of a slave behind it, and within the
// process; against bare libzmq.

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/calls.h"
#include "support/crew.h"
#include "support/measure.h"
#include "support/roads.h"

namespace tessel::bench {
namespace {

using Times = std::vector<double>;  // nanoseconds

// What is measured.
struct Load {
  Transport transport;
  std::size_t threads;
  std::size_t size;
  std::size_t callsPerRound;  // of each thread
};

// A thread that calls, one call after the other.
template <typename Road>
Crew::Work callerOf(Road& road, const Load& load, Times& times) {
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
void calls(benchmark::State& state, const Load& load) {
  Road road(load.transport);
  std::vector<Times> times(load.threads);
  Crew crew(load.threads, [&](std::size_t i) { return callerOf(road, load, times[i]); });
  crew.round();  // connects
  for (Times& all : times) all.clear();

  const Usage before = Usage::now();
  const Clock::time_point begin = Clock::now();
  for (auto _ : state) crew.round();
  const double seconds = secondsSince(begin);
  Times all;
  for (const Times& some : times) all.insert(all.end(), some.begin(), some.end());
  const auto count = static_cast<double>(all.size());
  reportUsage(state, before, count);
  state.SetItemsProcessed(static_cast<std::int64_t>(all.size()));
  state.counters["wall_ns"] = seconds * 1e9 / count;  // of all threads together
  state.counters["p50_ns"] = quantile(all, 0.50);
  state.counters["p99_ns"] = quantile(all, 0.99);
  state.counters["allocations"] = static_cast<double>(allocationsDuring([&] { crew.round(); })) /
                                  static_cast<double>(load.threads * load.callsPerRound);
}

template <typename Road>
void add(const std::string& road, const Load& load, const std::string& side) {
  const std::string over = load.transport == Transport::kTcp ? "tcp" : "inproc";
  const std::string name = "call/" + road + "/" + over + "/" + std::to_string(load.threads) + "/" +
                           std::to_string(load.size) + side;
  benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
    calls<Road>(state, load);
  })->UseRealTime();
}

template <typename Road, typename Twin>
void addBoth(const std::string& road, const Load& load) {
  add<Road>(road, load, "/tessel");
  add<Twin>(road, load, "/raw");
}

void registerAll() {
  constexpr std::size_t kSmall = 16;
  constexpr std::size_t kCalls = 500;
  for (const Transport transport : {Transport::kTcp, Transport::kInproc}) {
    add<RawRep>("rep", {transport, 1, kSmall, kCalls}, "");
    addBoth<TesselMaster, RawMaster>("master", {transport, 1, kSmall, kCalls});
    addBoth<TesselMaster, RawMaster>("master", {transport, 4, kSmall, kCalls});
    addBoth<TesselMaster, RawMaster>("master", {transport, 1, 65536, kCalls});
    addBoth<TesselSlave, RawSlave>("slave", {transport, 1, kSmall, kCalls});
    addBoth<TesselSlave, RawSlave>("slave", {transport, 4, kSmall, kCalls});
  }
  // The twin is the fastest that there is with sockets.
  add<TesselLocal>("local", {Transport::kInproc, 1, kSmall, 20 * kCalls}, "/tessel");
  add<RawMaster>("local", {Transport::kInproc, 1, kSmall, kCalls}, "/raw");
  add<TesselLocal>("local", {Transport::kInproc, 4, kSmall, 20 * kCalls}, "/tessel");
  add<RawMaster>("local", {Transport::kInproc, 4, kSmall, kCalls}, "/raw");
}

}  // namespace
}  // namespace tessel::bench

int main(int argc, char** argv) {
  tessel::bench::registerAll();
  return tessel::bench::runBenchmarks(argc, argv);
}
