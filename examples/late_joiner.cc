#include <tessel/tessel.h>

#include <future>
#include <iostream>

const char kUsage[] = R"(usage: late_joiner [--help]
The signals of a car are published before anybody listens. Whoever joins late has the last value of
each at once, and hears of new ones from then on; an event that was not kept is over.
)";

class Signal : public tessel::Subscriber {
 public:
  explicit Signal(const std::string& name)
      : Subscriber(tessel::SubscriptionMode::AllValues, "car", name) {}
  void waitUntilHeard() { heard_.get_future().wait(); }

 private:
  void onValue(const void* data, std::size_t size) override {
    std::cout << getTag() << ": " << std::string(static_cast<const char*>(data), size) << "\n";
    heard_.set_value();
  }
  std::promise<void> heard_;
};

std::shared_ptr<Signal> join(tessel::MessageDispatcher& dispatcher, const std::string& name) {
  auto signal = std::make_shared<Signal>(name);
  dispatcher.registerSubscriber(signal);
  return signal;
}

int main(int argc, char** argv) {
  if (argc > 1) {
    std::cout << kUsage;
    return std::string(argv[1]) == "--help" ? 0 : 2;
  }
  tessel::MessageBroker broker({}, {"inproc://updates"}, {"inproc://cache"});
  broker.start();
  tessel::Publisher gear(broker, "car", "gear");
  tessel::Publisher speed(broker, "car", "speed");
  tessel::Publisher horn(broker, "car", "horn");
  tessel::Publisher engine(broker, "car", "engine");
  horn.enableCache(false);  // an event: there is nothing to keep of it
  gear.publish("1", 1);
  speed.publish("10", 2);
  horn.publish("early beep", 10);
  gear.publish("2", 1);
  speed.publish("25", 2);
  engine.publish("running", 7);

  tessel::MessageDispatcher dispatcher("inproc://updates", "inproc://cache");
  dispatcher.start();
  // What one thread publishes arrives in order: with the engine's value all are at the broker.
  join(dispatcher, "engine")->waitUntilHeard();
  auto horns = join(dispatcher, "horn");
  auto gears = join(dispatcher, "gear");
  // Subscriptions arrive in order as well: when this one is answered, that to the horn is there.
  join(dispatcher, "speed")->waitUntilHeard();
  horn.publish("late beep", 9);
  horns->waitUntilHeard();
}

// Output:
// engine: running
// gear: 2
// speed: 25
// horn: late beep
