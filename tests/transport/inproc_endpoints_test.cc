#include "transport/inproc_endpoints.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <vector>

#include "support/endpoints.h"

namespace tessel::test {
namespace {

InprocEndpoints& endpoints() { return InprocEndpoints::instance(); }

void succeed() {}

TEST(InprocEndpoints, KnowsTheNamesThatAreInProcess) {
  EXPECT_TRUE(InprocEndpoints::isInproc("inproc://a"));
  EXPECT_TRUE(InprocEndpoints::isInproc("inproc://"));
  for (const char* other : {"", "inproc", "inproc:/", "inproc:/a", "tcp://inproc://", "ipc:///a"}) {
    EXPECT_FALSE(InprocEndpoints::isInproc(other)) << other;
  }
}

TEST(InprocEndpoints, TellsThoseWhoConnectedBeforeAnUnbind) {
  const std::string name = uniqueInproc();
  const auto first = endpoints().connect(name, succeed);
  const auto second = endpoints().connect(name, succeed);
  const auto other = endpoints().connect(uniqueInproc(), succeed);
  EXPECT_FALSE(first->load());
  bool unbound = false;
  endpoints().unbind(name, [&] {
    unbound = true;
    EXPECT_FALSE(first->load());  // told after it has happened, not before
  });
  EXPECT_TRUE(unbound);
  EXPECT_TRUE(first->load());
  EXPECT_TRUE(second->load());
  EXPECT_FALSE(other->load());
}

TEST(InprocEndpoints, ThoseWhoConnectAfterAnUnbindHaveNotBeenTold) {
  const std::string name = uniqueInproc();
  const auto before = endpoints().connect(name, succeed);
  endpoints().unbind(name, succeed);
  const auto after = endpoints().connect(name, succeed);
  EXPECT_TRUE(before->load());
  EXPECT_FALSE(after->load());
  endpoints().unbind(name, succeed);
  EXPECT_TRUE(after->load());
}

TEST(InprocEndpoints, AnOldFlagThatGoesTakesNoNewerOneAlong) {
  const std::string name = uniqueInproc();
  auto before = endpoints().connect(name, succeed);
  endpoints().unbind(name, succeed);
  const auto after = endpoints().connect(name, succeed);
  before.reset();
  endpoints().unbind(name, succeed);
  EXPECT_TRUE(after->load());
}

TEST(InprocEndpoints, ANameCanBeConnectedToAgainAfterItsLastConnectionWent) {
  const std::string name = uniqueInproc();
  endpoints().connect(name, succeed).reset();
  endpoints().unbind(name, succeed);  // with nobody to tell
  const auto again = endpoints().connect(name, succeed);
  EXPECT_FALSE(again->load());
  endpoints().unbind(name, succeed);
  EXPECT_TRUE(again->load());
}

TEST(InprocEndpoints, WhatAConnectThrowsPasses) {
  const std::string name = uniqueInproc();
  EXPECT_THROW(endpoints().connect(name, [] { throw std::runtime_error("refused"); }),
               std::runtime_error);
  const auto flag = endpoints().connect(name, succeed);  // and the lock is free again
  EXPECT_FALSE(flag->load());
}

TEST(InprocEndpoints, KnowsWhatIsBoundRightNow) {
  const std::string name = uniqueInproc();
  EXPECT_FALSE(endpoints().isBound(name));
  EXPECT_TRUE(endpoints().bind(name, [] { return true; }));
  EXPECT_TRUE(endpoints().isBound(name));
  EXPECT_FALSE(endpoints().isBound(uniqueInproc()));
  endpoints().unbind(name, succeed);
  EXPECT_FALSE(endpoints().isBound(name));
}

TEST(InprocEndpoints, ABindThatFailsDoesNotCount) {
  const std::string name = uniqueInproc();
  EXPECT_FALSE(endpoints().bind(name, [] { return false; }));
  EXPECT_FALSE(endpoints().isBound(name));
}

TEST(InprocEndpoints, AConnectionIsEitherToldOrMadeAfterTheUnbind) {
  // The model: a connection made while `bound` holds is lost with the unbind, unless it is told.
  const std::string name = uniqueInproc();
  for (int round = 0; round < 200; ++round) {
    bool bound = true;  // guarded by the lock that both callbacks run under
    std::vector<InprocEndpoints::ClosedFlag> flags(2);
    std::vector<char> madeBefore(2);
    std::vector<std::thread> connectors;
    for (std::size_t i = 0; i < flags.size(); ++i) {
      connectors.emplace_back(
          [&, i] { flags[i] = endpoints().connect(name, [&, i] { madeBefore[i] = bound; }); });
    }
    endpoints().unbind(name, [&] { bound = false; });
    for (std::thread& connector : connectors) connector.join();
    for (std::size_t i = 0; i < flags.size(); ++i) {
      EXPECT_EQ(flags[i]->load(), madeBefore[i] != 0) << round;
    }
  }
}

}  // namespace
}  // namespace tessel::test
