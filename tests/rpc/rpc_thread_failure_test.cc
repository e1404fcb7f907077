#include <pthread.h>

#include <cerrno>
#include <system_error>

#include "life_fixture.h"
#include "support/stand_in.h"
#include "support/system_errors.h"

namespace {

// How many more threads may start; -1 for any number. At the end `atFailure` runs in the place of a
// thread.
std::atomic<int> threadsLeft{-1};
std::function<void()>& atFailure() {
  static auto& function = *new std::function<void()>;
  return function;
}

}  // namespace

// In the place of the system's: the standard library's threads are made through it.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*run)(void*), void* argument) noexcept {
  static const auto create = tessel::test::real("pthread_create", &pthread_create);
  if (threadsLeft == 0) {
    if (atFailure()) atFailure()();
    return EAGAIN;
  }
  if (threadsLeft > 0) --threadsLeft;
  return create(thread, attributes, run, argument);
}

namespace tessel::test {
namespace {

bool failsToStart(RpcBroker& broker, int threads) {
  threadsLeft = threads;
  const std::error_code error = systemErrorOf([&] { broker.start(); });
  threadsLeft = -1;
  return error == std::errc::resource_unavailable_try_again;
}

TEST(RpcThreadFailure, LeavesTheDispatcherStoppedAndTheBrokerAsItWas) {
  const Watchdog watchdog("a start without a thread");
  const auto dispatcher = std::make_shared<KeepingDispatcher>();
  const auto broker = std::make_shared<RpcBroker>(true, std::vector<std::string>(), dispatcher);
  broker->registerService(makeEcho("s", "i"));
  RpcClient client(broker, milliseconds(5));
  for (int round = 1; round <= 3; ++round) {
    EXPECT_TRUE(failsToStart(*broker, 0));
    EXPECT_EQ(dispatcher->starts, round);
    EXPECT_EQ(dispatcher->stops, round);
    EXPECT_EQ(outcome(client, "s", "i"), "timeout");  // not served locally either
    broker->stop(true, true);                         // nothing runs
    EXPECT_EQ(dispatcher->stops, round);
  }
  broker->start();
  EXPECT_EQ(outcome(client, "s", "i"), "s/i/m/");
  broker->stop();
  EXPECT_EQ(dispatcher->stops, 4);
}

TEST(RpcThreadFailure, AtAnyOfTheThreadsLeavesNone) {
  const Watchdog watchdog("a start with too few threads");
  const std::string endpoint = uniqueInproc();
  const auto broker = makeMaster({endpoint}, 4);
  broker->registerService(makeEcho("s", "i"));
  const int before = threadCount();
  RpcClient client(endpoint, kLong);
  for (int threads = 0; threads < 5; ++threads) {
    EXPECT_TRUE(failsToStart(*broker, threads)) << threads;
    EXPECT_TRUE(eventually([&] { return threadCount() == before; }));
  }
  broker->start();
  EXPECT_EQ(outcome(client, "s", "i"), "s/i/m/");
}

TEST(RpcThreadFailure, OfASlaveAnnouncesNothingAndTheNextStartWhatIsThereThen) {
  const Watchdog watchdog("a slave's start without a thread");
  RawMaster raw;
  const auto slave = makeSlave(raw.endpoint, 1);
  const auto gone = makeEcho("gone", "i");
  slave->registerService(makeEcho("a", "i"));
  // While the start fails another thread may register: the master must not hear of it later, when
  // it has been taken back.
  atFailure() = [&] { slave->registerService(gone); };
  EXPECT_TRUE(failsToStart(*slave, 1));
  atFailure() = nullptr;
  slave->unregisterService(gone);
  slave->start();
  slave->registerService(makeEcho("~", "marker"));
  EXPECT_TRUE(raw.readTo(true, "~", "marker"));
  EXPECT_EQ(raw.offered, (std::set<std::string>{"a/i", "~/marker"}));
}

}  // namespace
}  // namespace tessel::test
