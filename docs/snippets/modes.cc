// What a late subscriber gets in each of the three modes.
#include "support.h"

using guide::Line;  // a text that any thread may add to

//! [subscriber]
class Display : public tessel::Subscriber {
 public:
  using Subscriber::Subscriber;
  Line shown;

 private:
  void onValue(const void* data, std::size_t size) override {
    shown.add(std::string(static_cast<const char*>(data), size));  // copied: valid only now
  }
  void onDeletion() override { shown.add("gone"); }
};
//! [subscriber]

int main() {
  using tessel::SubscriptionMode;
  tessel::MessageBroker broker({}, {"inproc://updates"}, {"inproc://cache"});
  const auto witness = std::make_shared<guide::Witness>();
  broker.attach(witness);
  broker.start();
  //! [before]
  tessel::Publisher kitchen(broker, "temperature", "kitchen");
  kitchen.publish("21.5", 4);  // nobody listens yet
  //! [before]
  witness->waitForValues(1);

  tessel::MessageDispatcher dispatcher("inproc://updates", "inproc://cache");
  dispatcher.start();
  //! [register]
  auto once = std::make_shared<Display>(SubscriptionMode::Once, "temperature", "kitchen");
  auto updates = std::make_shared<Display>(SubscriptionMode::NewValues, "temperature", "kitchen");
  auto all = std::make_shared<Display>(SubscriptionMode::AllValues, "temperature", "kitchen");
  dispatcher.registerSubscriber(once);
  dispatcher.registerSubscriber(updates);
  dispatcher.registerSubscriber(all);
  //! [register]
  once->shown.waitFor(1);
  all->shown.waitFor(1);
  guide::waitUntilSubscribed(dispatcher, broker);
  //! [after]
  kitchen.publish("22.0", 4);
  kitchen.unpublish();
  //! [after]
  updates->shown.waitFor(2);
  all->shown.waitFor(3);
  std::cout << "Once:      " << once->shown.waitFor(1) << "\n";
  std::cout << "NewValues: " << updates->shown.waitFor(2) << "\n";
  std::cout << "AllValues: " << all->shown.waitFor(3) << "\n";
}
