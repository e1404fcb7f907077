#include "transport/inproc_endpoints.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/endpoints.h"

namespace tessel::test {
namespace {

InprocEndpoints& endpoints() { return InprocEndpoints::instance(); }

using Connection = std::unique_ptr<InprocEndpoints::Connection>;
using Names = std::vector<std::string>;

void succeed() {}
void connectTo(const std::string& /*name*/) {}
bool bindTo(const std::string& /*name*/) { return true; }

TEST(InprocEndpoints, KnowsTheNamesThatAreInProcess) {
  EXPECT_TRUE(InprocEndpoints::isInproc("inproc://a"));
  for (const char* other :
       {"", "inproc", "inproc:/", "inproc:/a", "inproc://", "tcp://inproc://", "ipc:///a"}) {
    EXPECT_FALSE(InprocEndpoints::isInproc(other)) << other;
  }
}

TEST(InprocEndpoints, TellsThoseWhoConnectedBeforeAnUnbind) {
  const std::string name = uniqueInproc();
  const Connection first = endpoints().connect(name, connectTo);
  const Connection second = endpoints().connect(name, connectTo);
  const Connection other = endpoints().connect(uniqueInproc(), connectTo);
  EXPECT_FALSE(first->closed());
  bool unbound = false;
  endpoints().unbind(name, [&] {
    unbound = true;
    EXPECT_FALSE(first->closed());  // told after it has happened, not before
  });
  EXPECT_TRUE(unbound);
  EXPECT_TRUE(first->closed());
  EXPECT_TRUE(second->closed());
  EXPECT_FALSE(other->closed());
}

TEST(InprocEndpoints, WakesThoseWhoWantToBeWokenOnceEach) {
  const std::string name = uniqueInproc();
  int woken = 0;
  Connection connection;
  const auto wake = [&] {
    ++woken;
    EXPECT_TRUE(connection->closed());
  };
  connection = endpoints().connect(name, connectTo, wake);
  const Connection silent = endpoints().connect(name, connectTo);
  const Connection other =
      endpoints().connect(uniqueInproc(), connectTo, [] { ADD_FAILURE() << "of another name"; });
  endpoints().connect(name, connectTo, [] { ADD_FAILURE() << "gone"; });
  endpoints().unbind(name, succeed);
  EXPECT_EQ(woken, 1);
  endpoints().unbind(name, succeed);
  EXPECT_EQ(woken, 1);
}

TEST(InprocEndpoints, NobodyIsWokenOnceOffTheBooks) {
  const std::string name = uniqueInproc();
  const Connection connection =
      endpoints().connect(name, connectTo, [] { ADD_FAILURE() << "taken back"; });
  endpoints().takeBack(*connection);
  endpoints().unbind(name, succeed);
  EXPECT_FALSE(connection->closed());
}

TEST(InprocEndpoints, ThoseWhoConnectAfterAnUnbindHaveNotBeenTold) {
  const std::string name = uniqueInproc();
  const Connection before = endpoints().connect(name, connectTo);
  endpoints().unbind(name, succeed);
  const Connection after = endpoints().connect(name, connectTo);
  EXPECT_TRUE(before->closed());
  EXPECT_FALSE(after->closed());
  endpoints().unbind(name, succeed);
  EXPECT_TRUE(after->closed());
}

TEST(InprocEndpoints, AnOldConnectionThatGoesTakesNoNewerOneAlong) {
  const std::string name = uniqueInproc();
  Connection before = endpoints().connect(name, connectTo);
  endpoints().unbind(name, succeed);
  const Connection after = endpoints().connect(name, connectTo);
  before.reset();
  endpoints().unbind(name, succeed);
  EXPECT_TRUE(after->closed());
}

TEST(InprocEndpoints, ANameCanBeConnectedToAgainAfterItsLastConnectionWent) {
  const std::string name = uniqueInproc();
  endpoints().connect(name, connectTo).reset();
  endpoints().unbind(name, succeed);  // with nobody to tell
  const Connection again = endpoints().connect(name, connectTo);
  EXPECT_FALSE(again->closed());
  endpoints().unbind(name, succeed);
  EXPECT_TRUE(again->closed());
}

TEST(InprocEndpoints, WhatAConnectThrowsPasses) {
  const std::string name = uniqueInproc();
  EXPECT_THROW(
      endpoints().connect(name, [](const std::string&) { throw std::runtime_error("refused"); }),
      std::runtime_error);
  // Nobody waits, and the lock is free again.
  Names bound;
  EXPECT_TRUE(endpoints().bind(name, [&](const std::string& each) {
    bound.push_back(each);
    return true;
  }));
  EXPECT_EQ(bound, Names{name});
  endpoints().unbind(name, succeed);
}

// A bind that keeps the names it was given.
struct Binding {
  Names names;
  std::function<bool(const std::string&)> function() {
    return [this](const std::string& name) {
      names.push_back(name);
      return true;
    };
  }
};
// A connect that keeps the name that it was given.
std::function<void(const std::string&)> into(std::string& name) {
  return [&name](const std::string& given) { name = given; };
}

TEST(InprocEndpoints, ThoseWhoComeBeforeABindWaitUnderNamesOfTheirOwnWhichItBinds) {
  const std::string name = uniqueInproc();
  std::string first;
  std::string second;
  std::string later;
  const Connection one = endpoints().connect(name, into(first));
  const Connection two = endpoints().connect(name, into(second));
  EXPECT_TRUE(InprocEndpoints::isInproc(first));
  EXPECT_EQ((std::set<std::string>{name, first, second}.size()), 3U);
  Binding binding;
  EXPECT_TRUE(endpoints().bind(name, binding.function()));
  EXPECT_EQ(binding.names, (Names{name, first, second}));
  const Connection three = endpoints().connect(name, into(later));
  EXPECT_EQ(later, name);
  // None of them waits any more.
  for (const Connection& each : {std::cref(one), std::cref(two), std::cref(three)}) {
    EXPECT_EQ(endpoints().takeBack(*each), "");
  }
  endpoints().unbind(name, succeed);
}

TEST(InprocEndpoints, NobodyElseBindsTheNameOfAConnectionThatWasTakenBack) {
  const std::string name = uniqueInproc();
  std::string left;
  std::string kept;
  const Connection one = endpoints().connect(name, into(left));
  const Connection two = endpoints().connect(name, into(kept));
  Connection three = endpoints().connect(name, connectTo);
  EXPECT_EQ(endpoints().takeBack(*one), left);
  EXPECT_EQ(endpoints().takeBack(*one), "");
  three.reset();
  Binding binding;
  EXPECT_TRUE(endpoints().bind(name, binding.function()));
  EXPECT_EQ(binding.names, (Names{name, kept}));
  endpoints().unbind(name, succeed);
}

TEST(InprocEndpoints, ABindThatFailsLeavesThoseWhoWaitWhereTheyAre) {
  const std::string name = uniqueInproc();
  std::string waiting;
  const Connection connection = endpoints().connect(name, into(waiting));
  EXPECT_FALSE(endpoints().bind(name, [&](const std::string& each) {
    EXPECT_EQ(each, name);
    return false;
  }));
  EXPECT_FALSE(endpoints().isBound(name));
  Binding binding;
  EXPECT_TRUE(endpoints().bind(name, binding.function()));
  EXPECT_EQ(binding.names, (Names{name, waiting}));
  EXPECT_FALSE(endpoints().bind(name, [](const std::string&) { return false; }));
  EXPECT_TRUE(endpoints().isBound(name));  // by the first
  endpoints().unbind(name, succeed);
}

TEST(InprocEndpoints, KnowsWhatIsBoundRightNow) {
  const std::string name = uniqueInproc();
  EXPECT_FALSE(endpoints().isBound(name));
  const Connection connection = endpoints().connect(name, connectTo);
  EXPECT_FALSE(endpoints().isBound(name));
  EXPECT_TRUE(endpoints().bind(name, bindTo));
  EXPECT_TRUE(endpoints().isBound(name));
  EXPECT_FALSE(endpoints().isBound(uniqueInproc()));
  endpoints().unbind(name, succeed);
  EXPECT_FALSE(endpoints().isBound(name));
}

TEST(InprocEndpoints, ABindThatFailsDoesNotCount) {
  const std::string name = uniqueInproc();
  EXPECT_FALSE(endpoints().bind(name, [](const std::string&) { return false; }));
  EXPECT_FALSE(endpoints().isBound(name));
}

TEST(InprocEndpoints, AConnectionIsEitherToldOrMadeAfterTheUnbind) {
  // The model: a connection made while `bound` holds is lost with the unbind, unless it is told.
  const std::string name = uniqueInproc();
  for (int round = 0; round < 200; ++round) {
    bool bound = true;  // guarded by the lock that both callbacks run under
    std::vector<Connection> connections(2);
    std::vector<char> madeBefore(2);
    std::vector<std::thread> connectors;
    for (std::size_t i = 0; i < connections.size(); ++i) {
      connectors.emplace_back([&, i] {
        connections[i] =
            endpoints().connect(name, [&, i](const std::string&) { madeBefore[i] = bound; });
      });
    }
    endpoints().unbind(name, [&] { bound = false; });
    for (std::thread& connector : connectors) connector.join();
    for (std::size_t i = 0; i < connections.size(); ++i) {
      EXPECT_EQ(connections[i]->closed(), madeBefore[i] != 0) << round;
    }
  }
}

}  // namespace
}  // namespace tessel::test
