// Processes killed under load and started again:
//
//   kills [--seed N] [--count KILLS] [--seconds N]
//
// A publisher, a dispatcher, a message broker, a slave and a master, in a random order, over TCP
// and ipc in turn. A dispatcher that is never killed looks at the order of values, callers that are
// never killed look at their answers and at the clock. After each kill all must work again by
// itself, other than that slaves announce their services when they start and so are started again
// with their master.

#include <atomic>
#include <string>
#include <thread>

#include "node_process.h"
#include "rpc/life_fixture.h"
#include "support/deadline.h"
#include "support/endpoints.h"
#include "support/watchdog.h"

namespace tessel::test {
namespace {

// What the machine itself adds to a wait: a thread that only sleeps as long as a call may take.
class BareSleeper {
 public:
  BareSleeper()
      : thread_([this] {
          while (!over_) {
            const auto begun = Clock::now();
            std::this_thread::sleep_for(kTimeOut);
            const std::int64_t late = (Clock::now() - begun - kTimeOut).count() / 1'000'000;
            if (late > latest) latest = late;
          }
        }) {}
  ~BareSleeper() {
    over_ = true;
    thread_.join();
  }
  static constexpr milliseconds kTimeOut{100};
  std::atomic<std::int64_t> latest{0};

 private:
  std::atomic<bool> over_{false};
  std::thread thread_;
};

class System {
 public:
  explicit System(bool tcp)
      : pull_(tcp ? freeTcp() : uniqueIpc()),
        updates_(tcp ? freeTcp() : uniqueIpc()),
        cache_(tcp ? freeTcp() : uniqueIpc()),
        rpc_(tcp ? freeTcp() : uniqueIpc()) {
    makeBroker();
    makePublisher();
    makeDispatcher();
    steady_ = startNode({"dispatch", updates_, cache_, "8", "32", "0", "0"});
    makeMaster();
    callers_ = startNode(
        {"call", rpc_, std::to_string(BareSleeper::kTimeOut.count()), "6", "master", "one"});
    expectValues();
    expectAnswers();
  }

  static constexpr std::size_t kKinds = 5;
  void killOne(std::size_t kind) {
    switch (kind) {
      case 0:
        publisher_->kill();
        makePublisher();
        require(eventually([&] { return steady_->ask(Node::kLastIncarnation) == incarnation_; }),
                "values of a new publisher do not arrive");
        break;
      case 1:
        dispatcher_->kill();
        makeDispatcher();
        break;
      case 2:
        broker_->kill();
        makeBroker();
        expectValues();
        break;
      case 3:
        slave_->kill();
        makeSlave();
        expectAnswers();
        break;
      default:
        master_->kill();
        slave_->kill();
        makeMaster();
        expectAnswers();
    }
    if (kind == 1 || kind == 2) expectValues(*dispatcher_);
    look();
  }
  static std::uint64_t killsOf(std::size_t kind) { return kind == kKinds - 1 ? 2 : 1; }

  // What has been found so far; the first thing that does not hold ends the program.
  void look() {
    for (Node* node : {steady_.get(), dispatcher_.get()}) {
      const Node::Figures figures = node->ask();
      require(figures[Node::kRepeated] == 0, "a value comes twice");
      require(figures[Node::kDisordered] == 0, "a value comes after a later one");
      require(figures[Node::kOverlapping] == 0, "callbacks of different values overlap");
    }
    const Node::Figures calls = callers_->ask();
    require(calls[Node::kWrong] == 0, "a caller gets a wrong answer");
    lateness = std::max(lateness, calls[Node::kLateness]);
    late += calls[Node::kLateness] > 100 ? 1 : 0;
  }
  std::int64_t values() { return steady_->ask(Node::kValues); }
  std::int64_t answers() { return callers_->ask(Node::kAnswered); }

  std::int64_t lateness = 0;
  std::int64_t late = 0;

 private:
  void makeBroker() { broker_ = startPubsubBroker(pull_, updates_, cache_); }
  void makePublisher() {
    publisher_ = startNode({"publish", pull_, std::to_string(++incarnation_), "2", "8", "2000"});
  }
  void makeDispatcher() {
    dispatcher_ = startNode({"dispatch", updates_, cache_, "8", "32", "0", "0"});
  }
  void makeMaster() {
    master_ = startMaster(rpc_);
    makeSlave();
  }
  void makeSlave() { slave_ = startSlave(rpc_, "one"); }

  void expectValues() { expectValues(*steady_); }
  void expectValues(Node& dispatcher) {
    const std::int64_t before = dispatcher.ask(Node::kValues);
    require(eventually([&] { return dispatcher.ask(Node::kValues) > before; }),
            "values do not arrive any more");
  }
  void expectAnswers() {
    for (const char* service : {"master", "one"}) {
      const std::string expected = std::string(service) + "/m/x";
      RpcClient client(rpc_, BareSleeper::kTimeOut);
      require(eventually([&] { return outcome(client, service, "i", "m", "x") == expected; }),
              "calls are not answered any more");
    }
  }

  const std::string pull_;
  const std::string updates_;
  const std::string cache_;
  const std::string rpc_;
  std::int64_t incarnation_ = 0;
  NodeHandle broker_, publisher_, dispatcher_, steady_, master_, slave_, callers_;
};

int run() {
  const Torture& torture = Torture::instance();
  const Watchdog watchdog("kills", torture.length() + std::chrono::seconds(300));
  Random random = randomFor(0);
  BareSleeper sleeper;
  std::uint64_t kills = 0;
  std::int64_t lateness = 0, late = 0, values = 0, answers = 0;
  for (const bool tcp : {true, false}) {
    System system(tcp);
    while (kills < torture.count() / (tcp ? 2 : 1) && !torture.timeIsUp(tcp ? 1 : 2, 2)) {
      const std::size_t kind = pick(random, System::kKinds);
      system.killOne(kind);
      kills += System::killsOf(kind);
    }
    lateness = std::max(lateness, system.lateness);
    late += system.late;
    values += system.values();
    answers += system.answers();
  }
  row("F7", "publisher, dispatcher, brokers, slave and master killed under load",
      grouped(kills) + " kills",
      grouped(static_cast<std::uint64_t>(values)) + " values, 0 out of order or twice; " +
          grouped(static_cast<std::uint64_t>(answers)) + " answers, 0 wrong; latest caller " +
          std::to_string(lateness) +
          " ms behind its time-out of 100 ms (a thread that only slept: " +
          std::to_string(sleeper.latest) + " ms), " + std::to_string(late) + " later than 100 ms");
  return 0;
}

}  // namespace
}  // namespace tessel::test

int main(int argc, char** argv) {
  tessel::test::Torture::instance().begin(argc, argv, 1000, 3600);
  return tessel::test::run();
}
