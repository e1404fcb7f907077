// A service on another machine, called through a master.
#include <future>

#include "support.h"

using guide::Line;

class Echo : public tessel::Service {
 public:
  explicit Echo(const std::string& instance) : Service("echo", instance) {}
  void callMethod(const std::string&, const void* data, std::size_t size,
                  std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) override {
    outSize = size;
    out.reset(new std::uint8_t[size]);
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    std::copy(bytes, bytes + size, out.get());
  }
};

//! [observer]
class Arrivals : public tessel::RpcBrokerObserver {
 public:
  void onServiceRegistered(const std::string& service, const std::string& instance, bool local,
                           const std::vector<std::uint8_t>&) override {
    heard.add("+ " + service + " - " + instance + (local ? ", here\n" : ", at a slave\n"));
  }
  void onServiceUnregistered(const std::string& service, const std::string& instance, bool local,
                             const std::vector<std::uint8_t>&) override {
    heard.add("- " + service + " - " + instance + (local ? ", here\n" : ", at a slave\n"));
  }
  void onRequest(const std::string&, const std::string&, const std::string&, const void*,
                 std::size_t) override {}
  void onReply(const std::string&, const std::string&, const std::string&, int, const void*,
               std::size_t) override {}
  Line heard;
};
//! [observer]

int main() {
  const std::string masterAddress = "inproc://master";
  //! [master]
  tessel::RpcBroker master(true, {masterAddress},
                           std::make_shared<tessel::ThreadedRpcDispatcher>());
  const auto arrivals = std::make_shared<Arrivals>();
  master.attach(arrivals);
  master.registerService(std::make_shared<Echo>("ground floor"));
  master.start();
  //! [master]
  //! [slave]
  tessel::RpcBroker slave(false, {masterAddress},
                          std::make_shared<tessel::ThreadedRpcDispatcher>());
  slave.registerService(std::make_shared<Echo>("attic"));
  slave.start();  // tells the master of its services
  //! [slave]
  arrivals->heard.waitFor(2);
  //! [client]
  tessel::RpcClient client(masterAddress, std::chrono::seconds(60));
  std::unique_ptr<std::uint8_t[]> result;
  std::size_t size = 0;
  client.CallMethod("echo", "attic", "say", "hello", 5, result, size);  // runs at the slave
  //! [client]
  slave.stop();  // withdraws them
  std::cout << arrivals->heard.waitFor(3);
  std::cout << std::string(result.get(), result.get() + size) << "\n";
}
