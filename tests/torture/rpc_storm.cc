// Remote calls under everything at once, for as long as one likes:
//
//   rpc_storm [--seed N] [--seconds N]
//
// A master and two slaves are started, stopped, destroyed and made anew at random while services
// come and go and callers call over TCP, in the process and directly. Every answer must be that of
// its own call, and nothing may hang or end the process. Ends with 1 when a wrong answer was seen
// or nothing moved for a minute. The same seed gives each thread the same decisions; how they meet
// is up to the machine.

#include <tessel/rpc_broker.h>
#include <tessel/rpc_client.h>
#include <tessel/rpc_dispatcher.h>
#include <tessel/rpc_error.h>
#include <tessel/service.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/endpoints.h"
#include "support/rpc_peers.h"
#include "torture.h"

namespace {

using namespace tessel;
using namespace tessel::test;
using std::chrono::milliseconds;

std::atomic<long> answered{0};
std::atomic<long> timedOut{0};
std::atomic<long> notFound{0};
std::atomic<long> failed{0};
std::atomic<long> wrong{0};
std::atomic<long> changes{0};

std::string echoOf(const std::string& service, const std::string& instance,
                   const std::string& data) {
  return service + "/" + instance + "/" + data;
}

class Echo : public Service {
 public:
  using Service::Service;
  void callMethod(const std::string&, const void* data, std::size_t size,
                  std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) override {
    const std::string result = echoOf(getServiceName(), getInstanceName(),
                                      std::string(static_cast<const char*>(data), size));
    out = std::make_unique<std::uint8_t[]>(result.size());
    outSize = result.size();
    std::memcpy(out.get(), result.data(), outSize);
  }
};

class Watcher : public QuietObserver {
 public:
  void onReply(const std::string&, const std::string&, const std::string&, int status, const void*,
               std::size_t) override {
    if (status < 0 || status > 3) ++wrong;
  }
};

// A broker that is made, started, stopped and destroyed at random, by one thread.
class Site {
 public:
  Site(std::string name, bool master, std::vector<std::string> transports)
      : name_(std::move(name)), master_(master), transports_(std::move(transports)) {}

  std::shared_ptr<RpcBroker> broker() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return broker_;
  }
  const std::string& name() const { return name_; }

  void makeAnew() {
    drop();  // the new one binds the same endpoints
    auto made = std::make_shared<RpcBroker>(master_, transports_,
                                            std::make_shared<ThreadedRpcDispatcher>(2));
    made->attach(watcher_);
    for (int i = 0; i < 4; ++i) {
      made->registerService(std::make_shared<Echo>(name_, std::to_string(i)));
    }
    made->start();
    const std::lock_guard<std::mutex> lock(mutex_);
    broker_ = std::move(made);
  }
  // Waits for those who use it just now, so that its end is here, and the endpoints are free.
  void drop() {
    std::weak_ptr<RpcBroker> alive;
    {
      std::shared_ptr<RpcBroker> dropped;
      const std::lock_guard<std::mutex> lock(mutex_);
      dropped.swap(broker_);
      alive = dropped;
    }
    while (!alive.expired()) std::this_thread::yield();
  }
  void change(Random& random) {
    const std::shared_ptr<RpcBroker> current = broker();
    const std::size_t what = pick(random, 100);
    if (current == nullptr || what < 3) {
      // Not while `current` is held here.
    } else if (what < 30) {
      current->stop();
      current->start();
    } else if (what < 40) {
      current->stop();
      std::this_thread::sleep_for(milliseconds(pick(random, 20)));
      current->start();
    } else {
      const auto service = std::make_shared<Echo>(name_, std::to_string(pick(random, 4)));
      current->unregisterService(service);
      if (pick(random, 2) == 0) std::this_thread::yield();
      current->registerService(service);
    }
    remake_ = current == nullptr || what < 3;
  }
  bool remake() const { return remake_; }

 private:
  const std::string name_;
  const bool master_;
  const std::vector<std::string> transports_;
  const std::shared_ptr<Watcher> watcher_ = std::make_shared<Watcher>();
  bool remake_ = false;
  std::mutex mutex_;
  std::shared_ptr<RpcBroker> broker_;
};

void callOnce(RpcClient& client, const std::string& service, const std::string& data,
              Random& random) {
  const std::string instance = std::to_string(pick(random, 4));
  try {
    std::unique_ptr<std::uint8_t[]> out;
    std::size_t size = 0;
    client.CallMethod(service, instance, "m", data.data(), data.size(), out, size);
    const std::string got(reinterpret_cast<const char*>(out.get()), size);
    ++(got == echoOf(service, instance, data) ? answered : wrong);
  } catch (const rpc_timeout&) {
    ++timedOut;
  } catch (const rpc_broker_error&) {
    ++notFound;
  } catch (const std::exception& error) {
    if (++failed < 5) std::fprintf(stderr, "a call failed: %s\n", error.what());
  }
}

// Ends the process when nothing has moved for a minute.
void watch() {
  long last = -1;
  auto moved = Clock::now();
  while (true) {
    std::this_thread::sleep_for(milliseconds(200));
    const long now = answered + timedOut + notFound + changes;
    if (now != last) {
      last = now;
      moved = Clock::now();
    }
    if (Clock::now() - moved > std::chrono::minutes(1)) {
      std::fprintf(stderr, "nothing moves any more\n");
      std::_Exit(1);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  Torture::instance().begin(argc, argv, 0, 10);
  const std::string tcp = freeTcp();
  const std::string inproc = uniqueInproc();
  Site sites[] = {{"master", true, {tcp, inproc}}, {"one", false, {tcp}}, {"two", false, {inproc}}};
  const auto end = Clock::now() + Torture::instance().length();
  std::thread(watch).detach();

  std::vector<std::thread> threads;
  unsigned number = 0;
  for (Site& site : sites) {
    threads.emplace_back([&site, random = randomFor(number++), end]() mutable {
      while (Clock::now() < end) {
        site.change(random);
        if (site.remake()) site.makeAnew();
        ++changes;
        std::this_thread::sleep_for(milliseconds(pick(random, 10)));
      }
    });
  }
  for (int caller = 0; caller < 6; ++caller) {
    threads.emplace_back([&, random = randomFor(number++), caller]() mutable {
      RpcClient byEndpoint(caller % 2 == 0 ? tcp : inproc, milliseconds(50));
      for (long i = 0; Clock::now() < end; ++i) {
        Site& site = sites[pick(random, 3)];
        const std::string data = std::to_string(caller) + "." + std::to_string(i);
        std::unique_ptr<RpcClient> direct;
        if (pick(random, 3) == 0) {
          if (const auto broker = sites[pick(random, 3)].broker()) {
            direct = std::make_unique<RpcClient>(broker, milliseconds(pick(random, 30)));
          }
        }
        callOnce(direct == nullptr ? byEndpoint : *direct, site.name(), data, random);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (Site& site : sites) site.drop();
  row("storm", "start, stop, destroy and make brokers, register, call at random",
      grouped(static_cast<std::uint64_t>(answered)) + " answers",
      std::to_string(timedOut) + " timed out, " + std::to_string(notFound) + " found nobody, " +
          std::to_string(failed) + " failed, " + std::to_string(wrong) + " wrong");
  std::fflush(stdout);
  std::_Exit(wrong == 0 && failed == 0 && answered > 0 ? 0 : 1);
}
