#include "caller.h"

#include <unistd.h>

#include <chrono>
#include <exception>
#include <initializer_list>
#include <stdexcept>
#include <utility>

#include "answer_checks.h"
#include "clock.h"

namespace vitals {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kPatience{3000};
constexpr milliseconds kTopPeriod{1000};
constexpr milliseconds kUsageTime{100};

std::string describe(const CaughtError& error) {
  return error.kind + (error.text.empty() ? "" : ": " + error.text);
}

}  // namespace

Caller::Caller(const std::string& endpoint, std::function<bool()> sensorEnded)
    : endpoint_(endpoint), sensorEnded_(std::move(sensorEnded)), client_(endpoint, kPatience) {}

Caller::~Caller() { stop(); }

void Caller::start() {
  if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
}

void Caller::stop() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    stopSignal_.notify_all();
  }
  if (thread_.joinable()) thread_.join();
}

bool Caller::settled() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return settled_;
}

CallReport Caller::report() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  CallReport copy = report_;
  copy.timed = latencies_.count();
  copy.p50 = latencies_.microseconds(0.50);
  copy.p99 = latencies_.microseconds(0.99);
  return copy;
}

void Caller::run() {
  try {
    for (const auto step : {&Caller::askForTopLists, &Caller::provokeErrors, &Caller::askForUsage,
                            &Caller::askThousandTimes}) {
      if (!over()) (this->*step)();
    }
    settle("");
    while (!pause(kTopPeriod) && !over()) askForTopLists();
  } catch (const WrongAnswer& error) {
    settle(error.what());
  } catch (const std::exception& error) {
    settle(endsSoon() ? "" : error.what());
  }
}

bool Caller::over() { return sensorEnded_() || pause(milliseconds(0)); }

// The sensor withdraws its values before it takes its service back; but news and answers go
// different ways.
bool Caller::endsSoon() {
  constexpr milliseconds kLook{10};
  constexpr int kLooks = 200;
  for (int i = 0; i < kLooks; ++i) {
    if (over()) return true;
    pause(kLook);
  }
  return false;
}

bool Caller::pause(milliseconds time) {
  std::unique_lock<std::mutex> lock(mutex_);
  return stopSignal_.wait_for(lock, time, [this] { return stopping_; });
}

void Caller::settle(const std::string& fault) {
  const std::lock_guard<std::mutex> lock(mutex_);
  report_.fault = fault;
  settled_ = true;
}

void Caller::askForTopLists() {
  askForTop(Measure::Cpu, report_.busiest);
  askForTop(Measure::Memory, report_.largest);
}

void Caller::askForTop(Measure measure, Processes& answer) {
  const Processes top = client_.top(measure, kTopCount);
  checkTop(top, measure, kTopCount);
  const std::lock_guard<std::mutex> lock(mutex_);
  answer = top;
  ++report_.right;
}

void Caller::provokeErrors() {
  for (const Provocation& provocation : provocations(endpoint_)) {
    const CaughtError caught = catchFrom(provocation.call);
    if (!(caught == provocation.expected)) {
      throw std::runtime_error("caught " + describe(caught) + " instead of " +
                               describe(provocation.expected));
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    report_.errors.push_back(caught);
  }
}

// The question that was not waited for when errors were provoked.
void Caller::askForUsage() {
  const Process process = client_.usage(getpid(), kUsageTime);
  checkThisProcess(process);
  countRight();
}

void Caller::askThousandTimes() {
  for (std::size_t i = 0; i < kTimedCalls && !over(); ++i) {
    const std::int64_t begin = now();
    const Process process = client_.process(getpid());
    const std::int64_t end = now();
    checkThisProcess(process);
    countRight();
    const std::lock_guard<std::mutex> lock(mutex_);
    latencies_.add(end - begin);
  }
}

void Caller::countRight() {
  const std::lock_guard<std::mutex> lock(mutex_);
  ++report_.right;
}

}  // namespace vitals
