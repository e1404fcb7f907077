#include <tessel/tessel.h>

#include <iostream>

const char kUsage[] = R"(usage: brokers [--help] [HOST]
A process that has nothing but brokers, for others to meet at: of values at the default ports 9010,
9011 and 9012, of calls at 9020. HOST is tcp://* if not given; tcp://127.0.0.1 serves this machine
only. Ends when it reads a line.
)";

int main(int argc, char** argv) {
  const std::string host = argc > 1 ? argv[1] : "tcp://*";
  if (argc > 2 || host[0] == '-') {
    std::cout << kUsage;
    return host == "--help" ? 0 : 2;
  }
  tessel::MessageBroker values({host + ":9010"}, {host + ":9011"}, {host + ":9012"});
  values.start();
  tessel::RpcBroker calls(true, {host + ":9020"},
                          std::make_shared<tessel::ThreadedRpcDispatcher>());
  calls.start();

  std::cout << "Press Enter to end." << std::endl;
  std::cin.get();
}

// Output:
// Press Enter to end.
