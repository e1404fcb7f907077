// The road of a call through Ice: by TCP, or collocated, by which a proxy finds the object adapter
// in its own process.

#include <Ice/Ice.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>

#include "echo.h"
#include "peers/support/peer_calls.h"

namespace tessel::bench {
namespace {

class EchoServant final : public Echo {
 public:
  Ice::ByteSeq call(Ice::ByteSeq question, const Ice::Current&) override { return question; }
};

Ice::InitializationData settings() {
  const std::string workers = std::to_string(kWorkers);
  Ice::InitializationData data;
  data.properties = Ice::createProperties();
  data.properties->setProperty("Ice.ThreadPool.Server.Size", workers);
  data.properties->setProperty("Ice.ThreadPool.Server.SizeMax", workers);
  return data;
}

class IceRoad {
 public:
  explicit IceRoad(Transport transport);

  class Client {
   public:
    explicit Client(IceRoad& road) : echo_(road.newProxy()) {}
    void call(const void* data, std::size_t size) {
      const auto* const bytes = static_cast<const Ice::Byte*>(data);
      question_.assign(bytes, bytes + size);
      answer_ = echo_->call(question_);
    }
    const void* data() const { return answer_.data(); }
    std::size_t size() const { return answer_.size(); }

   private:
    const std::shared_ptr<EchoPrx> echo_;
    Ice::ByteSeq question_;
    Ice::ByteSeq answer_;
  };

 private:
  std::shared_ptr<EchoPrx> newProxy();

  const Transport transport_;
  const Ice::CommunicatorHolder communicator_{settings()};
  std::shared_ptr<EchoPrx> echo_;
  std::atomic<int> connections_{0};
};

IceRoad::IceRoad(Transport transport) : transport_(transport) {
  const auto adapter =
      communicator_->createObjectAdapterWithEndpoints("echo", "tcp -h 127.0.0.1 -p 0");
  echo_ = Ice::uncheckedCast<EchoPrx>(adapter->addWithUUID(std::make_shared<EchoServant>()));
  adapter->activate();
}

// Each client has a connection of its own; proxies would share one otherwise.
std::shared_ptr<EchoPrx> IceRoad::newProxy() {
  if (transport_ == Transport::kInproc) return echo_;
  return echo_->ice_collocationOptimized(false)->ice_connectionId(std::to_string(connections_++));
}

}  // namespace
}  // namespace tessel::bench

int main(int argc, char** argv) {
  using namespace tessel::bench;
  addPeerCalls<IceRoad, IceRoad>("ice");
  return runBenchmarks(argc, argv);
}
