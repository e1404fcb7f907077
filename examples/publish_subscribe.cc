#include <tessel/tessel.h>

#include <future>
#include <iostream>

const char kUsage[] = R"(usage: publish_subscribe [--help]
A value is published before anybody listens; the subscriber that comes later gets it at once.
)";

class Thermometer : public tessel::Subscriber {
 public:
  Thermometer() : Subscriber(tessel::SubscriptionMode::Once, "temperature", "kitchen") {}
  std::promise<std::string> shown;

 private:
  void onValue(const void* data, std::size_t size) override {
    shown.set_value(std::string(static_cast<const char*>(data), size));
  }
};

int main(int argc, char** argv) {
  if (argc > 1) {
    std::cout << kUsage;
    return std::string(argv[1]) == "--help" ? 0 : 2;
  }
  // Between processes the names are "tcp://*:9011" here and "tcp://localhost:9011" there.
  tessel::MessageBroker broker({}, {"inproc://updates"}, {"inproc://cache"});
  broker.start();
  tessel::Publisher(broker, "temperature", "kitchen").publish("21.5", 4);

  tessel::MessageDispatcher dispatcher("inproc://updates", "inproc://cache");
  dispatcher.start();
  auto thermometer = std::make_shared<Thermometer>();
  dispatcher.registerSubscriber(thermometer);
  std::cout << "kitchen: " << thermometer->shown.get_future().get() << "\n";
}

// Output:
// kitchen: 21.5
