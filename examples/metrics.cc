#include <tessel/tessel.h>

#include <atomic>
#include <future>
#include <iostream>

const char kUsage[] = R"(usage: metrics [--help]
An observer counts what a message broker and a broker of calls do, and prints it as the text that
monitoring systems scrape.
)";

// Brokers call it on their threads, several at once: it counts, and is done.
class Metrics : public tessel::MessageBrokerObserver, public tessel::RpcBrokerObserver {
 public:
  void print() const {
    family("tessel_values_total", "Values that came from publishers.");
    std::cout << "tessel_values_total{outcome=\"passed_on\"} " << passedOn_
              << "\ntessel_values_total{outcome=\"suppressed\"} " << suppressed_ << "\n";
    family("tessel_withdrawals_total", "Withdrawals that came from publishers.");
    std::cout << "tessel_withdrawals_total " << withdrawals_ << "\n";
    family("tessel_subscriptions_total", "Subscriptions that asked for a last value.");
    std::cout << "tessel_subscriptions_total " << subscriptions_ << "\n";
    family("tessel_calls_total", "Calls by how they ended.");
    const char* const outcomes[] = {"success", "service_error", "no_service", "custom_error"};
    for (int i = 0; i < 4; ++i) {
      std::cout << "tessel_calls_total{outcome=\"" << outcomes[i] << "\"} " << calls_[i] << "\n";
    }
  }

 private:
  static void family(const std::string& name, const std::string& help) {
    std::cout << "# HELP " << name << " " << help << "\n# TYPE " << name << " counter\n";
  }

  void onSubscribe(const std::string&, const std::string&) override { ++subscriptions_; }
  void onUnsubscribe(const std::string&, const std::string&) override {}
  void onPublish(const std::string&, const std::string&, bool, bool, bool suppressed) override {
    ++(suppressed ? suppressed_ : passedOn_);
  }
  void onUnpublish(const std::string&, const std::string&, bool, bool, bool) override {
    ++withdrawals_;
  }
  void onServiceRegistered(const std::string&, const std::string&, bool,
                           const std::vector<std::uint8_t>&) override {}
  void onServiceUnregistered(const std::string&, const std::string&, bool,
                             const std::vector<std::uint8_t>&) override {}
  void onRequest(const std::string&, const std::string&, const std::string&, const void*,
                 std::size_t) override {}
  void onReply(const std::string&, const std::string&, const std::string&, int status, const void*,
               std::size_t) override {
    ++calls_[status];
  }

  std::atomic<unsigned long> passedOn_{0}, suppressed_{0}, withdrawals_{0}, subscriptions_{0};
  std::atomic<unsigned long> calls_[4] = {{0}, {0}, {0}, {0}};
};

class Display : public tessel::Subscriber {
 public:
  Display() : Subscriber(tessel::SubscriptionMode::AllValues, "temperature", "kitchen") {}
  std::promise<void> warm, withdrawn;

 private:
  void onValue(const void* data, std::size_t size) override {
    if (std::string(static_cast<const char*>(data), size) == "22.0") warm.set_value();
  }
  void onDeletion() override { withdrawn.set_value(); }
};

class Heating : public tessel::Service {
 public:
  Heating() : Service("heating", "kitchen") {}
  void callMethod(const std::string& method, const void*, std::size_t,
                  std::unique_ptr<std::uint8_t[]>&, std::size_t&) override {
    if (method != "on" && method != "off") throw std::invalid_argument("no such method");
  }
};

void call(const std::string& instance, const std::string& method) {
  std::unique_ptr<std::uint8_t[]> answer;
  std::size_t size = 0;
  try {
    tessel::RpcClient("inproc://calls", std::chrono::seconds(30))
        .CallMethod("heating", instance, method, nullptr, 0, answer, size);
  } catch (const tessel::rpc_error&) {  // counted
  }
}

int main(int argc, char** argv) {
  if (argc > 1) {
    std::cout << kUsage;
    return std::string(argv[1]) == "--help" ? 0 : 2;
  }
  auto metrics = std::make_shared<Metrics>();
  tessel::MessageBroker values({}, {"inproc://updates"}, {"inproc://cache"});
  values.attach(metrics);
  values.start();
  tessel::RpcBroker calls(true, {"inproc://calls"},
                          std::make_shared<tessel::ThreadedRpcDispatcher>());
  calls.attach(metrics);
  calls.registerService(std::make_shared<Heating>());
  calls.start();

  tessel::MessageDispatcher dispatcher("inproc://updates", "inproc://cache");
  auto display = std::make_shared<Display>();
  dispatcher.registerSubscriber(display);
  dispatcher.start();
  tessel::Publisher kitchen(values, "temperature", "kitchen");
  kitchen.publish("21.5", 4);
  kitchen.publish("21.5", 4);
  kitchen.publish("22.0", 4);
  display->warm.get_future().wait();
  kitchen.unpublish();
  display->withdrawn.get_future().wait();
  call("kitchen", "on");
  call("kitchen", "off");
  call("kitchen", "hotter");
  call("cellar", "on");

  values.stop();  // after the last observer's call
  metrics->print();
}

// Output:
// # HELP tessel_values_total Values that came from publishers.
// # TYPE tessel_values_total counter
// tessel_values_total{outcome="passed_on"} 2
// tessel_values_total{outcome="suppressed"} 1
// # HELP tessel_withdrawals_total Withdrawals that came from publishers.
// # TYPE tessel_withdrawals_total counter
// tessel_withdrawals_total 1
// # HELP tessel_subscriptions_total Subscriptions that asked for a last value.
// # TYPE tessel_subscriptions_total counter
// tessel_subscriptions_total 1
// # HELP tessel_calls_total Calls by how they ended.
// # TYPE tessel_calls_total counter
// tessel_calls_total{outcome="success"} 2
// tessel_calls_total{outcome="service_error"} 1
// tessel_calls_total{outcome="no_service"} 1
// tessel_calls_total{outcome="custom_error"} 0
