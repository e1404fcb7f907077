// Handing tasks to the worker pool.

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "support/measure.h"
#include "transport/work_queue.h"

namespace tessel::bench {
namespace {

constexpr std::size_t kWorkers = 4;  // what a dispatcher has unless told otherwise

// As large as a delivery's task, which needs an allocation of its own.
WorkQueue::Task makeTask(std::atomic<std::int64_t>& ran) {
  std::int64_t captured[3] = {1, 0, 0};
  return [&ran, captured] { ran.fetch_add(captured[0], std::memory_order_relaxed); };
}

// From push() of a single task until a worker that slept runs it.
void pushToRun(benchmark::State& state) {
  WorkQueue queue(kWorkers);
  std::atomic<std::int64_t> ranAt{0};
  std::vector<double> nanoseconds;
  for (auto _ : state) {
    std::this_thread::sleep_for(std::chrono::microseconds(200));  // workers fall asleep
    ranAt = 0;
    const Clock::time_point pushed = Clock::now();
    queue.push([&] { ranAt = Clock::now().time_since_epoch().count(); });
    queue.waitIdle();
    const double took = static_cast<double>(ranAt.load() - pushed.time_since_epoch().count());
    state.SetIterationTime(took * 1e-9);
    nanoseconds.push_back(took);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(nanoseconds.size()));
  state.counters["p50_ns"] = quantile(nanoseconds, 0.50);
  state.counters["p99_ns"] = quantile(nanoseconds, 0.99);
}

// A stream of single tasks, each waited for: what a dispatcher does for one value after the other.
void roundTrip(benchmark::State& state) {
  WorkQueue queue(kWorkers);
  std::atomic<std::int64_t> ran{0};
  const Usage before = Usage::now();
  for (auto _ : state) {
    queue.push(makeTask(ran));
    queue.waitIdle();
  }
  reportUsage(state, before, static_cast<double>(ran.load()));
  state.SetItemsProcessed(ran);
  state.counters["allocations"] = static_cast<double>(allocationsDuring([&] {
    queue.push(makeTask(ran));
    queue.waitIdle();
  }));
}

// Many tasks, and waiting for all; per task.
void burst(benchmark::State& state, int tasks) {
  WorkQueue queue(kWorkers);
  std::atomic<std::int64_t> ran{0};
  const Usage before = Usage::now();
  for (auto _ : state) {
    for (int i = 0; i < tasks; ++i) queue.push(makeTask(ran));
    queue.waitIdle();
  }
  reportUsage(state, before, static_cast<double>(ran.load()));
  state.SetItemsProcessed(ran);
}

void idle(benchmark::State& state) {
  WorkQueue queue(kWorkers);
  for (auto _ : state) queue.waitIdle();
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}

void registerAll() {
  benchmark::RegisterBenchmark("work_queue/push_to_run", pushToRun)->UseManualTime();
  benchmark::RegisterBenchmark("work_queue/round_trip", roundTrip)->UseRealTime();
  benchmark::RegisterBenchmark("work_queue/wait_idle", idle)->UseRealTime();
  for (const int tasks : {50, 100}) {
    benchmark::RegisterBenchmark(("work_queue/push_each/" + std::to_string(tasks)).c_str(),
                                 [=](benchmark::State& state) { burst(state, tasks); })
        ->UseRealTime();
  }
}

}  // namespace
}  // namespace tessel::bench

int main(int argc, char** argv) {
  tessel::bench::registerAll();
  return tessel::bench::runBenchmarks(argc, argv);
}
