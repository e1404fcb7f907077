#include "process.h"

#include <unistd.h>

#include <algorithm>
#include <sstream>

namespace vitals {
namespace {

// A process gives itself any name, and may mean to play with the terminal.
std::string printable(std::string name) {
  std::replace_if(
      name.begin(), name.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  return name;
}

}  // namespace

std::optional<Process> parseProcess(const std::string& stat) {
  // The name stands in brackets, of which it may have some of its own.
  const std::size_t open = stat.find('(');
  const std::size_t close = stat.rfind(')');
  if (close == std::string::npos || open > close) return std::nullopt;
  Process process;
  process.name = printable(stat.substr(open + 1, close - open - 1));
  if (!(std::istringstream(stat) >> process.id)) return std::nullopt;

  std::istringstream fields(stat.substr(close + 1));
  const auto skip = [&](int count) {
    for (std::string field; count > 0 && fields >> field;) --count;
  };
  std::uint64_t user = 0, system = 0, pages = 0;
  skip(11);  // state, parent, group, session, terminal, its group, flags, page faults
  fields >> user >> system;
  skip(6);  // those of its children, priorities, threads, alarm
  fields >> process.started;
  skip(1);  // virtual size
  if (!(fields >> pages)) return std::nullopt;
  process.ticks = user + system;
  process.memory = static_cast<double>(pages) * static_cast<double>(sysconf(_SC_PAGESIZE));
  return process;
}

std::string encode(const Processes& processes) {
  std::ostringstream text;
  text.precision(15);
  for (const Process& p : processes) {
    text << p.id << ' ' << p.started << ' ' << p.ticks << ' ' << p.cpu << ' ' << p.memory << ' '
         << p.name << '\n';
  }
  return text.str();
}

std::optional<Processes> decodeProcesses(const std::string& bytes) {
  Processes processes;
  std::istringstream lines(bytes);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    Process p;
    if (!(fields >> p.id >> p.started >> p.ticks >> p.cpu >> p.memory)) return std::nullopt;
    fields.get();
    std::getline(fields, p.name);
    processes.push_back(p);
  }
  return processes;
}

std::string encode(const UnknownProcess& unknown) {
  return std::to_string(unknown.id) + " " + std::to_string(unknown.known);
}

std::optional<UnknownProcess> decodeUnknownProcess(const void* data, std::size_t size) {
  std::istringstream text(std::string(static_cast<const char*>(data), size));
  UnknownProcess unknown;
  if (!(text >> unknown.id >> unknown.known)) return std::nullopt;
  return unknown;
}

}  // namespace vitals
