#ifndef TESSEL_TESTS_RPC_LIFE_FIXTURE_H
#define TESSEL_TESTS_RPC_LIFE_FIXTURE_H

#include <tessel/rpc_broker.h>
#include <tessel/rpc_client.h>
#include <tessel/rpc_dispatcher.h>
#include <tessel/rpc_error.h>
#include <tessel/service.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/deadline.h"
#include "support/endpoints.h"
#include "support/raw_peer.h"
#include "support/resources.h"
#include "support/threads.h"
#include "support/watchdog.h"

namespace tessel::test {

using std::chrono::milliseconds;

constexpr milliseconds kLong{20000};

/// A service as a function of method and data.
class FunctionService : public Service {
 public:
  using Function = std::function<std::string(const std::string& method, const std::string& data)>;
  FunctionService(const std::string& service, const std::string& instance, Function function)
      : Service(service, instance), function_(std::move(function)) {}
  void callMethod(const std::string& method, const void* data, std::size_t size,
                  std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) override {
    const std::string result = function_(method, std::string(static_cast<const char*>(data), size));
    out = std::make_unique<std::uint8_t[]>(result.size());
    outSize = result.size();
    if (!result.empty()) std::memcpy(out.get(), result.data(), result.size());
  }

 private:
  const Function function_;
};

inline std::shared_ptr<Service> makeService(const std::string& service, const std::string& instance,
                                            FunctionService::Function function) {
  return std::make_shared<FunctionService>(service, instance, std::move(function));
}

/// What an echo service answers: nothing that another call could be answered with.
inline std::string echoOf(const std::string& service, const std::string& instance,
                          const std::string& method, const std::string& data) {
  return service + "/" + instance + "/" + method + "/" + data;
}

inline std::shared_ptr<Service> makeEcho(const std::string& service, const std::string& instance) {
  return makeService(service, instance, [=](const std::string& method, const std::string& data) {
    return echoOf(service, instance, method, data);
  });
}

inline std::string call(RpcClient& client, const std::string& service, const std::string& instance,
                        const std::string& method = "m", const std::string& data = "") {
  std::unique_ptr<std::uint8_t[]> out;
  std::size_t size = 0;
  client.CallMethod(service, instance, method, data.data(), data.size(), out, size);
  return std::string(reinterpret_cast<const char*>(out.get()), size);
}

/// The result, or what went wrong as "timeout", "broker: text", "service: text".
inline std::string outcome(RpcClient& client, const std::string& service,
                           const std::string& instance, const std::string& method = "m",
                           const std::string& data = "") {
  try {
    return call(client, service, instance, method, data);
  } catch (const rpc_timeout&) {
    return "timeout";
  } catch (const rpc_broker_error& error) {
    return std::string("broker: ") + error.what();
  } catch (const rpc_service_error& error) {
    return std::string("service: ") + error.what();
  } catch (const std::exception& error) {
    return std::string("error: ") + error.what();
  }
}

inline std::string notFound(const std::string& service, const std::string& instance) {
  return "broker: service not found: " + service + " - " + instance;
}

inline std::shared_ptr<RpcBroker> makeMaster(const std::vector<std::string>& transports,
                                             std::size_t workers = 4) {
  return std::make_shared<RpcBroker>(true, transports,
                                     std::make_shared<ThreadedRpcDispatcher>(workers));
}

inline std::shared_ptr<RpcBroker> makeSlave(const std::string& master, std::size_t workers = 4) {
  return std::make_shared<RpcBroker>(false, std::vector<std::string>{master},
                                     std::make_shared<ThreadedRpcDispatcher>(workers));
}

/// Looks at the end of its life whether sockets were left behind. `slack` is for what ZeroMQ opens
/// for itself.
class NoSocketsLeft {
 public:
  explicit NoSocketsLeft(int slack = 8) : slack_(slack) {
    makeMaster({})->start();  // the context and its threads are there from now on
    int last = 0;
    int steady = 0;
    eventually([&] {
      const int now = openDescriptors();
      steady = now == last ? steady + 1 : 0;
      last = now;
      return steady > 50;
    });
    before_ = last;
  }
  ~NoSocketsLeft() {
    EXPECT_TRUE(eventually([&] { return openDescriptors() <= before_ + slack_; }))
        << openDescriptors() << " descriptors, " << before_ << " before";
  }
  NoSocketsLeft(const NoSocketsLeft&) = delete;
  NoSocketsLeft& operator=(const NoSocketsLeft&) = delete;

 private:
  const int slack_;
  int before_ = 0;
};

/// Runs nothing by itself: counts its starts and stops and keeps the requests for the test.
class KeepingDispatcher : public RpcDispatcher {
 public:
  void start() override { ++starts; }
  void stop() override { ++stops; }
  void submit(std::shared_ptr<RpcRequest> request) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    requests_.push_back(std::move(request));
  }
  std::size_t size() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return requests_.size();
  }
  std::vector<std::shared_ptr<RpcRequest>> take() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::move(requests_);
  }

  std::atomic<int> starts{0};
  std::atomic<int> stops{0};

 private:
  std::mutex mutex_;
  std::vector<std::shared_ptr<RpcRequest>> requests_;
};

/// Hears of everything and does nothing; override what a test needs.
class QuietObserver : public RpcBrokerObserver {
 public:
  using Identity = std::vector<std::uint8_t>;
  void onServiceRegistered(const std::string&, const std::string&, bool, const Identity&) override {
  }
  void onServiceUnregistered(const std::string&, const std::string&, bool,
                             const Identity&) override {}
  void onRequest(const std::string&, const std::string&, const std::string&, const void*,
                 std::size_t) override {}
  void onReply(const std::string&, const std::string&, const std::string&, int, const void*,
               std::size_t) override {}
};

/// A call and a registration as they stand on the wire, from a DEALER.
inline Frames request(const std::string& service, const std::string& instance,
                      const std::string& method = "m", const std::string& data = "") {
  return {"", "RS02", bytes("\0", 1), bytes("\0", 1), service, instance, method, data};
}
inline Frames registration(bool offered, const std::string& service, const std::string& instance) {
  return {"", "RS02", "\x02", offered ? "\x01" : bytes("\0", 1), service, instance};
}

/// The answer of a service as it arrives at a DEALER.
inline Frames result(const std::string& data) {
  return {"", "RS02", "\x01", bytes("\0", 1), bytes("\0", 1), data};
}

/// A master as a bare ROUTER: what slaves announce, as it stands on the wire. It reads
/// registrations only; one thread at a time.
class RawMaster {
 public:
  explicit RawMaster(const std::string& at = uniqueInproc()) : endpoint(at) {
    router.set(ZMQ_RCVHWM, 0).bind(endpoint);
  }

  struct Registration {
    std::string identity;
    bool offered = false;
    std::string service;
    std::string instance;
    bool operator==(const Registration& other) const {
      return offered == other.offered && service == other.service && instance == other.instance;
    }
  };

  /// The next one; fails the test and is empty when none comes.
  Registration next() {
    Frames frames = router.receive();
    if (frames.size() != 7) {
      ADD_FAILURE() << "a message of " << frames.size() << " frames";
      return {};
    }
    Registration read{frames[0], frames[4] == "\x01", frames[5], frames[6]};
    frames.erase(frames.begin());
    EXPECT_EQ(frames, registration(read.offered, read.service, read.instance));
    const std::string key = read.service + "/" + read.instance;
    if (read.offered) {
      offered.insert(key);
    } else {
      offered.erase(key);
    }
    return read;
  }
  /// Reads on to this one; false when it does not come.
  bool readTo(bool isOffered, const std::string& service, const std::string& instance) {
    while (true) {
      const Registration read = next();
      if (read.identity.empty()) return false;
      if (read == Registration{"", isOffered, service, instance}) return true;
    }
  }

  const std::string endpoint;
  RawPeer router{ZMQ_ROUTER};
  std::set<std::string> offered;  // what a master would now know, as "service/instance"
};

}  // namespace tessel::test

#endif
