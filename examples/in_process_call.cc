#include <tessel/tessel.h>

#include <algorithm>
#include <iostream>
#include <stdexcept>
#include <thread>

const char kUsage[] = R"(usage: in_process_call [--help]
A client made on a broker calls the services registered there directly, on its own thread and with
its own bytes: nothing is sent. Results and errors are those of a call through an endpoint.
)";

class Witness : public tessel::Service {
 public:
  Witness() : Service("witness", "only") {}
  void callMethod(const std::string& method, const void*, std::size_t,
                  std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) override {
    if (method != "whose thread") throw std::invalid_argument("no such question: " + method);
    const std::string answer = std::this_thread::get_id() == callers_ ? "yours" : "a worker's";
    out.reset(new std::uint8_t[outSize = answer.size()]);
    std::copy(answer.begin(), answer.end(), out.get());
  }

 private:
  const std::thread::id callers_ = std::this_thread::get_id();
};

void ask(tessel::RpcClient& client, const std::string& question) {
  std::unique_ptr<std::uint8_t[]> answer;
  std::size_t size = 0;
  try {
    client.CallMethod("witness", "only", question, nullptr, 0, answer, size);
    std::cout << "  " << question << ": " << std::string(answer.get(), answer.get() + size) << "\n";
  } catch (const tessel::rpc_service_error& error) {
    std::cout << "  " << error.what() << "\n";
  }
}

int main(int argc, char** argv) {
  if (argc > 1) {
    std::cout << kUsage;
    return std::string(argv[1]) == "--help" ? 0 : 2;
  }
  auto broker =
      std::make_shared<tessel::RpcBroker>(true, std::vector<std::string>{"inproc://calls"},
                                          std::make_shared<tessel::ThreadedRpcDispatcher>());
  broker->registerService(std::make_shared<Witness>());
  broker->start();

  tessel::RpcClient direct(broker, std::chrono::seconds(30));
  tessel::RpcClient remote("inproc://calls", std::chrono::seconds(30));
  std::cout << "on the broker\n";
  ask(direct, "whose thread");
  ask(direct, "whose fault");
  std::cout << "on its endpoint\n";
  ask(remote, "whose thread");
  ask(remote, "whose fault");
}

// Output:
// on the broker
//   whose thread: yours
//   no such question: whose fault
// on its endpoint
//   whose thread: a worker's
//   no such question: whose fault
