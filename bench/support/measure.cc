#include "support/measure.h"

#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <fstream>

namespace {

// Off while times are taken: threads that allocate at once would wait for each other's count.
std::atomic<bool> counting{false};
std::atomic<std::uint64_t> allocations{0};

void countOne() {
  if (counting.load(std::memory_order_relaxed)) allocations.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

// The C library takes these in place of its own, in every library of the process; operator new
// comes here too.
extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);

void* malloc(std::size_t size) {
  countOne();
  return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
  countOne();
  return __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
  countOne();
  return __libc_realloc(block, size);
}

}  // extern "C"

namespace tessel::bench {
namespace {

pid_t server = 0;  // 0: none

double nanoseconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_usec) * 1e3;
}

double serverNanosecondsNow() {
  clockid_t clock{};
  timespec time{};
  if (server == 0 || clock_getcpuclockid(server, &clock) != 0) return 0;
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

}  // namespace

double threadSeconds() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

Usage Usage::now() {
  rusage used{};
  getrusage(RUSAGE_SELF, &used);
  Usage usage;
  usage.userNanoseconds = nanoseconds(used.ru_utime);
  usage.systemNanoseconds = nanoseconds(used.ru_stime);
  usage.serverNanoseconds = serverNanosecondsNow();
  usage.switches = static_cast<double>(used.ru_nvcsw + used.ru_nivcsw);
  return usage;
}

void beginCountingServer(pid_t child) { server = child; }
void endCountingServer() { server = 0; }

void reportUsage(benchmark::State& state, const Usage& begin, double items) {
  const Usage end = Usage::now();
  state.counters["user_ns"] = (end.userNanoseconds - begin.userNanoseconds) / items;
  state.counters["system_ns"] = (end.systemNanoseconds - begin.systemNanoseconds) / items;
  if (server != 0) {
    state.counters["server_ns"] = (end.serverNanoseconds - begin.serverNanoseconds) / items;
  }
  state.counters["switches"] = (end.switches - begin.switches) / items;
}

void beginCountingAllocations() {
  allocations = 0;
  counting = true;
}

std::uint64_t endCountingAllocations() {
  counting = false;
  return allocations;
}

std::uint64_t heapBytes() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

std::uint64_t residentBytes() {
  std::ifstream file("/proc/self/statm");
  std::uint64_t total = 0;
  std::uint64_t resident = 0;
  file >> total >> resident;
  return resident * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

double quantile(std::vector<double>& samples, double share) {
  if (samples.empty()) return 0;
  const auto index = static_cast<std::ptrdiff_t>(share * static_cast<double>(samples.size() - 1));
  std::nth_element(samples.begin(), samples.begin() + index, samples.end());
  return samples[static_cast<std::size_t>(index)];
}

int runBenchmarks(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

}  // namespace tessel::bench
