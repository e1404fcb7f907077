#include "process_service.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

namespace vitals {
namespace {

constexpr int kLongestUsage = 1000;  // milliseconds: the sensor waits for it when it ends

// Of one core, of which a process with several threads may take more than one.
double percent(std::uint64_t before, std::uint64_t after, double seconds) {
  if (after <= before || seconds <= 0) return 0;
  const auto ticks = static_cast<double>(after - before);
  return 100 * ticks / static_cast<double>(sysconf(_SC_CLK_TCK)) / seconds;
}

double cpuOf(const Process& process) { return process.cpu; }
double memoryOf(const Process& process) { return process.memory; }

}  // namespace

ProcessService::ProcessService(ProcessReader reader)
    : Service(kProcessService, kThisMachine), reader_(std::move(reader)) {}

void ProcessService::look(std::int64_t time) {
  std::map<int, Process> seen;
  for (Process& process : reader_.all()) seen.emplace(process.id, std::move(process));
  const std::lock_guard<std::mutex> lock(mutex_);
  const double seconds = static_cast<double>(time - lastLook_) / 1e9;
  for (auto& [id, process] : seen) {
    const auto before = seen_.find(id);
    if (before == seen_.end() || before->second.started != process.started) continue;
    process.cpu = percent(before->second.ticks, process.ticks, seconds);
  }
  seen_.swap(seen);
  lastLook_ = time;
}

void ProcessService::callMethod(const std::string& method, const void* data, std::size_t size,
                                std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) {
  const std::string bytes = answer(method, std::string(static_cast<const char*>(data), size));
  out.reset(new std::uint8_t[bytes.size()]);
  std::memcpy(out.get(), bytes.data(), bytes.size());
  outSize = bytes.size();
}

std::string ProcessService::answer(const std::string& method, const std::string& argument) const {
  if (method == kTopMethod) return top(argument);
  if (method == kProcessMethod) return process(argument);
  if (method == kUsageMethod) return usage(argument);
  throw std::invalid_argument("no such method: " + method);
}

std::string ProcessService::top(const std::string& argument) const {
  std::istringstream fields(argument);
  std::string measure;
  std::size_t count = 0;
  if (!(fields >> measure >> count) || (measure != "cpu" && measure != "memory")) {
    throw std::invalid_argument("top takes cpu or memory and a count");
  }
  const auto amountOf = measure == "cpu" ? cpuOf : memoryOf;
  Processes processes;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [id, process] : seen_) processes.push_back(process);
  }
  count = std::min(count, processes.size());
  const auto end = processes.begin() + static_cast<std::ptrdiff_t>(count);
  std::partial_sort(
      processes.begin(), end, processes.end(),
      [&](const Process& left, const Process& right) { return amountOf(left) > amountOf(right); });
  processes.erase(end, processes.end());
  return encode(processes);
}

std::string ProcessService::process(const std::string& argument) const {
  int id = 0;
  if (!(std::istringstream(argument) >> id)) throw std::invalid_argument("process takes an id");
  Process process = find(id);
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto seen = seen_.find(id);
  if (seen != seen_.end() && seen->second.started == process.started) {
    process.cpu = seen->second.cpu;
  }
  return encode(Processes{process});
}

std::string ProcessService::usage(const std::string& argument) const {
  std::istringstream fields(argument);
  int id = 0;
  int milliseconds = 0;
  if (!(fields >> id >> milliseconds) || milliseconds < 1 || milliseconds > kLongestUsage) {
    throw std::invalid_argument("usage takes an id and 1 to 1000 milliseconds");
  }
  Process before = find(id);
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
  Process after = find(id);
  after.cpu = percent(before.ticks, after.ticks, milliseconds / 1000.0);
  return encode(Processes{after});
}

Process ProcessService::find(int id) const {
  if (const auto process = reader_.one(id)) return *process;
  const std::lock_guard<std::mutex> lock(mutex_);
  throw tessel::rpc_custom_error(encode(UnknownProcess{id, seen_.size()}));
}

}  // namespace vitals
