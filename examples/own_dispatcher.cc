#include <tessel/tessel.h>

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <iostream>
#include <mutex>
#include <queue>
#include <thread>

const char kUsage[] = R"(usage: own_dispatcher [--help]
An application that has a loop of its own, such as that of a window, runs the requests in it: its
services are called on its own thread only, between its other work, and need no locks.
)";

class Loop {
 public:
  void post(std::function<void()> work) {
    const std::lock_guard<std::mutex> lock(mutex_);
    work_.push(std::move(work));
    posted_.notify_one();
  }
  void run() {
    while (!ended_) next()();
  }
  void end() { ended_ = true; }  // from its own work

 private:
  std::function<void()> next() {
    std::unique_lock<std::mutex> lock(mutex_);
    posted_.wait(lock, [this] { return !work_.empty(); });
    std::function<void()> work = std::move(work_.front());
    work_.pop();
    return work;
  }

  bool ended_ = false;
  std::mutex mutex_;
  std::condition_variable posted_;
  std::queue<std::function<void()>> work_;
};

class LoopDispatcher : public tessel::RpcDispatcher {
 public:
  explicit LoopDispatcher(Loop& loop) : loop_(loop) {}
  void start() override {}
  void stop() override {}
  void submit(std::shared_ptr<tessel::RpcRequest> request) override {
    loop_.post([request] { request->execute(); });
  }

 private:
  Loop& loop_;
};

class Counter : public tessel::Service {
 public:
  Counter() : Service("counter", "only") {}
  void callMethod(const std::string&, const void*, std::size_t,
                  std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) override {
    const std::string answer = "call " + std::to_string(++calls_) + " on the " +
                               (std::this_thread::get_id() == loop_ ? "loop" : "wrong") + " thread";
    out.reset(new std::uint8_t[outSize = answer.size()]);
    std::copy(answer.begin(), answer.end(), out.get());
  }

 private:
  const std::thread::id loop_ = std::this_thread::get_id();
  int calls_ = 0;
};

void callTwice() {
  tessel::RpcClient client("inproc://calls", std::chrono::seconds(30));
  for (int i = 0; i < 2; ++i) {
    std::unique_ptr<std::uint8_t[]> answer;
    std::size_t size = 0;
    client.CallMethod("counter", "only", "count", nullptr, 0, answer, size);
    std::cout << std::string(answer.get(), answer.get() + size) << "\n";
  }
}

int main(int argc, char** argv) {
  if (argc > 1) {
    std::cout << kUsage;
    return std::string(argv[1]) == "--help" ? 0 : 2;
  }
  Loop loop;
  tessel::RpcBroker broker(true, {"inproc://calls"}, std::make_shared<LoopDispatcher>(loop));
  broker.registerService(std::make_shared<Counter>());
  broker.start();

  loop.post([] { std::cout << "other work\n"; });
  std::thread client([&loop] {
    callTwice();
    loop.post([&loop] { loop.end(); });
  });
  loop.run();
  client.join();
}

// Output:
// other work
// call 1 on the loop thread
// call 2 on the loop thread
