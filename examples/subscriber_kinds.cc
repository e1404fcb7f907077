#include <tessel/tessel.h>

#include <atomic>
#include <future>
#include <iostream>
#include <thread>

const char kUsage[] = R"(usage: subscriber_kinds [--help]
What the four kinds of subscriber hear of the same temperatures: 20 degrees in the kitchen are
published before they come, all else after.
)";

std::string text(const void* data, std::size_t size) {
  return std::string(static_cast<const char*>(data), size);
}

// Callbacks of different values never overlap, so what they collect needs no lock.
class Kitchen : public tessel::Subscriber {
 public:
  explicit Kitchen(tessel::SubscriptionMode mode) : Subscriber(mode, "temperature", "kitchen") {}
  std::string values;
  std::promise<void> first, withdrawn;

 private:
  void onValue(const void* data, std::size_t size) override {
    if (values.empty()) first.set_value();
    values += " " + text(data, size);
  }
  void onDeletion() override { withdrawn.set_value(); }
};

class House : public tessel::MultiSubscriber {
 public:
  House() : MultiSubscriber("temperature:") {}
  std::string values;
  std::promise<void> withdrawn;

 private:
  void onValue(const std::string&, const std::string& tag, const void* data,
               std::size_t size) override {
    values += " " + tag + "=" + text(data, size);
  }
  void onDeletion(const std::string&, const std::string&) override { withdrawn.set_value(); }
};

class Knock : public tessel::Subscriber {
 public:
  Knock() : Subscriber(tessel::SubscriptionMode::NewValues, "knock", "") {}
  std::atomic<bool> heard{false};

 private:
  void onValue(const void*, std::size_t) override { heard = true; }
};

int main(int argc, char** argv) {
  if (argc > 1) {
    std::cout << kUsage;
    return std::string(argv[1]) == "--help" ? 0 : 2;
  }
  tessel::MessageBroker broker({}, {"inproc://updates"}, {"inproc://cache"});
  tessel::MessageDispatcher dispatcher("inproc://updates", "inproc://cache");
  broker.start();
  dispatcher.start();
  tessel::Publisher kitchen(broker, "temperature", "kitchen");
  kitchen.publish("20", 2);

  auto once = std::make_shared<Kitchen>(tessel::SubscriptionMode::Once);
  auto all = std::make_shared<Kitchen>(tessel::SubscriptionMode::AllValues);
  dispatcher.registerSubscriber(once);
  dispatcher.registerSubscriber(all);
  all->first.get_future().wait();

  auto fresh = std::make_shared<Kitchen>(tessel::SubscriptionMode::NewValues);
  auto house = std::make_shared<House>();
  auto knock = std::make_shared<Knock>();
  dispatcher.registerSubscriber(fresh);
  dispatcher.registerSubscriber(house);
  dispatcher.registerSubscriber(knock);
  // Subscriptions reach the broker in order, but nothing answers those to new values. So knock:
  // when the last is heard, all are there.
  tessel::Publisher door(broker, "knock", "");
  door.enableCache(false);
  while (!knock->heard) {
    door.publish("", 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }

  kitchen.publish("21", 2);
  tessel::Publisher(broker, "temperature", "cellar").publish("14", 2);
  kitchen.publish("22", 2);
  kitchen.unpublish();
  all->withdrawn.get_future().wait();
  fresh->withdrawn.get_future().wait();
  house->withdrawn.get_future().wait();
  std::cout << "Once:           " << once->values << "\nAllValues:      " << all->values
            << "\nNewValues:      " << fresh->values << "\nMultiSubscriber:" << house->values
            << "\n";
}

// Output:
// Once:            20
// AllValues:       20 21 22
// NewValues:       21 22
// MultiSubscriber: kitchen=21 cellar=14 kitchen=22
