// A whole system for as long as asked:
//
//   soak [--seed N] [--seconds N] [--warm-up N]
//
// Eight publishers, four dispatchers of a hundred subscribers each, of whom one is slow, and eight
// callers; a dispatcher restarts every few seconds, a slave comes and goes, now in good order and
// now killed. Nothing may be lost of the order of values, of answers and of the memory: its slope
// is told for each process, from the end of the warm-up on.

#include <cmath>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "node_process.h"
#include "process_figures.h"
#include "support/deadline.h"
#include "support/endpoints.h"
#include "support/watchdog.h"

namespace tessel::test {
namespace {

constexpr double kMaxSlope = 1e6;                // bytes an hour
constexpr std::chrono::minutes kLongEnough{25};  // for a slope to tell anything

// The line through the memory of a process over time, by least squares.
class Slope {
 public:
  void add(double seconds, double bytes) {
    ++count_;
    const double before = seconds - meanTime_;
    meanTime_ += before / count_;
    meanBytes_ += (bytes - meanBytes_) / count_;
    together_ += before * (bytes - meanBytes_);
    squares_ += before * (seconds - meanTime_);
  }
  double bytesAnHour() const { return squares_ > 0 ? together_ / squares_ * 3600 : 0; }

 private:
  double count_ = 0, meanTime_ = 0, meanBytes_ = 0, together_ = 0, squares_ = 0;
};

class Soak {
 public:
  Soak() {
    add("broker", startPubsubBroker(pull_, updates_, cache_));
    add("master", startMaster(rpc_));
    const char* const restarts[] = {"0", "0", "0", "5"};
    const char* const slow[] = {"0", "20", "0", "0"};
    for (int i = 0; i < 4; ++i) {
      dispatchers_.push_back(
          add("dispatcher " + std::to_string(i + 1),
              startNode({"dispatch", updates_, cache_, "32", "100", slow[i], restarts[i]})));
    }
    add("publishers", startNode({"publish", pull_, "1", "8", "32", "400"}));
    callers_ = add("callers", startNode({"call", rpc_, "200", "8", "master", "one"}));
  }

  void run() {
    const Torture& torture = Torture::instance();
    const double length = static_cast<double>(torture.length().count());
    const auto warmUp =
        static_cast<double>(torture.number("--warm-up", static_cast<std::uint64_t>(length / 2)));
    Random random = randomFor(0);
    NodeHandle slave;
    Clock::time_point change = Clock::now();
    while (!torture.timeIsUp()) {
      if (Clock::now() >= change) {
        slaveComesOrGoes(slave, random);
        change = Clock::now() + std::chrono::milliseconds(500 + pick(random, 6000));
      }
      if (torture.seconds() > warmUp) measure();
      look();
      std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    tell();
  }

 private:
  struct Part {
    std::string name;
    NodeHandle node;
    Slope slope;
  };

  Node* add(const std::string& name, NodeHandle node) {
    parts_.push_back({name, std::move(node), {}});
    return parts_.back().node.get();
  }
  void slaveComesOrGoes(NodeHandle& slave, Random& random) {
    ++changes_;
    if (slave == nullptr) {
      slave = startSlave(rpc_, "one");
      return;
    }
    if (pick(random, 2) == 0) {
      slave->process.closeInput();
      require(slave->process.line() == "stopped", "a slave does not stop");
    }
    slave->kill();
    slave.reset();
  }
  void measure() {
    for (Part& part : parts_) {
      part.slope.add(Torture::instance().seconds(),
                     static_cast<double>(privateMemory(part.node->process.pid())));
    }
  }
  void look() {
    values_ = 0;
    for (Node* dispatcher : dispatchers_) {
      const Node::Figures figures = dispatcher->ask();
      require(figures[Node::kRepeated] == 0, "a value comes twice");
      require(figures[Node::kDisordered] == 0, "a value comes after a later one");
      require(figures[Node::kOverlapping] == 0, "callbacks of different values overlap");
      values_ += figures[Node::kValues];
    }
    const Node::Figures calls = callers_->ask();
    require(calls[Node::kWrong] == 0, "a caller gets a wrong answer");
    answers_ = calls[Node::kAnswered];
    lateness_ = std::max(lateness_, calls[Node::kLateness]);
  }
  void tell() const {
    const bool isLong = kMemoryTells && Torture::instance().length() >= kLongEnough;
    std::string steepest;
    double slope = -1e12;
    for (const Part& part : parts_) {
      std::printf("%s: %.2f MB an hour\n", part.name.c_str(), part.slope.bytesAnHour() / 1e6);
      if (part.slope.bytesAnHour() <= slope) continue;
      slope = part.slope.bytesAnHour();
      steepest = part.name;
    }
    row("F9",
        "8 publishers, 4 dispatchers with 100 subscribers each, one restarting, 8 callers, a slave "
        "coming and going",
        oneDecimal(Torture::instance().seconds() / 60) + " minutes",
        grouped(static_cast<std::uint64_t>(values_)) +
            " callbacks, 0 out of order, twice or "
            "overlapping; " +
            grouped(static_cast<std::uint64_t>(answers_)) + " answers, 0 wrong, latest " +
            std::to_string(lateness_) + " ms behind its time-out; slave changed " +
            std::to_string(changes_) + " times" +
            (isLong ? "; steepest memory " + oneDecimal(slope / 1e6) + " MB/h (" + steepest + ")"
                    : ""));
    require(slope < kMaxSlope || !isLong, "memory grows");
  }

  const std::string pull_ = freeTcp();
  const std::string updates_ = freeTcp();
  const std::string cache_ = freeTcp();
  const std::string rpc_ = freeTcp();
  std::vector<Part> parts_;
  std::vector<Node*> dispatchers_;
  Node* callers_ = nullptr;
  std::int64_t values_ = 0, answers_ = 0, lateness_ = 0;
  int changes_ = 0;
};

}  // namespace
}  // namespace tessel::test

int main(int argc, char** argv) {
  using namespace tessel::test;
  Torture::instance().begin(argc, argv, 0, 1800);
  const Watchdog watchdog("the soak", Torture::instance().length() + std::chrono::seconds(300));
  Soak().run();
  return 0;
}
