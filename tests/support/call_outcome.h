#ifndef TESSEL_TESTS_SUPPORT_CALL_OUTCOME_H
#define TESSEL_TESTS_SUPPORT_CALL_OUTCOME_H

#include <tessel/rpc_client.h>
#include <tessel/rpc_error.h>

#include <exception>
#include <functional>
#include <string>
#include <typeinfo>

#include "support/rpc_peers.h"

namespace tessel::test {

/// How a call ended, by the exact type of what it threw: "result", "timeout", "broker", "service",
/// "custom", "runtime" or "other"; and with which text, or a custom error's bytes.
struct Ending {
  std::string kind;
  std::string text;
};

inline Ending endingOf(const std::function<std::string()>& call) {
  try {
    return {"result", call()};
  } catch (const rpc_custom_error& error) {
    return {"custom", text(error.data(), error.size())};
  } catch (const std::exception& error) {
    const std::type_info& type = typeid(error);
    if (type == typeid(rpc_timeout)) return {"timeout", error.what()};
    if (type == typeid(rpc_broker_error)) return {"broker", error.what()};
    if (type == typeid(rpc_service_error)) return {"service", error.what()};
    if (type == typeid(std::runtime_error)) return {"runtime", error.what()};
    return {"other", std::string(type.name()) + " " + error.what()};
  } catch (...) {
    return {"other", "not an exception of the standard"};
  }
}

/// The same in one text: "result x", "timeout RPC timeout", "broker x".
inline std::string outcomeOf(const std::function<std::string()>& call) {
  const Ending ending = endingOf(call);
  return ending.kind + " " + ending.text;
}

/// The same of client.CallMethod(service, instance, "method", payload).
inline std::string outcomeOf(RpcClient& client, const std::string& service,
                             const std::string& instance, const std::string& payload = "payload") {
  return outcomeOf([&] {
    Buffer out;
    std::size_t size = 0;
    client.CallMethod(service, instance, "method", payload.data(), payload.size(), out, size);
    return text(out, size);
  });
}

}  // namespace tessel::test

#endif
