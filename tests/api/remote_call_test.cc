// Public headers and the library as it ships, nothing of its inside.
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "api/endpoint_kinds.h"
#include "support/deadline.h"
#include "tessel/tessel.h"

namespace tessel::test {
namespace {

/// Answers what it was given, or fails in the way that the method names.
class Echo : public Service {
 public:
  explicit Echo(const std::string& instance) : Service("echo", instance) {}

  void callMethod(const std::string& method, const void* data, std::size_t size,
                  std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) override {
    if (method == "custom") throw rpc_custom_error(data, size);
    if (method == "standard") throw std::out_of_range("too far");
    if (method == "number") throw 42;
    out = std::make_unique<std::uint8_t[]>(size);
    std::memcpy(out.get(), data, size);
    outSize = size;
  }
};

std::string call(RpcClient& client, const std::string& instance, const std::string& method,
                 const std::string& argument) {
  std::unique_ptr<std::uint8_t[]> out;
  std::size_t size = 0;
  client.CallMethod("echo", instance, method, argument.data(), argument.size(), out, size);
  return std::string(reinterpret_cast<const char*>(out.get()), size);
}

/// What a call throws, told by the types that catch it, the widest last.
template <typename Base>
std::string caughtAs(RpcClient& client, const std::string& instance, const std::string& method) {
  try {
    call(client, instance, method, "bytes");
  } catch (const Base& error) {
    return error.what();
  }
  return "nothing thrown";
}

std::shared_ptr<RpcBroker> startedBroker(bool master, const std::string& endpoint,
                                         const std::string& instance) {
  auto broker = std::make_shared<RpcBroker>(master, std::vector<std::string>{endpoint},
                                            std::make_shared<ThreadedRpcDispatcher>());
  broker->registerService(std::make_shared<Echo>(instance));
  broker->start();
  return broker;
}

class RemoteCall : public ::testing::TestWithParam<EndpointKind> {
 protected:
  const std::string endpoint_ = newEndpoint(GetParam());
  const std::shared_ptr<RpcBroker> master_ = startedBroker(true, endpoint_, "master");
  RpcClient client_{endpoint_, kPatience};
};

INSTANTIATE_TEST_SUITE_P(Over, RemoteCall, everyKind(), kindName);

TEST_P(RemoteCall, BringsTheBytesThereAndTheResultBack) {
  EXPECT_EQ(call(client_, "master", "repeat", "hello"), "hello");
  EXPECT_EQ(call(client_, "master", "repeat", ""), "");
  const std::string large(1 << 20, 'x');
  EXPECT_EQ(call(client_, "master", "repeat", large), large);
}

TEST_P(RemoteCall, ReachesTheServiceOfASlave) {
  const auto slave = startedBroker(false, endpoint_, "slave");
  ASSERT_TRUE(eventually(
      [&] { return caughtAs<rpc_broker_error>(client_, "slave", "repeat") == "nothing thrown"; }));
  EXPECT_EQ(call(client_, "slave", "repeat", "hello"), "hello");
}

TEST_P(RemoteCall, FailsWithTheErrorOfTheService) {
  EXPECT_EQ(caughtAs<rpc_service_error>(client_, "master", "standard"), "too far");
  EXPECT_EQ(caughtAs<rpc_error>(client_, "master", "number"), "unknown exception");
  EXPECT_EQ(caughtAs<rpc_service_error>(client_, "master", "custom"), "RPC custom error");
  try {
    call(client_, "master", "custom", "bytes");
    FAIL() << "nothing thrown";
  } catch (const rpc_custom_error& error) {
    EXPECT_EQ(std::string(static_cast<const char*>(error.data()), error.size()), "bytes");
  }
}

TEST_P(RemoteCall, FailsAtTheBrokerWhenNobodyHasTheService) {
  EXPECT_EQ(caughtAs<rpc_broker_error>(client_, "nobody", "repeat"),
            "service not found: echo - nobody");
  EXPECT_EQ(caughtAs<std::runtime_error>(client_, "nobody", "repeat"),
            "service not found: echo - nobody");
}

TEST_P(RemoteCall, TimesOutWhileTheBrokerDoesNotRun) {
  master_->stop();
  client_.setReceiveTimeout(std::chrono::milliseconds(50));
  EXPECT_EQ(caughtAs<rpc_timeout>(client_, "master", "repeat"), "RPC timeout");
  EXPECT_EQ(caughtAs<rpc_broker_error>(client_, "master", "repeat"), "RPC timeout");
  EXPECT_EQ(caughtAs<rpc_error>(client_, "master", "repeat"), "RPC timeout");
  EXPECT_EQ(caughtAs<std::exception>(client_, "master", "repeat"), "RPC timeout");
}

TEST(LocalCall, RunsOnTheCallingThreadAndThrowsTheSameErrors) {
  const auto broker = startedBroker(true, uniqueInproc(), "local");
  RpcClient client(broker, kPatience);
  EXPECT_EQ(call(client, "local", "repeat", "hello"), "hello");
  EXPECT_EQ(caughtAs<rpc_custom_error>(client, "local", "custom"), "RPC custom error");
  EXPECT_EQ(caughtAs<rpc_error>(client, "local", "standard"), "too far");
}

/// A program throws the library's errors too: the types are one and the same on both sides.
template <typename Base, typename Error>
bool isCaughtAs(Error error) {
  try {
    throw error;
  } catch (const Base&) {
    return true;
  } catch (...) {
    return false;
  }
}

TEST(RpcErrors, ThrownInTheProgramAreCaughtByTheirBases) {
  EXPECT_TRUE((isCaughtAs<rpc_broker_error>(rpc_timeout())));
  EXPECT_TRUE((isCaughtAs<rpc_service_error>(rpc_custom_error(std::string("x")))));
  EXPECT_TRUE((isCaughtAs<rpc_error>(rpc_timeout())));
  EXPECT_TRUE((isCaughtAs<rpc_error>(rpc_broker_error("x"))));
  EXPECT_TRUE((isCaughtAs<rpc_error>(rpc_service_error("x"))));
  EXPECT_TRUE((isCaughtAs<rpc_error>(rpc_custom_error(std::string("x")))));
  EXPECT_TRUE((isCaughtAs<std::runtime_error>(rpc_error("x"))));
  EXPECT_FALSE((isCaughtAs<rpc_service_error>(rpc_timeout())));
  EXPECT_FALSE((isCaughtAs<rpc_timeout>(rpc_broker_error("x"))));
}

}  // namespace
}  // namespace tessel::test
