#include <tessel/tessel.h>

#include <future>
#include <iostream>

const char kUsage[] = R"(usage: several_brokers [--help]
A publisher sends to the brokers of two sites. One site goes; the other hears on, and what was
published meanwhile waits for the first to come back: up to 1000 values, then publish() waits too.
)";

class Display : public tessel::Subscriber {
 public:
  Display() : Subscriber(tessel::SubscriptionMode::AllValues, "temperature", "kitchen") {}
  std::promise<std::string> first, second;

 private:
  void onValue(const void* data, std::size_t size) override {
    (heard_++ == 0 ? first : second).set_value(std::string(static_cast<const char*>(data), size));
  }
  int heard_ = 0;
};

struct Site {
  explicit Site(const std::string& in)
      : broker({in}, {in + "-updates"}, {in + "-cache"}),
        dispatcher(in + "-updates", in + "-cache"),
        display(std::make_shared<Display>()) {
    broker.start();
    dispatcher.start();
    dispatcher.registerSubscriber(display);
  }
  tessel::MessageBroker broker;
  tessel::MessageDispatcher dispatcher;
  std::shared_ptr<Display> display;
};

int main(int argc, char** argv) {
  if (argc > 1) {
    std::cout << kUsage;
    return std::string(argv[1]) == "--help" ? 0 : 2;
  }
  // Between processes: "tcp://east.example:9010" and "tcp://west.example:9010".
  tessel::Publisher::setDefaultBroker({"inproc://east", "inproc://west"});
  tessel::Publisher temperature("temperature", "kitchen");

  std::unique_ptr<Site> east(new Site("inproc://east"));
  Site west("inproc://west");
  temperature.publish("21.5", 4);
  std::cout << "east: " << east->display->first.get_future().get() << "\n";
  std::cout << "west: " << west.display->first.get_future().get() << "\n";

  east.reset();
  temperature.publish("22.0", 4);
  std::cout << "west: " << west.display->second.get_future().get() << "\n";

  east.reset(new Site("inproc://east"));
  std::cout << "east: " << east->display->first.get_future().get() << "\n";
}

// Output:
// east: 21.5
// west: 21.5
// west: 22.0
// east: 22.0
