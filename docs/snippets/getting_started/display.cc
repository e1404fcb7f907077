// Shows the value that a station has kept, and ends.
//! [display]
#include <tessel/tessel.h>

#include <future>
#include <iostream>

class Display : public tessel::Subscriber {
 public:
  Display() : Subscriber(tessel::SubscriptionMode::Once, "temperature", "kitchen") {}
  std::promise<std::string> shown;

 private:
  void onValue(const void* data, std::size_t size) override {
    shown.set_value(std::string(static_cast<const char*>(data), size));
  }
};

int main(int argc, char** argv) {
  const std::string host = argc > 1 ? argv[1] : "tcp://127.0.0.1";
  tessel::MessageDispatcher dispatcher(host + ":9011", host + ":9012");
  dispatcher.start();

  auto display = std::make_shared<Display>();
  dispatcher.registerSubscriber(display);
  std::cout << "kitchen: " << display->shown.get_future().get() << "\n";
}
//! [display]
