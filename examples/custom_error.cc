#include <tessel/tessel.h>

#include <algorithm>
#include <iostream>
#include <mutex>

const char kUsage[] = R"(usage: custom_error [--help]
A service refuses a call with bytes of its own, which the client catches and can act on. Any other
exception arrives as its text, and a service that nobody has as an error of the broker's.
)";

class Account : public tessel::Service {
 public:
  Account() : Service("account", "household") {}
  void callMethod(const std::string& method, const void* data, std::size_t size,
                  std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) override {
    if (method != "withdraw") throw std::invalid_argument("no such method: " + method);
    const int amount = std::stoi(std::string(static_cast<const char*>(data), size));
    const std::string left = std::to_string(withdraw(amount));
    out.reset(new std::uint8_t[outSize = left.size()]);
    std::copy(left.begin(), left.end(), out.get());
  }

 private:
  int withdraw(int amount) {
    const std::lock_guard<std::mutex> lock(mutex_);  // calls come on several threads at once
    if (amount > balance_) throw tessel::rpc_custom_error(std::to_string(amount - balance_));
    return balance_ -= amount;
  }

  std::mutex mutex_;
  int balance_ = 100;
};

void call(tessel::RpcClient& client, const std::string& instance, const std::string& method,
          const std::string& argument) {
  std::cout << instance << ", " << method << " " << argument << ": ";
  try {
    std::unique_ptr<std::uint8_t[]> answer;
    std::size_t size = 0;
    client.CallMethod("account", instance, method, argument.data(), argument.size(), answer, size);
    std::cout << std::string(answer.get(), answer.get() + size) << " left\n";
  } catch (const tessel::rpc_custom_error& error) {  // before what it derives from
    std::cout << std::string(static_cast<const char*>(error.data()), error.size()) << " short\n";
  } catch (const tessel::rpc_service_error& error) {
    std::cout << "the service failed: " << error.what() << "\n";
  } catch (const tessel::rpc_timeout& error) {
    std::cout << "no answer: " << error.what() << "\n";
  } catch (const tessel::rpc_broker_error& error) {
    std::cout << "the broker refused: " << error.what() << "\n";
  }
}

int main(int argc, char** argv) {
  if (argc > 1) {
    std::cout << kUsage;
    return std::string(argv[1]) == "--help" ? 0 : 2;
  }
  tessel::RpcBroker broker(true, {"inproc://calls"},
                           std::make_shared<tessel::ThreadedRpcDispatcher>());
  broker.registerService(std::make_shared<Account>());
  broker.start();

  tessel::RpcClient client("inproc://calls", std::chrono::seconds(30));
  call(client, "household", "withdraw", "30");
  call(client, "household", "withdraw", "100");
  call(client, "household", "steal", "1");
  call(client, "holidays", "withdraw", "1");
}

// Output:
// household, withdraw 30: 70 left
// household, withdraw 100: 30 short
// household, steal 1: the service failed: no such method: steal
// holidays, withdraw 1: the broker refused: service not found: account - holidays
