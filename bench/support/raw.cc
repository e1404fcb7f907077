#include "support/raw.h"

#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <stdexcept>
#include <utility>

#include "support/try_until.h"

namespace tessel::bench::raw {
namespace {

constexpr std::size_t kTopic = 3;
constexpr std::size_t kTag = 4;
constexpr std::size_t kValue = 5;

constexpr std::uint64_t kKeepInCache = 1;
constexpr std::uint64_t kLive = 0;
constexpr std::uint64_t kReplayed = 1;

constexpr int kReplayHighWaterMark = 1000000;

[[noreturn]] void fail() {
  if (zmq_errno() == ETERM) throw Ended();
  throw std::runtime_error(zmq_strerror(zmq_errno()));
}

void check(int result) {
  if (result < 0) fail();
}

// Waking a thread that sleeps takes longer than most callbacks; the library avoids it likewise.
template <typename Condition>
void giveWayUntil(const Condition& condition) {
  for (int i = 0; i < 10 && !condition(); ++i) std::this_thread::yield();
}

const char* bytesOf(zmq_msg_t& message) { return static_cast<const char*>(zmq_msg_data(&message)); }

std::string textOf(zmq_msg_t& message) {
  return std::string(bytesOf(message), zmq_msg_size(&message));
}

void fill(zmq_msg_t& message, const void* data, std::size_t size) {
  check(zmq_msg_init_size(&message, size));
  std::memcpy(zmq_msg_data(&message), data, size);
}

// Key and flags are small enough to be copied by ZeroMQ without an allocation.
void notify(Socket& socket, const std::string& key, zmq_msg_t& value, const std::uint64_t& flags) {
  socket.send(key.data(), key.size(), ZMQ_SNDMORE);
  socket.send(value, ZMQ_SNDMORE);
  socket.send(&flags, sizeof flags, 0);
}

// Key, value and flags.
class Notification {
 public:
  Notification() {
    for (zmq_msg_t& frame : frames_) zmq_msg_init(&frame);
  }
  ~Notification() {
    for (zmq_msg_t& frame : frames_) zmq_msg_close(&frame);
  }
  Notification(const Notification&) = delete;
  Notification& operator=(const Notification&) = delete;

  /// False when none is there.
  bool receive(Socket& socket) {
    if (!socket.receive(frames_[0], ZMQ_DONTWAIT)) return false;
    socket.receive(frames_[1]);
    socket.receive(frames_[2]);
    return true;
  }
  zmq_msg_t& value() { return frames_[1]; }

 private:
  std::array<zmq_msg_t, 3> frames_;
};

}  // namespace

Context::Context() : handle_(zmq_ctx_new()) {}

Context::~Context() {
  end();
  zmq_ctx_term(handle_);
}

void Context::end() {
  zmq_ctx_shutdown(handle_);
  for (std::thread& thread : threads_) thread.join();
  threads_.clear();
}

void Context::run(std::function<void()> loop) {
  threads_.emplace_back([loop = std::move(loop)] {
    try {
      loop();
    } catch (const Ended&) {
    }
  });
}

Socket::Socket(Context& context, int type) : handle_(zmq_socket(context.handle(), type)) {
  if (handle_ == nullptr) fail();
  set(ZMQ_LINGER, 0);
}

Socket::~Socket() {
  if (handle_ != nullptr) zmq_close(handle_);
}

Socket::Socket(Socket&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}

Socket& Socket::set(int option, int value) {
  check(zmq_setsockopt(handle_, option, &value, sizeof value));
  return *this;
}

Socket& Socket::subscribe(const std::string& prefix) {
  check(zmq_setsockopt(handle_, ZMQ_SUBSCRIBE, prefix.data(), prefix.size()));
  return *this;
}

Socket& Socket::bind(const std::string& endpoint) {
  check(zmq_bind(handle_, endpoint.c_str()));
  return *this;
}

Socket& Socket::connect(const std::string& endpoint) {
  check(zmq_connect(handle_, endpoint.c_str()));
  return *this;
}

void Socket::send(const void* data, std::size_t size, int flags) {
  check(zmq_send(handle_, data, size, flags));
}

void Socket::send(zmq_msg_t& message, int flags) { check(zmq_msg_send(&message, handle_, flags)); }

bool Socket::receive(zmq_msg_t& message, int flags) {
  if (zmq_msg_recv(&message, handle_, flags) >= 0) return true;
  if (zmq_errno() == EAGAIN) return false;
  fail();
}

void poll(std::initializer_list<const Socket*> sockets) {
  std::array<zmq_pollitem_t, 4> items{};
  int count = 0;
  for (const Socket* socket : sockets) {
    items.at(static_cast<std::size_t>(count++)) = {socket->handle(), 0, ZMQ_POLLIN, 0};
  }
  check(zmq_poll(items.data(), count, -1));
}

Publication::Publication() {
  for (zmq_msg_t& frame : frames) zmq_msg_init(&frame);
}

Publication::Publication(const std::string& topic, const std::string& tag, const void* data,
                         std::size_t size) {
  zmq_msg_init(&frames[0]);
  fill(frames[1], "RS02", 4);
  fill(frames[2], "\x03", 1);
  fill(frames[kTopic], topic.data(), topic.size());
  fill(frames[kTag], tag.data(), tag.size());
  fill(frames[kValue], data, size);
  fill(frames[6], &kKeepInCache, sizeof kKeepInCache);
}

Publication::~Publication() {
  for (zmq_msg_t& frame : frames) zmq_msg_close(&frame);
}

void Publication::send(Socket& socket) {
  for (std::size_t i = 0; i + 1 < frames.size(); ++i) socket.send(frames[i], ZMQ_SNDMORE);
  socket.send(frames.back(), 0);
}

bool Publication::receive(Socket& socket, int flags) {
  if (!socket.receive(frames[0], flags)) return false;
  for (std::size_t i = 1; i < frames.size(); ++i) socket.receive(frames[i]);
  return true;
}

Broker::Broker(Context& context, const Endpoints& endpoints, bool keepsValues)
    : pull_(context, ZMQ_PULL),
      pub_(context, ZMQ_PUB),
      xpub_(context, ZMQ_XPUB),
      keepsValues_(keepsValues) {
  xpub_.set(ZMQ_XPUB_VERBOSE, 1).set(ZMQ_SNDHWM, kReplayHighWaterMark).set(ZMQ_RCVHWM, 0);
  pub_.set(ZMQ_RCVHWM, 0);
  pull_.bind(endpoints.pull);
  pub_.bind(endpoints.updates);
  xpub_.bind(endpoints.cache);
}

void Broker::run() {
  while (true) serveOnce();
}

void Broker::serveOnce() {
  if (idle_) poll({&pull_, &xpub_, &pub_});
  const bool forwarded = forward();
  const bool greeted = greet();
  idle_ = !forwarded && !greeted;
}

bool Broker::forward() {
  if (!publication_.receive(pull_, ZMQ_DONTWAIT)) return false;
  const std::string key =
      textOf(publication_.frames[kTopic]) + ":" + textOf(publication_.frames[kTag]);
  if (keepsValues_) keep(key);
  zmq_msg_t again;
  zmq_msg_init(&again);
  zmq_msg_copy(&again, &publication_.frames[kValue]);
  notify(pub_, key, publication_.frames[kValue], kLive);
  notify(xpub_, key, again, kLive);
  return true;
}

void Broker::keep(const std::string& key) {
  values_[key] = textOf(publication_.frames[kValue]);
  valueCount_ = values_.size();
}

void Broker::waitForValues(std::size_t count) {
  tryUntil([&] { return valueCount_ >= count; }, "not all values reach the broker");
}

bool Broker::greet() {
  zmq_msg_t message;
  zmq_msg_init(&message);
  const bool received = xpub_.receive(message, ZMQ_DONTWAIT);
  if (received && bytesOf(message)[0] == 1) {
    const std::string key(bytesOf(message) + 1, zmq_msg_size(&message) - 1);
    const auto kept = values_.find(key);
    if (kept != values_.end()) {
      zmq_msg_t value;
      fill(value, kept->second.data(), kept->second.size());
      notify(xpub_, key, value, kReplayed);
    }
  }
  zmq_msg_close(&message);
  return received;
}

Consumer::Consumer(Context& context, const std::string& endpoint, Callback callback)
    : sub_(context, ZMQ_SUB), callback_(std::move(callback)) {
  sub_.set(ZMQ_SNDHWM, 0).set(ZMQ_RCVHWM, kReplayHighWaterMark).connect(endpoint);
  zmq_msg_init(&value_);
  worker_ = std::thread([this] { work(); });
}

Consumer::~Consumer() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ended_ = true;
    filled_.notify_one();
  }
  worker_.join();
  zmq_msg_close(&value_);
}

void Consumer::run() {
  Notification notification;
  while (true) {
    if (notification.receive(sub_)) {
      handOver(notification.value());
    } else {
      poll({&sub_});
    }
  }
}

void Consumer::handOver(zmq_msg_t& value) {
  giveWayUntil([this] { return !full_; });
  std::unique_lock<std::mutex> lock(mutex_);
  emptied_.wait(lock, [this] { return !full_; });
  zmq_msg_move(&value_, &value);
  full_ = true;
  filled_.notify_one();
}

void Consumer::work() {
  while (true) {
    giveWayUntil([this] { return full_.load(); });
    std::unique_lock<std::mutex> lock(mutex_);
    filled_.wait(lock, [this] { return full_ || ended_; });
    if (ended_) return;
    lock.unlock();
    callback_(zmq_msg_data(&value_), zmq_msg_size(&value_));
    lock.lock();
    full_ = false;
    emptied_.notify_one();
  }
}

}  // namespace tessel::bench::raw
