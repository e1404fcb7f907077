#include <tessel/tessel.h>

#include <future>
#include <iostream>
#include <stdexcept>

const char kUsage[] = R"(usage: liveness [--help]
Each worker has published a value as long as it lives: its publisher withdraws the value when it is
destroyed, and whoever watches is told, also when an exception ends the worker. A process that is
killed withdraws nothing.
)";

class Worker {
 public:
  Worker(const tessel::MessageBroker& broker, const std::string& name)
      : alive_(broker, "worker", name) {
    alive_.enableUnpublishOnDestruction(true);
    alive_.publish("ready", 5);
  }

 private:
  tessel::Publisher alive_;
};

class Watcher : public tessel::Subscriber {
 public:
  explicit Watcher(const std::string& worker)
      : Subscriber(tessel::SubscriptionMode::AllValues, "worker", worker) {}
  void waitUntilThere() { there_.get_future().wait(); }
  void waitUntilGone() { gone_.get_future().wait(); }

 private:
  void onValue(const void* data, std::size_t size) override {
    std::cout << getTag() << ": " << std::string(static_cast<const char*>(data), size) << "\n";
    there_.set_value();
  }
  void onDeletion() override {
    std::cout << getTag() << ": gone\n";
    gone_.set_value();
  }
  std::promise<void> there_;
  std::promise<void> gone_;
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
  auto painter = std::make_shared<Watcher>("painter");
  auto printer = std::make_shared<Watcher>("printer");
  dispatcher.registerSubscriber(painter);
  dispatcher.registerSubscriber(printer);
  {
    Worker painting(broker, "painter");
    painter->waitUntilThere();
    try {
      Worker printing(broker, "printer");
      printer->waitUntilThere();
      throw std::runtime_error("out of paper");
    } catch (const std::runtime_error& error) {
      printer->waitUntilGone();
      std::cout << "because: " << error.what() << "\n";
    }
  }
  painter->waitUntilGone();
}

// Output:
// painter: ready
// printer: ready
// printer: gone
// because: out of paper
// painter: gone
