// Objects and threads that come and go:
//
//   life_cycles [--seed N] [--count CYCLES] [--seconds N]
//
// Every order of up to four of start, stop, stop with clearing and use, on each of the four classes
// that run, from making one to destroying it, over and over; a tenth as many short threads that
// publish and call; a hundredth as many forks, with and without a new program. Then descriptors,
// threads and heap are what they were.

#include <sys/wait.h>
#include <tessel/tessel.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "process_figures.h"
#include "rpc/life_fixture.h"
#include "support/child_process.h"
#include "support/watchdog.h"
#include "torture.h"

namespace tessel::test {
namespace {

// What is kept for good is small. A freed block may stay counted in a thread's own store.
constexpr std::int64_t kHeapSlack = 300'000;

enum Step { kStart, kStop, kStopAndClear, kUse, kSteps };

// All orders of the steps, the shorter first; the empty one too.
std::vector<std::vector<Step>> allOrders(std::size_t longest) {
  std::vector<std::vector<Step>> orders{{}};
  for (std::size_t i = 0; i < orders.size() && orders[i].size() < longest; ++i) {
    for (int step = 0; step < kSteps; ++step) {
      std::vector<Step> order = orders[i];
      order.push_back(static_cast<Step>(step));
      orders.push_back(std::move(order));
    }
  }
  return orders;
}

class QuietBrokerObserver : public MessageBrokerObserver {
 public:
  void onSubscribe(const std::string&, const std::string&) override {}
  void onUnsubscribe(const std::string&, const std::string&) override {}
  void onPublish(const std::string&, const std::string&, bool, bool, bool) override {}
  void onUnpublish(const std::string&, const std::string&, bool, bool, bool) override {}
};

// Some in turn, since each name is kept until the program ends.
std::string someIpc() {
  static std::vector<std::string> names;
  static std::size_t next = 0;
  if (names.size() < 100) names.push_back(uniqueIpc());
  return names[next++ % names.size()];
}

std::string endpointOf(Random& random) {
  switch (pick(random, 8)) {
    case 0:
      return "tcp://127.0.0.1:*";
    case 1:
      return someIpc();
    default:
      return uniqueInproc();
  }
}

void brokerCycle(const std::vector<Step>& order, Random& random) {
  const std::string cache = endpointOf(random);
  MessageBroker broker({}, {}, {cache});
  const auto observer = std::make_shared<QuietBrokerObserver>();
  for (const Step step : order) {
    if (step == kStart) broker.start();
    if (step == kStop) broker.stop();
    if (step == kStopAndClear) broker.stop(true, true);
    if (step != kUse) continue;
    broker.attach(observer);
    Publisher(broker, "t", "g").publish("value", 5);
    if (pick(random, 2) == 0) broker.detach(observer);
  }
}

void dispatcherCycle(const std::vector<Step>& order, Random& random) {
  static MessageBroker& broker = *new MessageBroker({}, {"inproc://live"}, {"inproc://cached"});
  broker.start();
  MessageDispatcher dispatcher("inproc://live", "inproc://cached", pick(random, 3));
  std::vector<std::shared_ptr<Subscriber>> subscribers;
  for (const Step step : order) {
    if (step == kStart) dispatcher.start();
    if (step == kStop) dispatcher.stop();
    if (step == kStopAndClear) dispatcher.stop(true);
    if (step != kUse) continue;
    const auto mode = static_cast<SubscriptionMode>(pick(random, 3));
    subscribers.push_back(std::make_shared<Subscriber>(mode, "t", "g"));
    dispatcher.registerSubscriber(subscribers.back());
    dispatcher.registerSubscriber(std::make_shared<MultiSubscriber>("t"));  // gone at once
    Publisher(broker, "t", "g").publish("value", 5);
    if (pick(random, 2) == 0) dispatcher.unregisterSubscriber(subscribers.front());
  }
}

void masterCycle(const std::vector<Step>& order, Random& random) {
  const std::string endpoint = endpointOf(random);
  const auto broker = makeMaster({endpoint}, 1 + pick(random, 2));
  const auto service = makeEcho("s", "i");
  bool running = false;
  bool registered = false;
  for (const Step step : order) {
    if (step == kStart) broker->start();
    if (step == kStop) broker->stop();
    if (step == kStopAndClear) broker->stop(true, true);
    if (step == kStopAndClear && running) registered = false;
    if (step != kUse) {
      running = step == kStart;
      continue;
    }
    if (!registered) broker->registerService(service);
    registered = true;
    RpcClient client(broker, running ? kLong : milliseconds(0));
    const std::string got = outcome(client, pick(random, 2) == 0 ? "s" : "none", "i");
    require(running ? got != "timeout" : got == "timeout", "a call ends in another way");
  }
}

void slaveCycle(const std::vector<Step>& order, Random& random) {
  static const std::string endpoint = uniqueInproc();
  static RpcBroker& master =
      *new RpcBroker(true, {endpoint}, std::make_shared<ThreadedRpcDispatcher>(1));
  master.start();
  const auto broker = makeSlave(endpoint, 1);
  std::vector<std::shared_ptr<Service>> services;
  for (const Step step : order) {
    if (step == kStart) broker->start();
    if (step == kStop) broker->stop();
    if (step == kStopAndClear) broker->stop(true, true);
    if (step != kUse) continue;
    services.push_back(makeEcho("s", std::to_string(services.size())));
    broker->registerService(services.back());
    if (pick(random, 2) == 0) broker->unregisterService(services.back());
  }
}

void rpcDispatcherCycle(const std::vector<Step>& order, Random& random) {
  class Nothing : public RpcRequest {
   public:
    std::string getServiceName() const override { return "s"; }
    std::string getInstanceName() const override { return "i"; }
    std::string getMethodName() const override { return "m"; }
    void execute() override {}
  };
  ThreadedRpcDispatcher dispatcher(pick(random, 4));
  bool running = false;
  for (const Step step : order) {
    if (step == kStart) dispatcher.start();
    if (step == kStop || step == kStopAndClear) dispatcher.stop();
    if (step != kUse) running = step == kStart;
    if (step == kUse && running) dispatcher.submit(std::make_shared<Nothing>());
  }
}

using Cycle = void (*)(const std::vector<Step>&, Random&);
constexpr std::array<Cycle, 5> kCycles = {brokerCycle, dispatcherCycle, masterCycle, slaveCycle,
                                          rpcDispatcherCycle};

// Where the process stands when nothing is going on in it.
struct Standing {
  int descriptors = 0;
  int threads = 0;
  std::int64_t heap = 0;
};
Standing standing() {
  Standing last;
  int steady = 0;
  eventually([&] {
    const Standing now{openDescriptors(), threadCount(), heapInUse()};
    steady = now.descriptors == last.descriptors && now.threads == last.threads ? steady + 1 : 0;
    last = now;
    return steady > 500;
  });
  last.heap = heapInUse();
  return last;
}

std::string describe(const Standing& before, const Standing& after) {
  return "descriptors " + std::to_string(before.descriptors) + " before, " +
         std::to_string(after.descriptors) + " after; threads " + std::to_string(before.threads) +
         ", " + std::to_string(after.threads) + "; heap " +
         oneDecimal(static_cast<double>(after.heap - before.heap) / 1e3) + " kB more";
}

// Runs `once` some times to warm up, then for the figure.
void repeat(const char* what, const char* unit, std::uint64_t count, int part,
            const std::function<void(std::uint64_t)>& once) {
  const Torture& torture = Torture::instance();
  std::uint64_t number = 0;
  const std::uint64_t warmUp = std::max<std::uint64_t>(count / 10, 1);
  do {
    once(number++);  // at least one, also when the part before has used the time up
  } while (number < warmUp && !torture.timeIsUp(2 * part - 1, 6));
  const Standing before = standing();
  const std::uint64_t begun = number;
  while (number < begun + count && !torture.timeIsUp(2 * part, 6)) once(number++);
  Standing after;
  const bool back = eventually([&] {
    after = standing();
    return after.descriptors <= before.descriptors && after.threads <= before.threads;
  });
  row("F8", what, grouped(number - begun) + " " + unit, describe(before, after));
  require(back, "descriptors or threads are left over");
  require(after.heap - before.heap < kHeapSlack, "the heap grows");
}

void cycles() {
  const std::vector<std::vector<Step>> orders = allOrders(4);
  Random random = randomFor(1);
  repeat("every order of start, stop, clear and use, on every class that runs", "life cycles",
         Torture::instance().count(), 1, [&](std::uint64_t number) {
           // On threads that end after a while, with the connections that they have made.
           static constexpr std::uint64_t kOnOneThread = 50;
           if (number % kOnOneThread != 0) return;
           std::thread([&] {
             for (std::uint64_t i = number; i < number + kOnOneThread; ++i) {
               kCycles[i % kCycles.size()](orders[i / kCycles.size() % orders.size()], random);
             }
           }).join();
         });
}

class Site {
 public:
  // One worker: each has a socket from its first call on, which may come after the warm-up.
  Site() : broker_({pull_}, {}, {}), master_(makeMaster({rpc_}, 1)) {
    broker_.start();
    master_->registerService(makeEcho("s", "i"));
    master_->start();
  }
  void publishAndCall() {
    const Publisher inProcess(broker_, "t", "g");
    inProcess.publish("value", 5);
    const Publisher overTcp({pull_}, "t", "g");
    overTcp.publish("value", 5);
    for (const std::string& endpoint : {rpc_, std::string()}) {
      RpcClient client = endpoint.empty() ? RpcClient(master_, kLong) : RpcClient(endpoint, kLong);
      require(outcome(client, "s", "i") == "s/i/m/", "a call is not answered");
      require(outcome(client, "none", "i") == notFound("none", "i"), "a call is answered");
    }
  }

 private:
  const std::string pull_ = freeTcp();
  const std::string rpc_ = freeTcp();
  MessageBroker broker_;
  const std::shared_ptr<RpcBroker> master_;
};

void shortThreads(Site& site) {
  repeat("short threads that publish and call, in process and over TCP", "threads",
         Torture::instance().count() / 10, 2, [&](std::uint64_t) {
           std::thread a([&] { site.publishAndCall(); });
           site.publishAndCall();
           a.join();
         });
}

int inherited = 0;  // descriptors that were open before the program began

const pid_t self = getpid();

int endOf(pid_t child) {
  int status = -1;
  if (!eventually([&] { return waitpid(child, &status, WNOHANG) == child; })) {
    kill(child, SIGKILL);
    violated("a forked process does not end");
  }
  return status;
}

// A child of a process with all its threads and sockets ends at once, ends with the destructors of
// statics and of this thread, or becomes another program, which gets no descriptor of ours.
void forks(Site& site) {
  repeat("forks that end, that exit and that become another program", "forks",
         Torture::instance().count() / 100, 3, [&](std::uint64_t number) {
           site.publishAndCall();
           if (number % 3 == 2) {
             ChildProcess other("/bin/sh", {"-c", "ls /proc/self/fd | wc -l"});
             // Those that this program was started with, and the folder's.
             require(other.line() == std::to_string(inherited + 1),
                     "another program has descriptors of ours");
             require(other.wait() == 0, "another program fails");
             return;
           }
           const pid_t child = fork();
           if (child == 0 && number % 3 == 0) _exit(0);
           if (child == 0) std::exit(0);
           require(endOf(child) == 0, "a forked process does not end well");
           site.publishAndCall();
         });
}

int run() {
  const Watchdog watchdog("life cycles", Torture::instance().length() + std::chrono::seconds(300));
  inherited = openDescriptors();
  cycles();
  Site site;
  shortThreads(site);
  forks(site);
  return 0;
}

}  // namespace
}  // namespace tessel::test

// A forked process has the memory of threads that it does not have, which only looks like a leak.
extern "C" int __lsan_is_turned_off();
extern "C" int __lsan_is_turned_off() { return getpid() == tessel::test::self ? 0 : 1; }

int main(int argc, char** argv) {
  tessel::test::Torture::instance().begin(argc, argv, 100000, 3600);
  return tessel::test::run();
}
