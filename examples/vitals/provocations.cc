#include "provocations.h"

#include <tessel/tessel.h>
#include <unistd.h>

#include <chrono>
#include <exception>

#include "process.h"
#include "process_client.h"

namespace vitals {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kPatience{3000};
constexpr milliseconds kTooShort{20};
constexpr milliseconds kUsageTime{250};
constexpr int kNobodysId = 4194305;  // Linux gives none above 4194304

std::string payloadOf(const tessel::rpc_custom_error& error) {
  const auto unknown = decodeUnknownProcess(error.data(), error.size());
  return unknown ? "no process " + std::to_string(unknown->id) : "bytes that make no sense";
}

}  // namespace

bool operator==(const CaughtError& left, const CaughtError& right) {
  return left.kind == right.kind && left.text == right.text &&
         left.alsoAsRpcError == right.alsoAsRpcError;
}

CaughtError catchFrom(const std::function<void()>& call) {
  bool asBase = false;
  try {
    try {
      call();
    } catch (const tessel::rpc_error&) {  // enough for those who only ask whether a call failed
      asBase = true;
      throw;
    }
    // The derived ones first: a custom error is a service error, a time-out a broker error.
  } catch (const tessel::rpc_custom_error& error) {
    return {"rpc_custom_error", std::string(error.what()) + ": " + payloadOf(error), asBase};
  } catch (const tessel::rpc_service_error& error) {
    return {"rpc_service_error", error.what(), asBase};
  } catch (const tessel::rpc_timeout& error) {
    return {"rpc_timeout", error.what(), asBase};
  } catch (const tessel::rpc_broker_error& error) {
    return {"rpc_broker_error", error.what(), asBase};
  } catch (const std::exception& error) {
    return {"another error", error.what(), asBase};
  }
  return {"nothing", "", false};
}

std::vector<Provocation> provocations(const std::string& endpoint) {
  const auto elsewhere = [=] { ProcessClient(endpoint, kPatience, "the moon").process(getpid()); };
  const auto impatient = [=] { ProcessClient(endpoint, kTooShort).usage(getpid(), kUsageTime); };
  const auto mistaken = [=] { ProcessClient(endpoint, kPatience).call("reboot", ""); };
  const auto unlucky = [=] { ProcessClient(endpoint, kPatience).process(kNobodysId); };
  return {{elsewhere, {"rpc_broker_error", "service not found: processes - the moon"}},
          {impatient, {"rpc_timeout", "RPC timeout"}},
          {mistaken, {"rpc_service_error", "no such method: reboot"}},
          {unlucky, {"rpc_custom_error", "RPC custom error: no process 4194305"}}};
}

}  // namespace vitals
