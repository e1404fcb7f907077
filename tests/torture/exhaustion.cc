// Calls that nobody answers, over and over:
//
//   exhaustion [--seed N] [--count TIME-OUTS OF EACH KIND] [--seconds N]
//
// Each makes a socket anew. In the end there are as many descriptors as before, and the next call
// to a broker that answers is answered.

#include <malloc.h>

#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "process_figures.h"
#include "rpc/life_fixture.h"
#include "support/child_process.h"
#include "support/watchdog.h"
#include "torture.h"

namespace tessel::test {
namespace {

// Descriptors that ZeroMQ opens for itself, and those of connections that are being made: two each.
constexpr int kSlack = 24;

class Exhaustion {
 public:
  Exhaustion(const char* what, int part)
      : what_(what), part_(part), random_(randomFor(static_cast<std::uint64_t>(part))) {}

  // Calls `recover` when it is over, which makes the broker answer and calls it.
  void run(const std::function<void()>& timeOut, const std::function<void()>& recover) {
    const int before = settledDescriptors();
    const std::int64_t memory = privateMemory();
    int most = before;
    std::uint64_t timeOuts = 0;
    const Torture& torture = Torture::instance();
    while (timeOuts < torture.count() && !torture.timeIsUp(part_, 3)) {
      timeOut();
      if (++timeOuts % 512 == 0) most = std::max(most, openDescriptors());
    }
    require(eventually([&] { return openDescriptors() <= before + kSlack; }),
            "descriptors are left over");
    const std::int64_t held = privateMemory() - memory;
    recover();
    malloc_trim(0);
    row("F5", what_, grouped(timeOuts) + " time-outs",
        std::to_string(before) + " descriptors before, " + std::to_string(most) + " at most, " +
            std::to_string(openDescriptors()) + " after; memory " + megabytes(held) +
            " more before the next good call, which succeeds, and " +
            megabytes(privateMemory() - memory) + " after it");
  }
  milliseconds patience() { return milliseconds(pick(random_, 2)); }

 private:
  static std::string megabytes(std::int64_t bytes) {
    return oneDecimal(static_cast<double>(bytes) / 1e6) + " MB";
  }

  const char* const what_;
  const int part_;
  Random random_;
};

void expectTimeOut(RpcClient& client, milliseconds patience) {
  client.setReceiveTimeout(patience);
  const std::string got = outcome(client, "s", "i");
  if (got != "timeout") violated("instead of a time-out: " + got);
}
void expectAnswer(RpcClient& client, const std::string& service, const std::string& expected) {
  client.setReceiveTimeout(milliseconds(500));
  require(eventually([&] { return outcome(client, service, "i", "m", "x") == expected; }),
          "the next good call does not succeed");
}

void destroyed() {
  Exhaustion exhaustion("calls to a destroyed broker of the process", 1);
  auto gone = makeMaster({});
  gone->start();
  RpcClient client(gone, milliseconds(0));
  gone.reset();
  expectTimeOut(client, milliseconds(0));  // the thread has its socket from now on
  exhaustion.run([&] { expectTimeOut(client, exhaustion.patience()); },
                 [] {
                   const std::string endpoint = uniqueInproc();
                   const auto broker = makeMaster({endpoint});
                   broker->registerService(makeEcho("s", "i"));
                   broker->start();
                   RpcClient next(endpoint, milliseconds(0));
                   expectAnswer(next, "s", echoOf("s", "i", "m", "x"));
                 });
}

// Several addresses of the loopback, since each can only be called from so many ports a minute.
std::vector<std::string> addressesOf(const std::string& endpoint) {
  const std::string port = endpoint.substr(endpoint.rfind(':'));
  std::vector<std::string> addresses;
  for (int i = 1; i <= 8; ++i) {
    addresses.push_back("tcp://127.0.0." + std::to_string(i) + port);
  }
  return addresses;
}
std::string anyAddress(const std::string& endpoint) {
  return "tcp://*" + endpoint.substr(endpoint.rfind(':'));
}

void stopped() {
  Exhaustion exhaustion("calls to a stopped broker over TCP", 2);
  const std::string endpoint = freeTcp();
  const auto broker = makeMaster({anyAddress(endpoint)});
  broker->registerService(makeEcho("s", "i"));
  broker->start();
  broker->stop();
  std::vector<std::unique_ptr<RpcClient>> clients;
  for (const std::string& address : addressesOf(endpoint)) {
    clients.push_back(std::make_unique<RpcClient>(address, milliseconds(0)));
    expectTimeOut(*clients.back(), milliseconds(1));
  }
  std::size_t turn = 0;
  exhaustion.run([&] { expectTimeOut(*clients[++turn % clients.size()], exhaustion.patience()); },
                 [&] {
                   broker->start();
                   expectAnswer(*clients[0], "s", echoOf("s", "i", "m", "x"));
                 });
}

void freeze(ChildProcess& process) {
  process.signal(SIGSTOP);
  int status = 0;
  require(waitpid(process.pid(), &status, WUNTRACED) == process.pid() && WIFSTOPPED(status),
          "a process does not freeze");
}

void frozen() {
  Exhaustion exhaustion("calls to a frozen process over TCP", 3);
  const std::string endpoint = freeTcp();
  ChildProcess master(TESSEL_RPC_HELPER_PROCESS, {"master", anyAddress(endpoint)});
  require(master.line() == "ready", "a master does not come up");
  std::vector<std::unique_ptr<RpcClient>> clients;
  for (const std::string& address : addressesOf(endpoint)) {
    clients.push_back(std::make_unique<RpcClient>(address, milliseconds(0)));
    expectAnswer(*clients.back(), "master", "master/m/x");
  }
  freeze(master);
  for (const auto& client : clients) expectTimeOut(*client, milliseconds(1));
  std::size_t turn = 0;
  exhaustion.run([&] { expectTimeOut(*clients[++turn % clients.size()], exhaustion.patience()); },
                 [&] {
                   master.signal(SIGCONT);
                   for (const auto& client : clients) expectAnswer(*client, "master", "master/m/x");
                 });
}

int run() {
  const Watchdog watchdog("exhaustion", Torture::instance().length() + std::chrono::seconds(300));
  destroyed();
  stopped();
  frozen();
  return 0;
}

}  // namespace
}  // namespace tessel::test

int main(int argc, char** argv) {
  tessel::test::Torture::instance().begin(argc, argv, 100000, 3600);
  return tessel::test::run();
}
