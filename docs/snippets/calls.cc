// A service, and every way in which a call to it can end.
#include <future>

#include "support.h"

std::promise<void> patience;

//! [service]
class Calculator : public tessel::Service {
 public:
  Calculator() : Service("calculator", "first floor") {}

  void callMethod(const std::string& method, const void* data, std::size_t size,
                  std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) override {
    const std::string argument(static_cast<const char*>(data), size);
    if (method == "double") {
      const std::string result = std::to_string(2 * std::stoi(argument));
      outSize = result.size();
      out.reset(new std::uint8_t[outSize]);
      std::copy(result.begin(), result.end(), out.get());
    } else if (method == "invert" && argument == "0") {
      throw tessel::rpc_custom_error(std::string("pole"));  // any bytes, as a protocol has them
    } else if (method == "ponder") {
      patience.get_future().wait();
      outSize = 0;
    } else {
      throw std::runtime_error("no such method: " + method);
    }
  }
};
//! [service]

//! [errors]
void call(tessel::RpcClient& client, const std::string& service, const std::string& method,
          const std::string& argument) {
  std::unique_ptr<std::uint8_t[]> result;
  std::size_t size = 0;
  try {
    client.CallMethod(service, "first floor", method, argument.data(), argument.size(), result,
                      size);
    std::cout << "result: " << std::string(result.get(), result.get() + size) << "\n";
  } catch (const tessel::rpc_custom_error& error) {  // before its base, rpc_service_error
    std::cout << "the service's own error, " << error.size() << " bytes\n";
  } catch (const tessel::rpc_service_error& error) {
    std::cout << "the service failed: " << error.what() << "\n";
  } catch (const tessel::rpc_timeout&) {  // before its base, rpc_broker_error
    std::cout << "no answer in time\n";
  } catch (const tessel::rpc_broker_error& error) {
    std::cout << "the broker says: " << error.what() << "\n";
  }
}
//! [errors]

int main() {
  //! [broker]
  auto workers = std::make_shared<tessel::ThreadedRpcDispatcher>(4);
  tessel::RpcBroker broker(true, {"inproc://calls"}, workers);  // or "tcp://*:9020"
  broker.registerService(std::make_shared<Calculator>());
  broker.start();
  //! [broker]
  //! [client]
  tessel::RpcClient client("inproc://calls", std::chrono::seconds(60));  // or "tcp://hub:9020"
  call(client, "calculator", "double", "21");
  call(client, "calculator", "treble", "21");
  call(client, "calculator", "invert", "0");
  call(client, "clock", "now", "");
  client.setReceiveTimeout(std::chrono::milliseconds(100));
  call(client, "calculator", "ponder", "");
  //! [client]
  patience.set_value();
}
