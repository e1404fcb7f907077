// The road of a call through gRPC: a synchronous server and a blocking stub, by TCP or by the
// channel that the server offers within its process.

#include <grpcpp/grpcpp.h>

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>

#include "echo.grpc.pb.h"
#include "peers/support/peer_calls.h"

namespace tessel::bench {
namespace {

class EchoService final : public Echo::Service {
 public:
  grpc::Status Call(grpc::ServerContext*, const Payload* question, Payload* answer) override {
    answer->set_bytes(question->bytes());
    return grpc::Status::OK;
  }
};

class GrpcRoad {
 public:
  explicit GrpcRoad(Transport transport);

  class Client {
   public:
    explicit Client(GrpcRoad& road) : stub_(Echo::NewStub(road.newChannel())) {}
    void call(const void* data, std::size_t size);
    const void* data() const { return answer_.bytes().data(); }
    std::size_t size() const { return answer_.bytes().size(); }

   private:
    const std::unique_ptr<Echo::Stub> stub_;
    Payload question_;
    Payload answer_;
  };

 private:
  std::shared_ptr<grpc::Channel> newChannel();

  const Transport transport_;
  EchoService service_;
  int port_ = 0;
  std::unique_ptr<grpc::Server> server_;
};

GrpcRoad::GrpcRoad(Transport transport) : transport_(transport) {
  grpc::ServerBuilder builder;
  builder.RegisterService(&service_);
  builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port_);
  builder.SetSyncServerOption(grpc::ServerBuilder::NUM_CQS, 1);
  builder.SetSyncServerOption(grpc::ServerBuilder::MIN_POLLERS, 1);
  builder.SetSyncServerOption(grpc::ServerBuilder::MAX_POLLERS, static_cast<int>(kWorkers));
  server_ = builder.BuildAndStart();
  if (!server_) throw std::runtime_error("the server does not start");
}

// Each client has a connection of its own; channels to one address would share one otherwise.
std::shared_ptr<grpc::Channel> GrpcRoad::newChannel() {
  grpc::ChannelArguments arguments;
  if (transport_ == Transport::kInproc) return server_->InProcessChannel(arguments);
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  return grpc::CreateCustomChannel("127.0.0.1:" + std::to_string(port_),
                                   grpc::InsecureChannelCredentials(), arguments);
}

void GrpcRoad::Client::call(const void* data, std::size_t size) {
  question_.set_bytes(data, size);
  grpc::ClientContext context;
  const grpc::Status status = stub_->Call(&context, question_, &answer_);
  if (!status.ok()) throw std::runtime_error(status.error_message());
}

}  // namespace
}  // namespace tessel::bench

int main(int argc, char** argv) {
  using namespace tessel::bench;
  addPeerCalls<GrpcRoad, GrpcRoad>("grpc");
  return runBenchmarks(argc, argv);
}
