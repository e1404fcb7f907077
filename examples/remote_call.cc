#include <tessel/tessel.h>

#include <cstring>
#include <iostream>

const char kUsage[] = R"(usage: remote_call [--help]
A client calls a service by its name; what the service throws, the client catches.
)";

class Greeter : public tessel::Service {
 public:
  Greeter() : Service("greeter", "front door") {}
  void callMethod(const std::string& method, const void* data, std::size_t size,
                  std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) override {
    if (method != "greet") throw std::runtime_error("no such method: " + method);
    out.reset(new std::uint8_t[outSize = size + 7]);
    std::memcpy(out.get(), "Hello, ", 7);
    std::memcpy(out.get() + 7, data, size);
  }
};

int main(int argc, char** argv) {
  if (argc > 1) {
    std::cout << kUsage;
    return std::string(argv[1]) == "--help" ? 0 : 2;
  }
  // Between processes the names are "tcp://*:9020" here and "tcp://localhost:9020" there.
  auto workers = std::make_shared<tessel::ThreadedRpcDispatcher>();
  tessel::RpcBroker broker(true, {"inproc://calls"}, workers);
  broker.registerService(std::make_shared<Greeter>());
  broker.start();

  tessel::RpcClient client("inproc://calls", std::chrono::seconds(5));
  std::unique_ptr<std::uint8_t[]> answer;
  std::size_t size = 0;
  client.CallMethod("greeter", "front door", "greet", "world", 5, answer, size);
  std::cout << std::string(answer.get(), answer.get() + size) << "\n";
}

// Output:
// Hello, world
