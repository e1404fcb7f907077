#include "process_client.h"

#include <cstdint>
#include <memory>
#include <stdexcept>

namespace vitals {

Processes ProcessClient::top(Measure measure, std::size_t count) {
  const std::string name = measure == Measure::Cpu ? "cpu" : "memory";
  return ask(kTopMethod, name + " " + std::to_string(count));
}

Process ProcessClient::process(int id) { return askForOne(kProcessMethod, std::to_string(id)); }

Process ProcessClient::usage(int id, std::chrono::milliseconds time) {
  return askForOne(kUsageMethod, std::to_string(id) + " " + std::to_string(time.count()));
}

std::string ProcessClient::call(const std::string& method, const std::string& argument) {
  std::unique_ptr<std::uint8_t[]> answer;
  std::size_t size = 0;
  client_.CallMethod(kProcessService, machine_, method, argument.data(), argument.size(), answer,
                     size);
  return std::string(answer.get(), answer.get() + size);
}

Processes ProcessClient::ask(const std::string& method, const std::string& argument) {
  const std::string answer = call(method, argument);
  if (const auto processes = decodeProcesses(answer)) return *processes;
  throw std::runtime_error("the answer makes no sense: " + answer);
}

Process ProcessClient::askForOne(const std::string& method, const std::string& argument) {
  const Processes processes = ask(method, argument);
  if (processes.size() == 1) return processes[0];
  throw std::runtime_error(std::to_string(processes.size()) + " processes instead of one");
}

}  // namespace vitals
