#ifndef TESSEL_TESTS_RPC_LIFE_FIXTURE_H
#define TESSEL_TESTS_RPC_LIFE_FIXTURE_H

#include <tessel/rpc_broker.h>
#include <tessel/rpc_client.h>
#include <tessel/rpc_dispatcher.h>
#include <tessel/service.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/call_outcome.h"
#include "support/deadline.h"
#include "support/endpoints.h"
#include "support/raw_peer.h"
#include "support/resources.h"
#include "support/rpc_peers.h"
#include "support/sleeping_thread.h"
#include "support/threads.h"
#include "support/watchdog.h"

namespace tessel::test {

using std::chrono::milliseconds;

constexpr milliseconds kLong{20000};

/// A service as a function of method and data.
using TextFunction = std::function<std::string(const std::string& method, const std::string& data)>;

inline std::shared_ptr<Service> makeService(const std::string& service, const std::string& instance,
                                            const TextFunction& function) {
  return makeService(
      service, instance,
      [function](const std::string& method, const void* data, std::size_t size, Buffer& out,
                 std::size_t& outSize) { give(function(method, text(data, size)), out, outSize); });
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
  Buffer out;
  std::size_t size = 0;
  client.CallMethod(service, instance, method, data.data(), data.size(), out, size);
  return text(out, size);
}

/// The result, or what went wrong as "timeout", "broker: text", "service: text".
inline std::string outcome(RpcClient& client, const std::string& service,
                           const std::string& instance, const std::string& method = "m",
                           const std::string& data = "") {
  const Ending ending = endingOf([&] { return call(client, service, instance, method, data); });
  if (ending.kind == "result") return ending.text;
  return ending.kind == "timeout" ? ending.kind : ending.kind + ": " + ending.text;
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
    before_ = settledDescriptors();
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

/// A call and a registration as they stand on the wire, from a DEALER.
inline Frames request(const std::string& service, const std::string& instance,
                      const std::string& method = "m", const std::string& data = "") {
  return enveloped({}, requestFrames(service, instance, method, data));
}
inline Frames registration(bool offered, const std::string& service, const std::string& instance) {
  return enveloped({}, registrationFrames(offered, service, instance));
}

/// The answer of a service as it arrives at a DEALER.
inline Frames result(const std::string& data) { return enveloped({}, replyFrames(0, data)); }

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
