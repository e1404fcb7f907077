#include <cstdio>
#include <thread>

#include "life_fixture.h"
#include "support/child_process.h"

namespace tessel::test {
namespace {

const char* const kProgram = TESSEL_RPC_HELPER_PROCESS;

using Process = std::unique_ptr<ChildProcess>;

Process startProcess(std::initializer_list<std::string> arguments) {
  auto process = std::make_unique<ChildProcess>(kProgram, arguments);
  EXPECT_EQ(process->line(), "ready");
  return process;
}

void killProcess(Process& process) {
  process->kill();
  EXPECT_TRUE(WIFSIGNALED(process->wait()));
  process.reset();
}

void stopBroker(const Process& process) {
  process->closeInput();
  EXPECT_EQ(process->line(), "stopped");
}

struct Tally {
  int answered = 0, timedOut = 0, notFound = 0, wrong = -1, late = -1;
};

Tally endOf(Process& client) {
  client->closeInput();
  Tally tally;
  const std::string line = client->line();
  EXPECT_EQ(std::sscanf(line.c_str(), "%d %d %d %d %d", &tally.answered, &tally.timedOut,
                        &tally.notFound, &tally.wrong, &tally.late),
            5)
      << line;
  EXPECT_EQ(client->wait(), 0);
  return tally;
}

std::string answerOf(const std::string& service) { return service + "/m/x"; }

// Until a service is known again after a restart, calls time out or find nobody.
bool callable(RpcClient& client, const std::string& service) {
  return eventually([&] { return outcome(client, service, "i", "m", "x") == answerOf(service); });
}

class RpcProcesses : public testing::TestWithParam<std::string> {
 protected:
  const std::string endpoint = GetParam() == "tcp" ? freeTcp() : uniqueIpc();
  RpcClient probe{endpoint, milliseconds(300)};
};

TEST_P(RpcProcesses, KilledAndRestartedUnderLoadNeverAnswerWronglyAndServeAgain) {
  const Watchdog watchdog("processes under load");
  Process master = startProcess({"master", endpoint});
  Process one = startProcess({"slave", endpoint, "one", "one"});
  Process two = startProcess({"slave", endpoint, "two", "two"});
  Process client = startProcess({"client", endpoint, "100", "master", "one", "two", "two"});
  Process other = startProcess({"client", endpoint, "100", "master", "one", "two"});
  for (int round = 0; round < 2; ++round) {
    for (const char* service : {"master", "one", "two"}) EXPECT_TRUE(callable(probe, service));
    // A slave dies and comes back.
    killProcess(one);
    EXPECT_EQ(outcome(probe, "one", "i"), "timeout");  // nobody has taken its service back
    EXPECT_TRUE(callable(probe, "two"));
    one = startProcess({"slave", endpoint, "one", "one"});
    EXPECT_TRUE(callable(probe, "one"));
    // A caller dies in the middle of its calls.
    killProcess(other);
    other = startProcess({"client", endpoint, "100", "master", "one", "two"});
    // The master dies: the slaves announce themselves when they start, so they start again.
    killProcess(master);
    EXPECT_EQ(outcome(probe, "master", "i"), "timeout");
    master = startProcess({"master", endpoint});
    EXPECT_TRUE(callable(probe, "master"));
    EXPECT_EQ(outcome(probe, "two", "i"), notFound("two", "i"));
    killProcess(two);
    two = startProcess({"slave", endpoint, "two", "two"});
    stopBroker(one);
    killProcess(one);
    one = startProcess({"slave", endpoint, "one", "one"});
    for (const char* service : {"master", "one", "two"}) EXPECT_TRUE(callable(probe, service));
  }
  for (Process* process : {&client, &other}) {
    const Tally tally = endOf(*process);
    EXPECT_GT(tally.answered, 0);
    EXPECT_EQ(tally.wrong, 0);
    EXPECT_EQ(tally.late, 0);
  }
}

TEST_P(RpcProcesses, TwoSlavesWithOneServiceTheLaterIsCalledAndTheFirstTakesItBackForBoth) {
  const Watchdog watchdog("two slaves with one service");
  const auto calledIs = [&](const std::string& expected) {
    return eventually([&] { return outcome(probe, "same", "i", "who") == expected; });
  };
  Process master = startProcess({"master", endpoint});
  Process first = startProcess({"slave", endpoint, "same", "first"});
  EXPECT_TRUE(calledIs("first"));
  Process later = startProcess({"slave", endpoint, "same", "later"});
  EXPECT_TRUE(calledIs("later"));
  Process third = startProcess({"slave", endpoint, "same", "third"});
  EXPECT_TRUE(calledIs("third"));
  // Killed, a slave takes nothing back, and the calls go to nobody.
  killProcess(third);
  EXPECT_TRUE(calledIs("timeout"));
  third = startProcess({"slave", endpoint, "same", "third again"});
  EXPECT_TRUE(calledIs("third again"));
  // Stopped in good order, it takes the name back, whoever has it by now.
  stopBroker(first);
  EXPECT_TRUE(calledIs(notFound("same", "i")));
  later = startProcess({"slave", endpoint, "same", "last"});
  EXPECT_TRUE(calledIs("last"));
}

// A slave and a caller of a master, in that order: peers are named in the order in which they come.
struct SlaveAndCaller {
  explicit SlaveAndCaller(const std::string& endpoint) {
    slave.connect(endpoint).send(registration(true, "raw", "i"));
    slave.send(request("unknown", "i"));
    EXPECT_EQ(slave.receive(), enveloped({}, replyFrames(2, "service not found: unknown - i")));
    caller.connect(endpoint).send(request("raw", "i", "m", "x"));
    const Frames forwarded = slave.receive();
    if (!forwarded.empty()) callerName = forwarded.front();
    EXPECT_EQ(forwarded, enveloped({callerName}, requestFrames("raw", "i", "m", "x")));
  }

  RawPeer slave{ZMQ_DEALER};
  RawPeer caller{ZMQ_DEALER};
  std::string callerName;
};

TEST_P(RpcProcesses, AnAnswerThatTheMasterBeforeWaitedForReachesNobodyOfTheNext) {
  const Watchdog watchdog("an answer to the master before");
  Process master = startProcess({"master", endpoint});
  std::string gone;
  {
    const SlaveAndCaller before(endpoint);
    gone = before.callerName;
  }
  killProcess(master);
  master = startProcess({"master", endpoint});
  SlaveAndCaller now(endpoint);
  now.slave.send(enveloped({gone}, replyFrames(0, "of before")));
  now.slave.send(enveloped({now.callerName}, replyFrames(0, "of now")));
  EXPECT_EQ(now.caller.receive(), result("of now"));
}

INSTANTIATE_TEST_SUITE_P(Over, RpcProcesses, testing::Values("tcp", "ipc"),
                         [](const auto& instance) { return instance.param; });

}  // namespace
}  // namespace tessel::test
