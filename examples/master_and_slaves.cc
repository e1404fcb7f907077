#include <tessel/tessel.h>

#include <algorithm>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <set>

const char kUsage[] = R"(usage: master_and_slaves [--help]
Clients know the master only. Slaves offer their services through it as long as they run; the
master's observer tells when they have come and gone.
)";

class Sensor : public tessel::Service {
 public:
  explicit Sensor(const std::string& place) : Service("sensor", place) {}
  void callMethod(const std::string&, const void*, std::size_t,
                  std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) override {
    const std::string answer = "the sensor in the " + getInstanceName();
    out.reset(new std::uint8_t[outSize = answer.size()]);
    std::copy(answer.begin(), answer.end(), out.get());
  }
};

class Roll : public tessel::RpcBrokerObserver {
 public:
  void waitUntil(const std::set<std::string>& places) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return places_ == places; });
  }

 private:
  void onServiceRegistered(const std::string&, const std::string& place, bool,
                           const std::vector<std::uint8_t>&) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    places_.insert(place);
    changed_.notify_all();
  }
  void onServiceUnregistered(const std::string&, const std::string& place, bool,
                             const std::vector<std::uint8_t>&) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    places_.erase(place);
    changed_.notify_all();
  }
  void onRequest(const std::string&, const std::string&, const std::string&, const void*,
                 std::size_t) override {}
  void onReply(const std::string&, const std::string&, const std::string&, int, const void*,
               std::size_t) override {}

  std::mutex mutex_;
  std::condition_variable changed_;
  std::set<std::string> places_;
};

void ask(tessel::RpcClient& client, const std::string& place) {
  std::unique_ptr<std::uint8_t[]> answer;
  std::size_t size = 0;
  try {
    client.CallMethod("sensor", place, "where are you", nullptr, 0, answer, size);
    std::cout << std::string(answer.get(), answer.get() + size) << "\n";
  } catch (const tessel::rpc_broker_error& error) {
    std::cout << error.what() << "\n";
  }
}

int main(int argc, char** argv) {
  if (argc > 1) {
    std::cout << kUsage;
    return std::string(argv[1]) == "--help" ? 0 : 2;
  }
  using Workers = tessel::ThreadedRpcDispatcher;
  auto roll = std::make_shared<Roll>();
  tessel::RpcBroker master(true, {"inproc://master"}, std::make_shared<Workers>());
  master.attach(roll);
  master.registerService(std::make_shared<Sensor>("hall"));
  master.start();
  // As a rule in processes of their own, connected to "tcp://master.example:9020".
  tessel::RpcBroker north(false, {"inproc://master"}, std::make_shared<Workers>());
  tessel::RpcBroker south(false, {"inproc://master"}, std::make_shared<Workers>());
  north.registerService(std::make_shared<Sensor>("north"));
  south.registerService(std::make_shared<Sensor>("south"));
  north.start();
  south.start();
  roll->waitUntil({"hall", "north", "south"});

  tessel::RpcClient client("inproc://master", std::chrono::seconds(30));
  ask(client, "hall");
  ask(client, "north");
  ask(client, "south");
  north.stop();
  roll->waitUntil({"hall", "south"});
  ask(client, "north");
  ask(client, "south");
}

// Output:
// the sensor in the hall
// the sensor in the north
// the sensor in the south
// service not found: sensor - north
// the sensor in the south
