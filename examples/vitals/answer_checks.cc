#include "answer_checks.h"

#include <unistd.h>

#include <algorithm>
#include <set>

#include "process_reader.h"

namespace vitals {
namespace {

double amountOf(const Process& process, Measure measure) {
  return measure == Measure::Cpu ? process.cpu : process.memory;
}

}  // namespace

void checkTop(const Processes& top, Measure measure, std::size_t count) {
  if (top.empty() || top.size() > count) {
    throw WrongAnswer(std::to_string(top.size()) + " processes at the top");
  }
  std::set<int> ids;
  for (const Process& process : top) ids.insert(process.id);
  if (ids.size() != top.size()) throw WrongAnswer("a process that is at the top twice");
  const bool ordered =
      std::is_sorted(top.begin(), top.end(), [&](const auto& left, const auto& right) {
        return amountOf(left, measure) > amountOf(right, measure);
      });
  if (!ordered) throw WrongAnswer("processes without order");
}

void checkThisProcess(const Process& process) {
  static const auto self = ProcessReader().one(getpid());
  if (!self || process.id != self->id || process.started != self->started ||
      process.name != self->name || process.memory <= 0 || process.cpu < 0) {
    throw WrongAnswer("not the process that was asked for");
  }
}

}  // namespace vitals
