#include "transport/zmq_socket.h"

#include <zmq.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <limits>
#include <thread>
#include <utility>

#include "transport/zmq_context.h"
#include "transport/zmq_error.h"

namespace tessel {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kRecentClose{1000};
constexpr std::chrono::milliseconds kBindPatience{100};
constexpr std::chrono::milliseconds kBindInterval{1};
// How often a sender that waits looks whether its in-process peer has gone meanwhile.
constexpr long kSendPollMilliseconds = 20;

// When this process last closed a bound socket, in ticks of the clock.
std::atomic<Clock::rep> lastBoundClose{std::numeric_limits<Clock::rep>::min()};

bool closedRecently(Clock::time_point now) {
  const Clock::rep closed = lastBoundClose.load();
  return closed != std::numeric_limits<Clock::rep>::min() &&
         now - Clock::time_point(Clock::duration(closed)) < kRecentClose;
}

}  // namespace

ZmqSocket::ZmqSocket(int type) : type_(type) { create(); }

ZmqSocket::ZmqSocket(int type, const std::string& endpoint) : ZmqSocket(type) { connect(endpoint); }

ZmqSocket::~ZmqSocket() { close(); }

void ZmqSocket::create() {
  close();
  handle_ = zmq_socket(ZmqContext::handle(), type_);
  if (handle_ == nullptr) throwZmqError();
  try {
    setOption(ZMQ_LINGER, 0);
    setOption(ZMQ_RCVTIMEO, receiveTimeout_);
  } catch (...) {
    close();  // the constructor has not finished, so no destructor would
    throw;
  }
}

void ZmqSocket::connect(const std::string& endpoint) {
  endpoint_ = endpoint;
  peerClosed_.reset();
  connectError_ = 0;
  const auto connectNow = [this] {
    if (zmq_connect(handle_, endpoint_.c_str()) == 0) return;
    connectError_ = zmq_errno();
    throwZmqError(connectError_);
  };
  if (InprocEndpoints::isInproc(endpoint_)) {
    peerClosed_ = InprocEndpoints::instance().connect(endpoint_, connectNow);
  } else {
    connectNow();
  }
}

void ZmqSocket::bind(const std::string& endpoint) {
  const Clock::time_point begun = Clock::now();
  while (!tryBind(endpoint)) {
    const int error = zmq_errno();
    const Clock::time_point now = Clock::now();
    if (error != EADDRINUSE || !closedRecently(now) || now - begun >= kBindPatience) {
      throwZmqError(error);
    }
    std::this_thread::sleep_for(kBindInterval);
  }
}

bool ZmqSocket::tryBind(const std::string& endpoint) {
  if (InprocEndpoints::isInproc(endpoint)) {
    if (!InprocEndpoints::instance().bind(
            endpoint, [&] { return zmq_bind(handle_, endpoint.c_str()) == 0; })) {
      return false;
    }
    boundEndpoints_.push_back(endpoint);
    return true;
  }
  if (zmq_bind(handle_, endpoint.c_str()) != 0) return false;
  char resolved[1024];  // a wildcard port or address has become a real one
  std::size_t size = sizeof resolved;
  if (zmq_getsockopt(handle_, ZMQ_LAST_ENDPOINT, resolved, &size) != 0) throwZmqError();
  boundEndpoints_.emplace_back(resolved);
  return true;
}

void ZmqSocket::setReceiveTimeout(std::int64_t milliseconds) {
  receiveTimeout_ = milliseconds > std::numeric_limits<std::int32_t>::max()
                        ? -1
                        : static_cast<std::int32_t>(milliseconds);
  setOption(ZMQ_RCVTIMEO, receiveTimeout_);
}

void ZmqSocket::setOption(int option, const void* value, std::size_t size) {
  if (zmq_setsockopt(handle_, option, value, size) != 0) throwZmqError();
}

bool ZmqSocket::send(ZmqFrame& frame, int flags) {
  if (zmq_msg_send(frame.raw(), handle_, flags) >= 0) return true;
  if (zmq_errno() == EAGAIN) return false;
  throwZmqError();
}

bool ZmqSocket::send(std::shared_ptr<ZmqFrame>&& frame, int flags) {
  const std::shared_ptr<ZmqFrame> sent = std::move(frame);
  return send(*sent, flags);
}

bool ZmqSocket::receive(ZmqFrame& frame, int flags) {
  if (zmq_msg_recv(frame.raw(), handle_, flags) >= 0) return true;
  if (zmq_errno() == EAGAIN) return false;
  throwZmqError();
}

bool ZmqSocket::receive(const std::shared_ptr<ZmqFrame>& frame, int flags) {
  return receive(*frame, flags);
}

void ZmqSocket::discardPending() {
  zmq_pollitem_t item = {handle_, 0, ZMQ_POLLIN, 0};
  int ready = 0;
  do {
    ready = zmq_poll(&item, 1, 0);
  } while (ready < 0 && zmq_errno() == EINTR);
  if (ready < 0) throwZmqError();
  if (ready == 0) return;
  ZmqFrame dropped;
  while (receive(dropped, 0) && dropped.more()) {
  }
}

void ZmqSocket::ensureConnected() {
  if (connectError_ != 0) throwZmqError(connectError_);
  if (peerClosed_ != nullptr && peerClosed_->load(std::memory_order_acquire)) reconnect();
}

void ZmqSocket::sendFirst(ZmqFrame& frame, int flags) {
  ensureConnected();
  while (!send(frame, flags | ZMQ_DONTWAIT)) {
    waitWritable();
    ensureConnected();
  }
}

bool ZmqSocket::sendFirstUnlessAbandoned(ZmqFrame& frame, int flags) {
  ensureConnected();
  while (!send(frame, flags | ZMQ_DONTWAIT)) {
    if (peerClosed_ != nullptr && !InprocEndpoints::instance().isBound(endpoint_)) return false;
    waitWritable();
    ensureConnected();
  }
  return true;
}

void ZmqSocket::waitWritable() {
  zmq_pollitem_t item = {handle_, 0, ZMQ_POLLOUT, 0};
  if (zmq_poll(&item, 1, kSendPollMilliseconds) < 0 && zmq_errno() != EINTR) throwZmqError();
}

void ZmqSocket::reconnect() {
  create();
  connect(endpoint_);
}

void ZmqSocket::unbindAll() {
  for (const std::string& endpoint : boundEndpoints_) {
    // Failing is harmless: the close that follows releases the endpoint, only later.
    const auto unbindNow = [&] { zmq_unbind(handle_, endpoint.c_str()); };
    if (InprocEndpoints::isInproc(endpoint)) {
      InprocEndpoints::instance().unbind(endpoint, unbindNow);
    } else {
      unbindNow();
    }
  }
  boundEndpoints_.clear();
}

void ZmqSocket::close() {
  if (handle_ == nullptr) return;
  const bool wasBound = !boundEndpoints_.empty();
  unbindAll();
  zmq_close(handle_);
  handle_ = nullptr;
  if (wasBound) lastBoundClose.store(Clock::now().time_since_epoch().count());
}

}  // namespace tessel
