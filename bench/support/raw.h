#ifndef TESSEL_BENCH_SUPPORT_RAW_H
#define TESSEL_BENCH_SUPPORT_RAW_H

#include <zmq.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

/// The yardstick: bare libzmq programs that move the same frames over the same sockets as the
/// library does, and nothing more. They share no code with it, check nothing, and read without
/// polling while messages wait, as one would write them for speed.
namespace tessel::bench::raw {

/// A context with the threads that use it. Ending it is what ends their loops.
class Context {
 public:
  Context();
  /// Every socket of it must be closed.
  ~Context();
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  void* handle() const { return handle_; }
  /// Runs `loop` until a call of it meets the end of the context.
  void run(std::function<void()> loop);
  /// Waits for the threads; nothing can be sent or received any more.
  void end();

 private:
  void* const handle_;
  std::vector<std::thread> threads_;
};

/// A socket with linger 0; used by one thread at a time. Calls throw Ended when the context ends
/// and std::runtime_error for any other failure.
struct Ended {};
class Socket {
 public:
  Socket(Context& context, int type);
  ~Socket();
  Socket(Socket&& other) noexcept;
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  void* handle() const { return handle_; }
  Socket& set(int option, int value);
  Socket& subscribe(const std::string& prefix);
  Socket& bind(const std::string& endpoint);
  Socket& connect(const std::string& endpoint);
  void send(const void* data, std::size_t size, int flags);
  void send(zmq_msg_t& message, int flags);
  /// False when nothing is there and `flags` say not to wait.
  bool receive(zmq_msg_t& message, int flags = 0);

 private:
  void* handle_;
};

/// Waits until one of the sockets can be read.
void poll(std::initializer_list<const Socket*> sockets);

/// The seven frames of a publication: nothing, signature, type, topic, tag, value, options.
struct Publication {
  Publication();
  Publication(const std::string& topic, const std::string& tag, const void* data, std::size_t size);
  ~Publication();
  Publication(const Publication&) = delete;
  Publication& operator=(const Publication&) = delete;

  void send(Socket& socket);
  bool receive(Socket& socket, int flags = 0);

  std::array<zmq_msg_t, 7> frames;
};

using Callback = std::function<void(const void* data, std::size_t size)>;

/// The endpoints of a broker.
struct Endpoints {
  std::string pull;
  std::string updates;
  std::string cache;
};

/// Forwards publications from a PULL as notifications of three frames to a PUB and an XPUB, and
/// answers each subscription of a kept value on the XPUB. It keeps values only if told to.
class Broker {
 public:
  Broker(Context& context, const Endpoints& endpoints, bool keepsValues);
  void run();
  /// One pass: at most one publication and one subscription; waits when there is neither.
  void serveOnce();
  /// Any thread.
  void waitForValues(std::size_t count);

 private:
  bool forward();
  bool greet();
  void keep(const std::string& key);

  Socket pull_;
  Socket pub_;
  Socket xpub_;
  Publication publication_;
  const bool keepsValues_;
  bool idle_ = true;  // the last pass found nothing
  std::unordered_map<std::string, std::string> values_;
  std::atomic<std::size_t> valueCount_{0};  // as far as other threads know
};

/// Receives notifications on a SUB and hands each over to a worker thread, which calls back; the
/// next one is handed over when the call has returned.
class Consumer {
 public:
  Consumer(Context& context, const std::string& endpoint, Callback callback);
  ~Consumer();
  Consumer(const Consumer&) = delete;
  Consumer& operator=(const Consumer&) = delete;

  /// Before run().
  void subscribe(const std::string& prefix) { sub_.subscribe(prefix); }
  void run();

 private:
  void handOver(zmq_msg_t& value);
  void work();

  Socket sub_;
  const Callback callback_;
  std::mutex mutex_;
  std::condition_variable filled_;
  std::condition_variable emptied_;
  std::atomic<bool> full_{false};  // changed under the mutex
  bool ended_ = false;
  zmq_msg_t value_;  // the one handed over, while full
  std::thread worker_;
};

}  // namespace tessel::bench::raw

#endif
