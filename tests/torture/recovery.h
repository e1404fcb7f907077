#ifndef TESSEL_TESTS_TORTURE_RECOVERY_H
#define TESSEL_TESTS_TORTURE_RECOVERY_H

#include <algorithm>
#include <string>
#include <vector>

#include "node_process.h"
#include "support/deadline.h"

namespace tessel::test {

/// Publishers, a dispatcher and callers whose network is broken and healed: how long it takes them
/// to go on, and that what they get is right.
class Recovery {
 public:
  Recovery(Node& dispatcher, std::vector<Node*> callers)
      : dispatcher_(dispatcher), callers_(std::move(callers)) {
    awaitProgress();
    times_.clear();
  }

  /// To be called when the network has healed: until a value arrives and a call of everyone is
  /// answered. In milliseconds.
  std::int64_t awaitProgress() {
    const auto healed = Clock::now();
    const std::int64_t values = dispatcher_.ask(Node::kValues);
    std::vector<std::int64_t> answers;
    for (Node* caller : callers_) answers.push_back(caller->ask(Node::kAnswered));
    require(eventually([&] { return dispatcher_.ask(Node::kValues) > values; }, kStuck),
            "values do not go on");
    for (std::size_t i = 0; i < callers_.size(); ++i) {
      require(eventually([&] { return callers_[i]->ask(Node::kAnswered) > answers[i]; }, kStuck),
              "calls do not go on");
    }
    times_.push_back((Clock::now() - healed).count() / 1'000'000);
    look();
    return times_.back();
  }

  /// "12 ms, 120 ms at most".
  std::string times() const {
    std::vector<std::int64_t> sorted = times_;
    std::sort(sorted.begin(), sorted.end());
    return std::to_string(sorted[sorted.size() / 2]) + " ms, " + std::to_string(sorted.back()) +
           " ms at most";
  }
  std::string found() const {
    return grouped(static_cast<std::uint64_t>(values_)) + " values, 0 out of order or twice; " +
           grouped(static_cast<std::uint64_t>(answers_)) + " answers, 0 wrong";
  }

 private:
  static constexpr std::chrono::seconds kStuck{100};

  void look() {
    const Node::Figures figures = dispatcher_.ask();
    require(figures[Node::kRepeated] == 0, "a value comes twice");
    require(figures[Node::kDisordered] == 0, "a value comes after a later one");
    require(figures[Node::kOverlapping] == 0, "callbacks of different values overlap");
    values_ = figures[Node::kValues];
    answers_ = 0;
    for (Node* caller : callers_) {
      const Node::Figures calls = caller->ask();
      require(calls[Node::kWrong] == 0, "a caller gets a wrong answer");
      answers_ += calls[Node::kAnswered];
    }
  }

  Node& dispatcher_;
  const std::vector<Node*> callers_;
  std::vector<std::int64_t> times_;
  std::int64_t values_ = 0, answers_ = 0;
};

}  // namespace tessel::test

#endif
