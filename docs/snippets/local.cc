// A call that stays within the process, and a dispatcher of one's own.
#include "support.h"

class WhereAmI : public tessel::Service {
 public:
  WhereAmI() : Service("where", "am i") {}
  void callMethod(const std::string&, const void*, std::size_t, std::unique_ptr<std::uint8_t[]>&,
                  std::size_t& outSize) override {
    outSize = 0;
    thread = std::this_thread::get_id();
  }
  std::thread::id thread;
};

//! [dispatcher]
// Runs every call on the broker's thread: one after the other, and none may take long.
class Inline : public tessel::RpcDispatcher {
 public:
  void start() override {}
  void stop() override {}
  void submit(std::shared_ptr<tessel::RpcRequest> request) override { request->execute(); }
};
//! [dispatcher]

void call(tessel::RpcClient& client) {
  std::unique_ptr<std::uint8_t[]> result;
  std::size_t size = 0;
  client.CallMethod("where", "am i", "", nullptr, 0, result, size);
}

int main() {
  const auto service = std::make_shared<WhereAmI>();
  const auto said = [&] {
    return service->thread == std::this_thread::get_id() ? "the caller's thread" : "another thread";
  };
  //! [broker]
  auto broker = std::make_shared<tessel::RpcBroker>(
      true, std::vector<std::string>{"inproc://calls"}, std::make_shared<Inline>());
  broker->registerService(service);
  broker->start();
  //! [broker]
  //! [clients]
  tessel::RpcClient direct(broker, std::chrono::seconds(60));            // made on the broker
  tessel::RpcClient remote("inproc://calls", std::chrono::seconds(60));  // made on an endpoint
  //! [clients]
  call(direct);
  std::cout << "made on the broker: " << said() << "\n";
  call(remote);
  std::cout << "made on an endpoint: " << said() << "\n";
}
