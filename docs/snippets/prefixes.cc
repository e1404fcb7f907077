// Which values a prefix gets.
#include "support.h"

using guide::Line;

//! [subscriber]
class Log : public tessel::MultiSubscriber {
 public:
  using MultiSubscriber::MultiSubscriber;
  Line lines;

 private:
  void onValue(const std::string& topic, const std::string& tag, const void* data,
               std::size_t size) override {
    lines.add(topic + "/" + tag + "=" + std::string(static_cast<const char*>(data), size));
  }
};
//! [subscriber]

int main() {
  tessel::MessageBroker broker({}, {"inproc://updates"}, {"inproc://cache"});
  broker.start();
  tessel::MessageDispatcher dispatcher("inproc://updates", "inproc://cache");
  dispatcher.start();
  //! [prefixes]
  auto beginning = std::make_shared<Log>("temp");
  auto topic = std::make_shared<Log>("temperature", "");
  auto tags = std::make_shared<Log>("temperature", "k");
  //! [prefixes]
  for (const auto& log : {beginning, topic, tags}) dispatcher.registerSubscriber(log);
  guide::waitUntilSubscribed(dispatcher, broker);
  //! [publish]
  tessel::Publisher(broker, "tempo", "song").publish("120", 3);
  tessel::Publisher(broker, "temperature", "cellar").publish("12.0", 4);
  tessel::Publisher(broker, "temperature", "kitchen").publish("21.5", 4);
  //! [publish]
  std::cout << "\"temp\":              " << beginning->lines.waitFor(3) << "\n";
  std::cout << "\"temperature\", \"\":   " << topic->lines.waitFor(2) << "\n";
  std::cout << "\"temperature\", \"k\":  " << tags->lines.waitFor(1) << "\n";
}
