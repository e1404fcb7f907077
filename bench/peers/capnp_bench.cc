// The road of a call through Cap'n Proto: by TCP to a server on a thread of its own, or to a
// capability of the thread that calls. It has an event loop in place of workers.

#include <capnp/capability.h>
#include <capnp/ez-rpc.h>
#include <kj/async.h>

#include <cstddef>
#include <future>
#include <optional>
#include <string>
#include <thread>

#include "echo.capnp.h"
#include "peers/support/peer_calls.h"

namespace tessel::bench {
namespace {

// Without it every message begins with 8 KiB that are cleared.
capnp::MessageSize room(std::size_t size) { return {size / sizeof(capnp::word) + 8, 0}; }

class EchoServer final : public Echo::Server {
 protected:
  kj::Promise<void> call(CallContext context) override {
    const auto question = context.getParams().getQuestion();
    context.getResults(room(question.size())).setAnswer(question);
    return kj::READY_NOW;
  }
};

/// Calls, and holds the answer, on the thread that made it.
class CapnpCaller {
 public:
  CapnpCaller(Echo::Client echo, kj::WaitScope& waitScope)
      : echo_(kj::mv(echo)), waitScope_(waitScope) {}

  void call(const void* data, std::size_t size) {
    auto request = echo_.callRequest(room(size));
    request.setQuestion({static_cast<const kj::byte*>(data), size});
    response_.emplace(request.send().wait(waitScope_));
  }
  const void* data() const { return response_->getAnswer().begin(); }
  std::size_t size() const { return response_->getAnswer().size(); }

 private:
  Echo::Client echo_;
  kj::WaitScope& waitScope_;
  std::optional<capnp::Response<Echo::CallResults>> response_;
};

class CapnpTcp {
 public:
  explicit CapnpTcp(Transport)
      : thread_([this] { serve(); }),
        address_("127.0.0.1:" + std::to_string(port_.get_future().get())) {}
  ~CapnpTcp() {
    stop_->fulfill();
    thread_.join();
  }

  class Client : capnp::EzRpcClient, public CapnpCaller {
   public:
    explicit Client(CapnpTcp& road)
        : EzRpcClient(road.address_), CapnpCaller(getMain<Echo>(), getWaitScope()) {}
  };

 private:
  void serve();

  std::promise<unsigned> port_;
  kj::Own<kj::CrossThreadPromiseFulfiller<void>> stop_;  // there once the port is known
  std::thread thread_;
  const std::string address_;
};

void CapnpTcp::serve() {
  capnp::EzRpcServer server(kj::heap<EchoServer>(), "127.0.0.1");
  auto stopped = kj::newPromiseAndCrossThreadFulfiller<void>();
  stop_ = kj::mv(stopped.fulfiller);
  port_.set_value(server.getPort().wait(server.getWaitScope()));
  stopped.promise.wait(server.getWaitScope());
}

/// Every client has the capability itself, since none may be shared by threads.
class CapnpLocal {
 public:
  explicit CapnpLocal(Transport) {}

  struct Loop {
    kj::EventLoop events;
    kj::WaitScope scope{events};
  };
  class Client : Loop, public CapnpCaller {
   public:
    explicit Client(CapnpLocal&) : CapnpCaller(kj::heap<EchoServer>(), scope) {}
  };
};

}  // namespace
}  // namespace tessel::bench

int main(int argc, char** argv) {
  using namespace tessel::bench;
  addPeerCalls<CapnpTcp, CapnpLocal>("capnp");
  return runBenchmarks(argc, argv);
}
