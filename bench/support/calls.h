#ifndef TESSEL_BENCH_SUPPORT_CALLS_H
#define TESSEL_BENCH_SUPPORT_CALLS_H

#include <tessel/rpc_broker.h>
#include <tessel/rpc_client.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "support/raw.h"
#include "support/raw_calls.h"
#include "support/roads.h"

/// The roads of a call, by the library and by bare libzmq: client, broker and service in one
/// process, joined by the transport that is measured. Each has a Client, of which every thread that
/// calls has its own; the bytes of the answer are valid until its next call.
namespace tessel::bench {

class TesselCaller {
 public:
  explicit TesselCaller(RpcClient& client) : client_(client) {}
  void call(const void* data, std::size_t size);
  const void* data() const { return answer_.get(); }
  std::size_t size() const { return size_; }

 private:
  RpcClient& client_;
  std::unique_ptr<std::uint8_t[]> answer_;
  std::size_t size_ = 0;
};

/// What the roads of the library have in common.
class TesselCalls {
 public:
  static constexpr const char* kName = "tessel";
  struct Client : TesselCaller {
    explicit Client(TesselCalls& road) : TesselCaller(road.client_) {}
  };

 protected:
  explicit TesselCalls(const std::string& endpoint);
  explicit TesselCalls(const std::shared_ptr<RpcBroker>& broker);

  RpcClient client_;
};

/// The service is the master's own.
class TesselMaster : public TesselCalls {
 public:
  explicit TesselMaster(Transport transport) : TesselMaster(newEndpoint(transport)) {}

 private:
  explicit TesselMaster(const std::string& endpoint);

  RpcBroker master_;
};

/// The service is a slave's.
class TesselSlave : public TesselCalls {
 public:
  explicit TesselSlave(Transport transport) : TesselSlave(newEndpoint(transport)) {}

 private:
  explicit TesselSlave(const std::string& endpoint);

  RpcBroker master_;
  RpcBroker slave_;
};

/// The client is made on the broker that has the service, and needs no socket.
class TesselLocal : public TesselCalls {
 public:
  explicit TesselLocal(Transport transport);

 private:
  explicit TesselLocal(const std::shared_ptr<RpcBroker>& broker);

  const std::shared_ptr<RpcBroker> broker_;
};

/// What the twins have in common. Their threads end with the context.
class RawCalls {
 public:
  static constexpr const char* kName = "raw";
  struct Client : raw::Caller {
    explicit Client(RawCalls& road) : Caller(road.context_, road.endpoint_) {}
  };

 protected:
  explicit RawCalls(Transport transport) : endpoint_(newEndpoint(transport)) {}

  raw::Context context_;
  const std::string endpoint_;
};

/// REQ to ROUTER, with four workers behind it.
class RawMaster : public RawCalls {
 public:
  explicit RawMaster(Transport transport);
  ~RawMaster() { context_.end(); }

 private:
  raw::Master master_;
};

/// REQ to ROUTER to DEALER, with four workers behind that; they answer to the ROUTER.
class RawSlave : public RawCalls {
 public:
  explicit RawSlave(Transport transport);
  ~RawSlave() { context_.end(); }

 private:
  raw::Master master_;
  raw::Slave slave_;
};

/// REQ to REP.
class RawRep : public RawCalls {
 public:
  explicit RawRep(Transport transport);
  ~RawRep() { context_.end(); }

 private:
  raw::RepServer server_;
};

}  // namespace tessel::bench

#endif
