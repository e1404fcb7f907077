#include <tessel/rpc_client.h>
#include <tessel/rpc_error.h>
#include <zmq.h>

#include <cstring>
#include <memory>

#include "target.h"

namespace tessel::fuzz {
namespace {

// How a call ends whose answer is `reply`: its status, or "timeout"; and with what.
Frames call(RpcClient& client, const std::vector<Frames>& reply) {
  wire().feed(ZMQ_REQ, reply);
  std::unique_ptr<std::uint8_t[]> out;
  std::size_t size = 0;
  try {
    client.CallMethod("service", "instance", "method", "payload", 7, out, size);
    return {"success", std::string(reinterpret_cast<const char*>(out.get()), size)};
  } catch (const rpc_custom_error& error) {
    return {"custom", std::string(static_cast<const char*>(error.data()), error.size())};
  } catch (const rpc_service_error& error) {
    return {"service", error.what()};
  } catch (const rpc_timeout& /*error*/) {
    return {"timeout", ""};
  } catch (const rpc_broker_error& error) {
    return {"broker", error.what()};
  }
}

// What it should be. Texts end at their first NUL byte.
Frames meaningOf(const Frames& frames) {
  if (frames.size() != 5 || frames[0] != "RS02" || frames[1] != "\x01") return {"timeout", ""};
  const std::string& payload = frames[4];
  switch (frames[3].empty() ? 0 : frames[3][0]) {
    case 0:
      return {"success", payload};
    case 1:
      return {"service", payload.c_str()};
    case 2:
      return {"broker", payload.c_str()};
    case 3:
      return {"custom", payload};
    default:
      return {"broker", "unknown response type"};
  }
}

TESSEL_FUZZ_TARGET(client_reply) {
  static RpcClient& client = *new RpcClient("tcp://nobody", std::chrono::milliseconds(1));
  for (const Frames& frames : messages) {
    require(call(client, {frames}) == meaningOf(frames), "a call ends as its reply says");
    const Frames good = {"RS02", "\x01", std::string(1, '\0'), std::string(1, '\0'), "good"};
    require(call(client, {good}) == Frames{"success", "good"}, "and so does the next");
  }
}

}  // namespace
}  // namespace tessel::fuzz
