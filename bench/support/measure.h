#ifndef TESSEL_BENCH_SUPPORT_MEASURE_H
#define TESSEL_BENCH_SUPPORT_MEASURE_H

#include <benchmark/benchmark.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <vector>

namespace tessel::bench {

using Clock = std::chrono::steady_clock;

inline double secondsSince(Clock::time_point begin) {
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

/// What the calling thread has used of the processor: for work of one thread, the measure that
/// other programs disturb least.
double threadSeconds();

/// Processor time and context switches of the whole process, in all its threads, and the processor
/// time of the servers that it has started.
struct Usage {
  double userNanoseconds = 0;
  double systemNanoseconds = 0;
  double serverNanoseconds = 0;
  double switches = 0;

  static Usage now();
};

/// A child process counts as a server from the one call to the other. One at a time, and no thread
/// but that of the benchmark.
void beginCountingServer(pid_t child);
void endCountingServer();

/// Puts what was used since `begin` into the counters "user_ns", "system_ns", "switches" and, with
/// a server, "server_ns" of a benchmark, for each of `items` messages, calls or entries.
void reportUsage(benchmark::State& state, const Usage& begin, double items);

/// How often any thread of the process allocates while `call()` runs, in the library, in ZeroMQ or
/// in the benchmark itself. Every road to the heap is counted, not only operator new.
template <typename Call>
std::uint64_t allocationsDuring(const Call& call);

/// Bytes that the heap holds for the program, in all arenas, and pages of it that are in memory.
std::uint64_t heapBytes();
std::uint64_t residentBytes();

/// The value below which `share` (0 to 1) of the samples are; reorders them.
double quantile(std::vector<double>& samples, double share);

/// Runs the benchmarks registered by then with Google Benchmark's own command line.
int runBenchmarks(int argc, char** argv);

void beginCountingAllocations();
std::uint64_t endCountingAllocations();

template <typename Call>
std::uint64_t allocationsDuring(const Call& call) {
  beginCountingAllocations();
  call();
  return endCountingAllocations();
}

}  // namespace tessel::bench

#endif
