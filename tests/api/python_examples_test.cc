// The examples in Python against the library: two implementations of what travels.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tessel/tessel.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/endpoints.h"
#include "support/recorders.h"

namespace tessel::test {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::StartsWith;
using Lines = std::vector<std::string>;

const std::string kPatienceInSeconds = std::to_string(kPatience.count());

/// A script that runs; what it prints as errors is among its lines.
class Script : public ChildProcess {
 public:
  Script(const std::string& name, const std::string& arguments)
      : ChildProcess("/bin/sh", {"-c", "exec '" TESSEL_PYTHON "' -B '" TESSEL_PYTHON_EXAMPLES "'/" +
                                           name + " " + arguments + " 2>&1"}) {}
};

/// What a script says that ends by itself, and how it ends.
std::string outcomeOf(const std::string& name, const std::string& arguments) {
  Script script(name, arguments);
  const std::string line = script.line();
  const int status = script.wait();
  return line + " (" + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) + ")";
}

TEST(PythonExamples, ExplainThemselves) {
  for (const std::string name : {"publish.py", "subscribe.py", "call.py", "serve.py"}) {
    EXPECT_THAT(outcomeOf(name, "--help"), AllOf(StartsWith("usage: " + name), EndsWith(" (0)")));
  }
}

class PythonValues : public testing::Test {
 protected:
  PythonValues() {
    broker_.attach(observer_);
    broker_.start();
  }
  /// Runs publish.py; what the broker's observer saw of it. Waits for that: what comes from one
  /// process and the next is in no order.
  std::string publish(const std::string& arguments) {
    const std::size_t before = published().size();
    EXPECT_EQ(outcomeOf("publish.py",
                        "--timeout " + kPatienceInSeconds + " --at " + pull_ + " " + arguments),
              " (0)");
    return eventually([&] { return published().size() > before; }) ? published().back() : "nothing";
  }
  Lines published() {
    Lines lines = observer_->journal.lines();
    lines.erase(std::remove_if(lines.begin(), lines.end(),
                               [](const std::string& line) {
                                 return line.find("publish") == std::string::npos;
                               }),
                lines.end());
    return lines;
  }
  const std::string pull_ = freeTcp();
  const std::string updates_ = freeTcp();
  const std::string cache_ = freeTcp();
  MessageBroker broker_{{pull_}, {updates_}, {cache_}};
  const std::shared_ptr<RecordingBrokerObserver> observer_ =
      std::make_shared<RecordingBrokerObserver>();
};

TEST_F(PythonValues, SubscribePrintsTheLastValueAndWhatFollows) {
  const Publisher kitchen(broker_, "temperature", "kitchen");
  kitchen.publish("20", 2);
  EXPECT_TRUE(observer_->journal.waitFor(1));
  Script script("subscribe.py", "--count 3 --at " + cache_ + " temperature:kitchen");
  EXPECT_EQ(script.line(), "temperature:kitchen = 20");
  kitchen.publish("\xff\n", 2);
  EXPECT_EQ(script.line(), "temperature:kitchen = \\xff");
  EXPECT_EQ(script.line(), "");
  kitchen.unpublish();
  EXPECT_EQ(script.line(), "temperature:kitchen withdrawn");
  EXPECT_EQ(script.wait(), 0);
}

TEST_F(PythonValues, SubscribeLeavesOutLongerKeysAndWhatIsReplayedToOthers) {
  const Publisher kitchen(broker_, "temperature", "");
  kitchen.publish("20", 2);
  EXPECT_TRUE(observer_->journal.waitFor(1));
  Script script("subscribe.py", "--count 2 --at " + cache_ + " temperature");
  EXPECT_EQ(script.line(), "temperature:default = 20");
  Script other("subscribe.py", "--count 1 --at " + cache_ + " temperature");
  EXPECT_EQ(other.line(), "temperature:default = 20");  // replayed to the first script, too
  Publisher(broker_, "temperature", "defaults").publish("1", 1);
  kitchen.publish("21", 2);
  EXPECT_EQ(script.line(), "temperature:default = 21");
  EXPECT_EQ(script.wait(), 0);
}

TEST_F(PythonValues, SubscribeFailsWhenNothingComes) {
  EXPECT_EQ(outcomeOf("subscribe.py", "--timeout 0.1 --at " + cache_ + " temperature"),
            "nothing came (1)");
}

TEST_F(PythonValues, WhatPublishSendsReachesASubscriber) {
  MessageDispatcher dispatcher(updates_, cache_);
  dispatcher.start();
  const auto subscriber =
      std::make_shared<RecordingSubscriber>(SubscriptionMode::AllValues, "temperature", "kitchen");
  dispatcher.registerSubscriber(subscriber);
  publish("temperature:kitchen 20");
  EXPECT_EQ(subscriber->journal.lines(1), Lines{"value 20"});
  publish("temperature:kitchen ''");
  publish("temperature:kitchen ''");  // suppressed
  publish("temperature:kitchen 'good morning'");
  publish("temperature:kitchen --withdraw");
  EXPECT_EQ(subscriber->journal.lines(4),
            (Lines{"value 20", "value ", "value good morning", "deleted"}));
}

TEST_F(PythonValues, PublishSaysWhatTheBrokerIsToDo) {
  EXPECT_EQ(publish("a 1"), "publish a default 1 1 0");
  EXPECT_EQ(publish("a 1"), "publish a default 1 0 1");
  EXPECT_EQ(publish("a 1 --repeat"), "publish a default 1 0 0");
  EXPECT_EQ(publish("a:b 1 --event"), "publish a b 0 0 0");
  EXPECT_EQ(publish("a --withdraw --event"), "unpublish a default 0 0 0");
  EXPECT_EQ(publish("a --withdraw"), "unpublish a default 1 1 0");
}

TEST(PythonPublish, FailsWithoutABroker) {
  const std::string nowhere = freeTcp();
  EXPECT_EQ(outcomeOf("publish.py", "--timeout 0.1 --at " + nowhere + " topic value"),
            "no broker at " + nowhere + " (1)");
}

TEST(PythonPublish, RefusesAColonInATag) {
  EXPECT_THAT(outcomeOf("publish.py", "a:b:c value"),
              AllOf(StartsWith("usage: publish.py"), EndsWith(" (2)")));
}

/// Which services a broker has, its own and those of slaves.
class Services : public RpcBrokerObserver {
 public:
  bool become(const std::set<std::string>& names) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return names_ == names; });
  }
  void onServiceRegistered(const std::string& service, const std::string& instance, bool,
                           const std::vector<std::uint8_t>&) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    names_.insert(service + " " + instance);
    changed_.notify_all();
  }
  void onServiceUnregistered(const std::string& service, const std::string& instance, bool,
                             const std::vector<std::uint8_t>&) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    names_.erase(service + " " + instance);
    changed_.notify_all();
  }
  void onRequest(const std::string&, const std::string&, const std::string&, const void*,
                 std::size_t) override {}
  void onReply(const std::string&, const std::string&, const std::string&, int, const void*,
               std::size_t) override {}

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::set<std::string> names_;
};

/// Answers what it was given, or fails in the way that the method names.
class Echo : public Service {
 public:
  Echo() : Service("echo", "hall") {}
  void callMethod(const std::string& method, const void* data, std::size_t size,
                  std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) override {
    if (method == "custom") throw rpc_custom_error(data, size);
    if (method == "fail") throw std::runtime_error("out of order");
    out = std::make_unique<std::uint8_t[]>(size);
    if (size != 0) std::memcpy(out.get(), data, size);
    outSize = size;
  }
};

class PythonCalls : public testing::Test {
 protected:
  PythonCalls() {
    master_.attach(services_);
    master_.start();
  }
  std::string fromPython(const std::string& call) {
    return outcomeOf("call.py", "--timeout " + kPatienceInSeconds + " --at " + at_ + " " + call);
  }
  std::string fromHere(const std::string& method, const std::string& payload) {
    RpcClient client(at_, kPatience);
    std::unique_ptr<std::uint8_t[]> out;
    std::size_t size = 0;
    try {
      client.CallMethod("greeter", "python", method, payload.data(), payload.size(), out, size);
    } catch (const rpc_custom_error& error) {
      return "custom " + std::string(static_cast<const char*>(error.data()), error.size());
    } catch (const rpc_service_error& error) {
      return std::string("service ") + error.what();
    } catch (const rpc_broker_error& error) {
      return std::string("broker ") + error.what();
    }
    return std::string(out.get(), out.get() + size);
  }
  const std::string at_ = freeTcp();
  const std::shared_ptr<Services> services_ = std::make_shared<Services>();
  RpcBroker master_{true, {at_}, std::make_shared<ThreadedRpcDispatcher>()};
};

TEST_F(PythonCalls, CallPrintsWhatAServiceAnswers) {
  master_.registerService(std::make_shared<Echo>());
  EXPECT_EQ(fromPython("echo hall repeat 'good morning'"), "good morning (0)");
  EXPECT_EQ(fromPython("echo hall repeat"), " (0)");
  EXPECT_EQ(fromPython("echo hall fail"), "service error: out of order (1)");
  EXPECT_EQ(fromPython("echo hall custom bytes"), "custom error: bytes (1)");
  EXPECT_EQ(fromPython("echo cellar repeat"), "broker error: service not found: echo - cellar (1)");
}

TEST(PythonCall, FailsWhenNoAnswerComes) {
  EXPECT_EQ(outcomeOf("call.py", "--timeout 0.1 --at " + freeTcp() + " a b c"), "timeout (1)");
}

TEST_F(PythonCalls, ServeIsASlaveOfTheMaster) {
  Script script("serve.py", "--count 4 --at " + at_);
  ASSERT_TRUE(services_->become({"greeter python"}));
  EXPECT_EQ(fromHere("greet", "world"), "Hello, world");
  EXPECT_EQ(fromHere("greet", ""), "custom nobody to greet");
  EXPECT_EQ(fromHere("insult", "world"), "service no such method: insult");
  EXPECT_EQ(fromPython("greeter python greet 'from afar'"), "Hello, from afar (0)");
  EXPECT_TRUE(services_->become({}));
  EXPECT_EQ(script.wait(), 0);
  EXPECT_EQ(fromHere("greet", "world"), "broker service not found: greeter - python");
}

TEST_F(PythonCalls, ServeWithdrawsItsServiceWhenItIsTerminated) {
  Script script("serve.py", "--instance other --at " + at_);
  ASSERT_TRUE(services_->become({"greeter other"}));
  script.signal(SIGTERM);
  EXPECT_TRUE(services_->become({}));
  EXPECT_EQ(script.wait(), 0);
}

}  // namespace
}  // namespace tessel::test
