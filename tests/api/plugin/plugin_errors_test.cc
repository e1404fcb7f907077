// A program and a plugin that share the library agree on the types of its errors.
#include <gtest/gtest.h>

#include <cstddef>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <typeinfo>

#include "loaded_plugin.h"
#include "tessel/tessel.h"

namespace tessel {
namespace {

// Whether what the plugin throws under that name reaches a handler of type Caught, as an Error.
template <typename Error, typename Caught>
bool caughtAs(const LoadedPlugin& plugin, const char* name) {
  try {
    plugin->throwError(name);
  } catch (const Caught& error) {
    return typeid(error) == typeid(Error);
  } catch (...) {
  }
  return false;
}

template <typename Error>
void expectCaughtByItselfAndItsBases(const char* name) {
  const LoadedPlugin plugin;
  EXPECT_TRUE((caughtAs<Error, Error>(plugin, name)));
  EXPECT_TRUE((caughtAs<Error, rpc_error>(plugin, name)));
  EXPECT_TRUE((caughtAs<Error, std::runtime_error>(plugin, name)));
  EXPECT_TRUE((caughtAs<Error, std::exception>(plugin, name)));
}

TEST(PluginErrors, AnErrorIsCaughtByItsTypeAndItsBases) {
  expectCaughtByItselfAndItsBases<rpc_error>("rpc_error");
}

TEST(PluginErrors, ABrokerErrorIsCaughtByItsTypeAndItsBases) {
  expectCaughtByItselfAndItsBases<rpc_broker_error>("rpc_broker_error");
}

TEST(PluginErrors, ATimeoutIsCaughtByItsTypeAndItsBases) {
  expectCaughtByItselfAndItsBases<rpc_timeout>("rpc_timeout");
  EXPECT_TRUE((caughtAs<rpc_timeout, rpc_broker_error>(LoadedPlugin(), "rpc_timeout")));
}

TEST(PluginErrors, AServiceErrorIsCaughtByItsTypeAndItsBases) {
  expectCaughtByItselfAndItsBases<rpc_service_error>("rpc_service_error");
}

TEST(PluginErrors, ACustomErrorIsCaughtByItsTypeAndItsBases) {
  expectCaughtByItselfAndItsBases<rpc_custom_error>("rpc_custom_error");
  EXPECT_TRUE((caughtAs<rpc_custom_error, rpc_service_error>(LoadedPlugin(), "rpc_custom_error")));
}

TEST(PluginErrors, AnErrorIsNotCaughtByWhatItIsNot) {
  const LoadedPlugin plugin;
  EXPECT_FALSE((caughtAs<rpc_error, rpc_broker_error>(plugin, "rpc_error")));
  EXPECT_FALSE((caughtAs<rpc_broker_error, rpc_timeout>(plugin, "rpc_broker_error")));
  EXPECT_FALSE((caughtAs<rpc_service_error, rpc_broker_error>(plugin, "rpc_service_error")));
  EXPECT_FALSE((caughtAs<rpc_service_error, rpc_custom_error>(plugin, "rpc_service_error")));
}

TEST(PluginErrors, AnErrorOutlivesThePluginThatThrewIt) {
  std::exception_ptr kept;
  {
    const LoadedPlugin plugin;
    try {
      plugin->throwError("rpc_custom_error");
    } catch (...) {
      kept = std::current_exception();
    }
  }
  ASSERT_FALSE(LoadedPlugin::anywhere());
  ASSERT_TRUE(kept);
  try {
    std::rethrow_exception(kept);
  } catch (const rpc_custom_error& error) {
    EXPECT_EQ(std::string(static_cast<const char*>(error.data()), error.size()), "own bytes");
    EXPECT_STREQ(error.what(), "RPC custom error");
  }
  kept = nullptr;
}

}  // namespace
}  // namespace tessel
