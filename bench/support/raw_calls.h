#ifndef TESSEL_BENCH_SUPPORT_RAW_CALLS_H
#define TESSEL_BENCH_SUPPORT_RAW_CALLS_H

#include <zmq.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/raw.h"

/// The yardstick for calls: see raw.h. All answer with the payload that they were sent.
namespace tessel::bench::raw {

/// What all calls ask for.
extern const std::string kService;
extern const std::string kInstance;
extern const std::string kMethod;

/// A request as a ROUTER or a slave receives it: client, nothing, signature, type, reserved,
/// service, instance, method, payload.
class Request {
 public:
  Request();
  ~Request();
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  void receive(Socket& socket, std::size_t firstFrame = 0);
  void send(Socket& socket);
  /// Sends the reply: client, nothing, signature, type, reserved, status, payload.
  void answer(Socket& socket);

  zmq_msg_t& client() { return frames_[0]; }

 private:
  std::array<zmq_msg_t, 9> frames_;
};

/// Four threads that answer requests, each through a DEALER of its own.
class Workers {
 public:
  Workers(Context& context, const std::string& replyEndpoint);
  ~Workers();
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;

  void push(std::unique_ptr<Request> request);

 private:
  void run(Socket& socket);
  std::unique_ptr<Request> next();

  std::mutex mutex_;
  std::condition_variable filled_;
  std::deque<std::unique_ptr<Request>> requests_;
  std::atomic<std::size_t> count_{0};  // of the requests; changed under the mutex
  std::size_t sleeping_ = 0;
  bool ended_ = false;
  std::vector<std::thread> threads_;
};

/// A ROUTER that takes requests from clients and replies from whoever answers them.
class Master {
 public:
  Master(Context& context, const std::string& endpoint);

  /// Answers by its own workers.
  void run();
  /// Waits until the slave says that it is there; before any client calls.
  void awaitSlave();
  /// Passes the requests on to the slave.
  void runForSlave();

 private:
  template <typename Serve>
  void serve(const Serve& serveRequest);

  Socket router_;
  Workers workers_;
  std::string slave_;  // its identity
};

/// Answers what a master passes on.
class Slave {
 public:
  Slave(Context& context, const std::string& endpoint);
  void run();

 private:
  Socket dealer_;
  Workers workers_;
};

/// One thread that answers through a REP: the least there can be.
class RepServer {
 public:
  RepServer(Context& context, const std::string& endpoint);
  void run();

 private:
  Socket rep_;
};

/// A REQ; belongs to one thread.
class Caller {
 public:
  Caller(Context& context, const std::string& endpoint);
  ~Caller();
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;

  /// The payload of the answer is valid until the next call.
  void call(const void* data, std::size_t size);
  const void* data() { return zmq_msg_data(&payload_); }
  std::size_t size() { return zmq_msg_size(&payload_); }

 private:
  Socket req_;
  zmq_msg_t payload_;
};

}  // namespace tessel::bench::raw

#endif
