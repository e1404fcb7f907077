#include "support/calls.h"

#include <tessel/rpc_dispatcher.h>
#include <tessel/rpc_error.h>
#include <tessel/service.h>

#include <cstring>

#include "support/try_until.h"

namespace tessel::bench {
namespace {

using raw::kInstance;
using raw::kMethod;
using raw::kService;

class Echo : public Service {
 public:
  Echo() : Service(kService, kInstance) {}
  void callMethod(const std::string&, const void* data, std::size_t size,
                  std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) override {
    out.reset(new std::uint8_t[size]);
    std::memcpy(out.get(), data, size);
    outSize = size;
  }
};

std::shared_ptr<RpcDispatcher> newWorkers() { return std::make_shared<ThreadedRpcDispatcher>(); }

bool getsThrough(RpcClient& client) {
  try {
    TesselCaller(client).call("", 0);
    return true;
  } catch (const rpc_broker_error&) {
    return false;
  }
}

}  // namespace

void TesselCaller::call(const void* data, std::size_t size) {
  client_.CallMethod(kService, kInstance, kMethod, data, size, answer_, size_);
}

TesselCalls::TesselCalls(const std::string& endpoint) : client_(endpoint, kPatience) {}

TesselCalls::TesselCalls(const std::shared_ptr<RpcBroker>& broker) : client_(broker, kPatience) {}

TesselMaster::TesselMaster(const std::string& endpoint)
    : TesselCalls(endpoint), master_(true, {endpoint}, newWorkers()) {
  master_.registerService(std::make_shared<Echo>());
  master_.start();
}

TesselSlave::TesselSlave(const std::string& endpoint)
    : TesselCalls(endpoint),
      master_(true, {endpoint}, newWorkers()),
      slave_(false, {endpoint}, newWorkers()) {
  slave_.registerService(std::make_shared<Echo>());
  slave_.start();
  master_.start();
  tryUntil([this] { return getsThrough(client_); }, "no call gets through to the slave");
}

TesselLocal::TesselLocal(Transport transport)
    : TesselLocal(std::make_shared<RpcBroker>(
          true, std::vector<std::string>{newEndpoint(transport)}, newWorkers())) {}

TesselLocal::TesselLocal(const std::shared_ptr<RpcBroker>& broker)
    : TesselCalls(broker), broker_(broker) {
  broker_->registerService(std::make_shared<Echo>());
  broker_->start();
}

RawMaster::RawMaster(Transport transport) : RawCalls(transport), master_(context_, endpoint_) {
  context_.run([this] { master_.run(); });
}

RawSlave::RawSlave(Transport transport)
    : RawCalls(transport), master_(context_, endpoint_), slave_(context_, endpoint_) {
  master_.awaitSlave();
  context_.run([this] { master_.runForSlave(); });
  context_.run([this] { slave_.run(); });
}

RawRep::RawRep(Transport transport) : RawCalls(transport), server_(context_, endpoint_) {
  context_.run([this] { server_.run(); });
}

}  // namespace tessel::bench
