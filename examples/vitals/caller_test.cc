#include "caller.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "clock.h"
#include "process_service.h"

namespace vitals {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

const std::string kEndpoint = "inproc://caller_test";

// A service that is right but for what the test spoils.
class SpoiledService : public ProcessService {
 public:
  using Spoil = std::function<std::string(const std::string& method, const std::string& answer)>;
  explicit SpoiledService(Spoil spoil) : spoil_(std::move(spoil)) { look(now()); }

  void callMethod(const std::string& method, const void* data, std::size_t size,
                  std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) override {
    ProcessService::callMethod(method, data, size, out, outSize);
    const std::string bytes = spoil_(method, std::string(out.get(), out.get() + outSize));
    out.reset(new std::uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), out.get());
    outSize = bytes.size();
  }

 private:
  const Spoil spoil_;
};

// The hub and the sensor in one.
class CallerTest : public testing::Test {
 protected:
  CallerTest()
      : broker_(true, {kEndpoint}, std::make_shared<tessel::ThreadedRpcDispatcher>()),
        caller_(kEndpoint, [this] { return sensorEnded_; }) {}
  ~CallerTest() override {
    caller_.stop();
    broker_.stop();
  }

  CallReport call(const std::shared_ptr<tessel::Service>& service) {
    if (service != nullptr) broker_.registerService(service);
    broker_.start();
    caller_.start();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!caller_.settled() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(caller_.settled());
    return caller_.report();
  }
  CallReport callSpoiled(SpoiledService::Spoil spoil) {
    return call(std::make_shared<SpoiledService>(std::move(spoil)));
  }

  bool sensorEnded_ = false;

 private:
  tessel::RpcBroker broker_;
  Caller caller_;
};

TEST_F(CallerTest, GetsRightAnswersAndRightErrors) {
  const CallReport report =
      callSpoiled([](const std::string&, const std::string& answer) { return answer; });
  EXPECT_EQ(report.fault, "");
  EXPECT_GE(report.right, Caller::kTimedCalls + 3);
  EXPECT_EQ(report.timed, Caller::kTimedCalls);
  EXPECT_GT(report.p50, 0);
  EXPECT_GE(report.p99, report.p50);
  EXPECT_THAT(report.errors, SizeIs(4));
  EXPECT_THAT(report.busiest, SizeIs(testing::Le(Caller::kTopCount)));
  EXPECT_GT(report.largest.at(0).memory, 0);
}

TEST_F(CallerTest, FindsFaultWithTheWrongProcess) {
  const CallReport report = callSpoiled([](const std::string& method, const std::string& answer) {
    if (method != kProcessMethod) return answer;
    Processes processes = decodeProcesses(answer).value();
    ++processes[0].started;
    return encode(processes);
  });
  EXPECT_EQ(report.fault, "wrong answer: not the process that was asked for");
  EXPECT_EQ(report.timed, 0U);
}

TEST_F(CallerTest, FindsFaultWithAnAnswerWithoutOrder) {
  const CallReport report = callSpoiled([](const std::string& method, const std::string& answer) {
    if (method != kTopMethod) return answer;
    Processes processes = decodeProcesses(answer).value();
    processes.insert(processes.begin(), Process{1 << 30, 0, 0, -1, -1, "idle"});
    if (processes.size() > Caller::kTopCount) processes.pop_back();
    return encode(processes);
  });
  EXPECT_EQ(report.fault, "wrong answer: processes without order");
}

TEST_F(CallerTest, FindsFaultWithWhatMakesNoSense) {
  const CallReport report =
      callSpoiled([](const std::string&, const std::string&) { return "nonsense"; });
  EXPECT_EQ(report.fault, "the answer makes no sense: nonsense");
}

TEST_F(CallerTest, FindsFaultWithAnErrorOfTheWrongKind) {
  class Forgiving : public SpoiledService {
   public:
    Forgiving() : SpoiledService([](const std::string&, const std::string& a) { return a; }) {}
    void callMethod(const std::string& method, const void* data, std::size_t size,
                    std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) override try {
      SpoiledService::callMethod(method, data, size, out, outSize);
    } catch (const tessel::rpc_custom_error&) {
      throw std::runtime_error("never heard of it");
    }
  };
  EXPECT_EQ(call(std::make_shared<Forgiving>()).fault,
            "caught rpc_service_error: never heard of it instead of "
            "rpc_custom_error: RPC custom error: no process 4194305");
}

TEST_F(CallerTest, FindsFaultWhenNobodyOffersTheService) {
  EXPECT_EQ(call(nullptr).fault, "service not found: processes - this machine");
}

TEST_F(CallerTest, FindsNoFaultWithASensorThatEnds) {
  sensorEnded_ = true;
  const CallReport report = call(nullptr);
  EXPECT_EQ(report.fault, "");
  EXPECT_EQ(report.right, 0U);
}

TEST(CatchFrom, TellsEveryKindOfErrorApart) {
  const auto kindOf = [](const auto& error) { return catchFrom([&] { throw error; }).kind; };
  EXPECT_EQ(kindOf(tessel::rpc_custom_error("x")), "rpc_custom_error");
  EXPECT_EQ(kindOf(tessel::rpc_service_error("x")), "rpc_service_error");
  EXPECT_EQ(kindOf(tessel::rpc_timeout()), "rpc_timeout");
  EXPECT_EQ(kindOf(tessel::rpc_broker_error("x")), "rpc_broker_error");
  EXPECT_EQ(kindOf(std::runtime_error("x")), "another error");
  EXPECT_FALSE(catchFrom([] { throw std::runtime_error("x"); }).alsoAsRpcError);
  EXPECT_EQ(catchFrom([] {}).kind, "nothing");
}

}  // namespace
}  // namespace vitals
