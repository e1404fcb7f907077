#include "plugin.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "tessel/tessel.h"

namespace {

class Echo : public tessel::Service {
 public:
  Echo() : Service("echo", "plugin") {}
  void callMethod(const std::string&, const void* data, std::size_t size,
                  std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) override {
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    out.reset(new std::uint8_t[size]);
    std::copy(bytes, bytes + size, out.get());
    outSize = size;
  }
};

void throwError(const char* name) {
  const std::string wanted = name;
  if (wanted == "rpc_error") throw tessel::rpc_error("any");
  if (wanted == "rpc_broker_error") throw tessel::rpc_broker_error("broker");
  if (wanted == "rpc_timeout") throw tessel::rpc_timeout();
  if (wanted == "rpc_service_error") throw tessel::rpc_service_error("service");
  if (wanted == "rpc_custom_error") throw tessel::rpc_custom_error(std::string("own bytes"));
}

void* openBroker(const char* pull, const char* updates) {
  auto* broker = new tessel::MessageBroker({pull}, {updates}, {});
  broker->start();
  return broker;
}

bool useLibrary(void* opened, const char* calls) {
  tessel::Publisher(*static_cast<tessel::MessageBroker*>(opened), "topic", "used").publish("v", 1);
  tessel::RpcBroker broker(true, {calls}, std::make_shared<tessel::ThreadedRpcDispatcher>(2));
  broker.registerService(std::make_shared<Echo>());
  broker.start();
  tessel::RpcClient client(calls, std::chrono::seconds(20));
  std::unique_ptr<std::uint8_t[]> out;
  std::size_t size = 0;
  client.CallMethod("echo", "plugin", "any", "value", 5, out, size);
  return std::string(out.get(), out.get() + size) == "value";
}

void closeBroker(void* broker) { delete static_cast<tessel::MessageBroker*>(broker); }

const Plugin kPlugin = {throwError, openBroker, useLibrary, closeBroker};

}  // namespace

const Plugin* tesselTestPlugin() { return &kPlugin; }
