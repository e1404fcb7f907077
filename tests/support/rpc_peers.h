#ifndef TESSEL_TESTS_SUPPORT_RPC_PEERS_H
#define TESSEL_TESTS_SUPPORT_RPC_PEERS_H

#include <gtest/gtest.h>
#include <tessel/rpc_broker.h>
#include <tessel/rpc_dispatcher.h>
#include <tessel/service.h>
#include <zmq.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "support/raw_peer.h"
#include "support/recorders.h"

namespace tessel::test {

using Lines = std::vector<std::string>;

/// What clients, brokers, workers and slaves send, from the signature on.
inline const std::string kNul(1, '\0');
inline Frames requestFrames(const std::string& service, const std::string& instance,
                            const std::string& method, const std::string& payload,
                            const std::string& reserved = kNul) {
  return {"RS02", kNul, reserved, service, instance, method, payload};
}
inline Frames replyFrames(int status, const std::string& payload,
                          const std::string& reserved = kNul) {
  return {"RS02", "\x01", reserved, std::string(1, static_cast<char>(status)), payload};
}
inline Frames registrationFrames(bool registered, const std::string& service,
                                 const std::string& instance) {
  return {"RS02", "\x02", std::string(1, registered ? '\x01' : '\0'), service, instance};
}
/// The same behind an envelope and the empty delimiter, as everything but a REQ sends it.
inline Frames enveloped(Frames envelope, const Frames& message) {
  envelope.emplace_back();
  envelope.insert(envelope.end(), message.begin(), message.end());
  return envelope;
}

/// Binds to a TCP port that the system chooses, and says which.
inline std::string bindTcp(RawPeer& peer) {
  peer.bind("tcp://127.0.0.1:*");
  char endpoint[64] = "";
  std::size_t size = sizeof endpoint;
  EXPECT_EQ(zmq_getsockopt(peer.handle(), ZMQ_LAST_ENDPOINT, endpoint, &size), 0);
  return endpoint;
}

using Buffer = std::unique_ptr<std::uint8_t[]>;

inline void give(const std::string& result, Buffer& out, std::size_t& outSize) {
  out.reset(new std::uint8_t[result.size()]);
  if (!result.empty()) std::memcpy(out.get(), result.data(), result.size());
  outSize = result.size();
}
inline std::string text(const Buffer& out, std::size_t size) {
  return std::string(reinterpret_cast<const char*>(out.get()), size);
}
inline std::string text(const void* data, std::size_t size) {
  return std::string(static_cast<const char*>(data), size);
}

/// A service that does what the test says.
class FunctionService : public Service {
 public:
  using Function = std::function<void(const std::string& method, const void* data, std::size_t size,
                                      Buffer& out, std::size_t& outSize)>;
  FunctionService(const std::string& service, const std::string& instance, Function function)
      : Service(service, instance), function_(std::move(function)) {}
  void callMethod(const std::string& method, const void* data, std::size_t size, Buffer& out,
                  std::size_t& outSize) override {
    function_(method, data, size, out, outSize);
  }

 private:
  const Function function_;
};

inline std::shared_ptr<Service> makeService(const std::string& service, const std::string& instance,
                                            FunctionService::Function function) {
  return std::make_shared<FunctionService>(service, instance, std::move(function));
}
/// Answers with `result`, or throws `error`, whatever it is asked.
inline std::shared_ptr<Service> answering(const std::string& service, const std::string& instance,
                                          const std::string& result) {
  return makeService(service, instance,
                     [result](const std::string&, const void*, std::size_t, Buffer& out,
                              std::size_t& outSize) { give(result, out, outSize); });
}
template <typename Error>
std::shared_ptr<Service> throwing(const std::string& service, const std::string& instance,
                                  const Error& error) {
  return makeService(service, instance,
                     [error](const std::string&, const void*, std::size_t, Buffer&, std::size_t&) {
                       throw error;
                     });
}
/// Answers with "method(payload)".
inline std::shared_ptr<Service> echoing(const std::string& service, const std::string& instance) {
  return makeService(
      service, instance,
      [](const std::string& method, const void* data, std::size_t size, Buffer& out,
         std::size_t& outSize) { give(method + "(" + text(data, size) + ")", out, outSize); });
}

/// Lines such as "registered s i local", "unregistered s i remote <identity>", "request s i m
/// <payload>" and "reply s i m 0 <bytes>", the bytes with their NULs. Then what the hook does.
class RecordingRpcObserver : public RpcBrokerObserver {
 public:
  using Hook = std::function<void(const std::string& line)>;
  explicit RecordingRpcObserver(Hook hook = nullptr) : hook_(std::move(hook)) {}
  Journal journal;

  void onServiceRegistered(const std::string& service, const std::string& instance, bool local,
                           const std::vector<std::uint8_t>& identity) override {
    note("registered " + service + " " + instance + origin(local, identity));
  }
  void onServiceUnregistered(const std::string& service, const std::string& instance, bool local,
                             const std::vector<std::uint8_t>& identity) override {
    note("unregistered " + service + " " + instance + origin(local, identity));
  }
  void onRequest(const std::string& service, const std::string& instance, const std::string& method,
                 const void* data, std::size_t size) override {
    note("request " + service + " " + instance + " " + method + " " + shown(data, size));
  }
  void onReply(const std::string& service, const std::string& instance, const std::string& method,
               int status, const void* data, std::size_t size) override {
    note("reply " + service + " " + instance + " " + method + " " + std::to_string(status) + " " +
         shown(data, size));
  }

 private:
  void note(const std::string& line) {
    journal.add(line);
    if (hook_) hook_(line);
  }
  static std::string origin(bool local, const std::vector<std::uint8_t>& identity) {
    return (local ? " local" : " remote ") + std::string(identity.begin(), identity.end());
  }
  static std::string shown(const void* data, std::size_t size) {
    return data == nullptr ? "null " + std::to_string(size) : text(data, size);
  }

  const Hook hook_;
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

/// "service not found" and other texts as observers get them.
inline std::string withNul(const std::string& line) { return line + kNul; }

/// A dispatcher that runs nothing: the test does, when it wants.
class KeepingDispatcher : public RpcDispatcher {
 public:
  void start() override { ++starts; }
  void stop() override { ++stops; }
  void submit(std::shared_ptr<RpcRequest> request) override {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      kept_.push_back(std::move(request));
    }
    if (onSubmit) onSubmit();
  }
  std::size_t size() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return kept_.size();
  }
  /// The oldest request, no longer kept here; fails the test when none comes.
  std::shared_ptr<RpcRequest> take() {
    if (!eventually([this] { return size() != 0; })) {
      ADD_FAILURE() << "no request came";
      return nullptr;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    std::shared_ptr<RpcRequest> request = std::move(kept_.front());
    kept_.erase(kept_.begin());
    return request;
  }
  /// All requests that there are, no longer kept here.
  std::vector<std::shared_ptr<RpcRequest>> takeAll() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(kept_, {});
  }
  void runOne() {
    if (const std::shared_ptr<RpcRequest> request = take()) request->execute();
  }

  std::atomic<int> starts{0};
  std::atomic<int> stops{0};
  std::function<void()> onSubmit;  // set before the broker starts

 private:
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<RpcRequest>> kept_;
};

inline std::shared_ptr<RpcDispatcher> anyDispatcher() {
  return std::make_shared<KeepingDispatcher>();
}

}  // namespace tessel::test

#endif
