// An application's first program: C++11, public headers, one value from a publisher to a
// subscriber, one call to a service.
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

#include "tessel/tessel.h"

namespace {

class Inbox : public tessel::Subscriber {
 public:
  Inbox() : tessel::Subscriber(tessel::SubscriptionMode::AllValues, "greeting", "") {}

  std::string wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    arrived_.wait_for(lock, std::chrono::seconds(20), [this] { return !value_.empty(); });
    return value_;
  }

 protected:
  void onValue(const void* data, std::size_t size) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    value_.assign(static_cast<const char*>(data), size);
    arrived_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::string value_;
};

class Echo : public tessel::Service {
 public:
  Echo() : tessel::Service("echo", "") {}

  void callMethod(const std::string& method, const void* data, std::size_t size,
                  std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) override {
    if (method != "say") throw std::runtime_error("no such method: " + method);
    outSize = size;
    out.reset(new std::uint8_t[size]);
    std::memcpy(out.get(), data, size);
  }
};

std::string call(tessel::RpcClient& client, const std::string& method, const std::string& text) {
  std::unique_ptr<std::uint8_t[]> answer;
  std::size_t size = 0;
  try {
    client.CallMethod("echo", "", method, text.data(), text.size(), answer, size);
  } catch (const tessel::rpc_service_error& error) {
    return error.what();
  }
  return std::string(answer.get(), answer.get() + size);
}

bool callsAreAnswered() {
  tessel::RpcBroker broker(true, {"inproc://consumer_calls"},
                           std::make_shared<tessel::ThreadedRpcDispatcher>());
  broker.registerService(std::make_shared<Echo>());
  broker.start();
  tessel::RpcClient client("inproc://consumer_calls", std::chrono::seconds(20));
  return call(client, "say", "hello") == "hello" &&
         call(client, "sing", "hello") == "no such method: sing";
}

// What the library throws is caught here by the type that the header declares.
bool catchesErrors() {
  try {
    const tessel::Publisher publisher("not:a topic", "");
    return false;
  } catch (const std::invalid_argument&) {
  }
  try {
    throw tessel::rpc_timeout();
  } catch (const tessel::rpc_broker_error& error) {
    return std::string(error.what()) == "RPC timeout";
  }
}

}  // namespace

int main() {
  tessel::MessageBroker broker({}, {"inproc://consumer_updates"}, {"inproc://consumer_cache"});
  tessel::MessageDispatcher dispatcher("inproc://consumer_updates", "inproc://consumer_cache", 1);
  const auto inbox = std::make_shared<Inbox>();
  dispatcher.registerSubscriber(inbox);
  broker.start();
  dispatcher.start();

  const std::string sent = "hello";
  const tessel::Publisher publisher(broker, "greeting", "");
  publisher.publish(sent.data(), sent.size());
  const std::string received = inbox->wait();

  std::printf("tessel %s: %s\n", TESSEL_VERSION, received.c_str());
  return received == sent && callsAreAnswered() && catchesErrors() ? 0 : 1;
}
