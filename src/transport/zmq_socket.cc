#include "transport/zmq_socket.h"

#include <zmq.h>

#include <cerrno>
#include <chrono>
#include <limits>
#include <utility>

#include "transport/close_time.h"
#include "transport/left_sockets.h"
#include "transport/seeded_rand.h"
#include "transport/zmq_context.h"
#include "transport/zmq_error.h"

namespace tessel {
namespace {

// How often a sender that waits looks whether its in-process peer has gone meanwhile.
constexpr long kSendPollMilliseconds = 20;

// For sockets that are closed in the background. On a busy machine ZeroMQ's thread that does so has
// been seen to need more than a tenth of a second for a thousand of them.
constexpr std::chrono::milliseconds kSocketPatience{1000};
// Somebody else may have the endpoint just as well.
constexpr std::chrono::milliseconds kEndpointPatience{100};

CloseTime lastClose;
CloseTime lastCloseOfBound;

// Repeats a call of ZeroMQ that a signal handler interrupted. Also one that does not wait can be:
// it looks at the socket's mailbox, and the system does not tell the two apart.
template <typename Call>
int uninterrupted(const Call& call) {
  int result = 0;
  do {
    result = call();
  } while (result < 0 && zmq_errno() == EINTR);
  return result;
}

}  // namespace

ZmqSocket::ZmqSocket(int type) : type_(type) { create(); }

ZmqSocket::ZmqSocket(int type, const std::string& endpoint) : ZmqSocket(type) { connect(endpoint); }

ZmqSocket::~ZmqSocket() { close(); }

void ZmqSocket::create() {
  close();
  receivingMore_ = false;
  void* const context = ZmqContext::handle();
  const auto make = [&] { handle_ = zmq_socket(context, type_); };
  lastClose.insist(EMFILE, kSocketPatience, [&] {
    if (type_ == ZMQ_ROUTER) {
      withSeededRand(make);
    } else {
      make();
    }
    return handle_ != nullptr;
  });
  try {
    setOption(ZMQ_LINGER, 0);
    setOption(ZMQ_RCVTIMEO, receiveTimeout_);
    if (sendLimitLifted_) setOption(ZMQ_SNDHWM, kNoHighWaterMark);
  } catch (...) {
    close();  // the constructor has not finished, so no destructor would
    throw;
  }
}

void ZmqSocket::connect(const std::string& endpoint) {
  connectError_ = 0;
  leavePeer();
  endpoint_ = endpoint;
  const auto connectTo = [this](const std::string& name) {
    if (uninterrupted([&] { return zmq_connect(handle_, name.c_str()); }) == 0) return;
    connectError_ = zmq_errno();
    throwZmqError(connectError_);
  };
  if (InprocEndpoints::isInproc(endpoint_)) {
    inproc_ = InprocEndpoints::instance().connect(endpoint_, connectTo, onPeerGone_);
  } else {
    connectTo(endpoint_);
  }
}

void ZmqSocket::connectAgainIfPeerGone() {
  if (peerGone()) connect(endpoint_);
}

// A socket that waits for somebody to bind would wait on after it was closed. It ends that by
// binding what it waits for itself, and then is connected to itself.
void ZmqSocket::leavePeer() {
  if (inproc_ == nullptr) return;
  const std::string name = InprocEndpoints::instance().takeBack(*inproc_);
  inproc_.reset();
  if (!name.empty()) uninterrupted([&] { return zmq_bind(handle_, name.c_str()); });
}

void ZmqSocket::bind(const std::string& endpoint) {
  lastCloseOfBound.insist(EADDRINUSE, kEndpointPatience, [&] { return tryBind(endpoint); });
}

bool ZmqSocket::tryBind(const std::string& endpoint) {
  const auto bindTo = [this](const std::string& name) {
    return uninterrupted([&] { return zmq_bind(handle_, name.c_str()); }) == 0;
  };
  // Memory first: what is bound in the process and not in the list would never be unbound.
  LeftSockets& left = LeftSockets::instance();
  std::string bound = endpoint;
  boundEndpoints_.reserve(boundEndpoints_.size() + 1);
  if (InprocEndpoints::isInproc(endpoint)) {
    if (!InprocEndpoints::instance().bind(endpoint, bindTo)) return false;
    left.closeConnected();
  } else {
    if (!bindTo(endpoint)) return false;
    char resolved[1024];  // a wildcard port or address has become a real one
    std::size_t size = sizeof resolved;
    if (zmq_getsockopt(handle_, ZMQ_LAST_ENDPOINT, resolved, &size) != 0) throwZmqError();
    bound = resolved;
  }
  boundEndpoints_.push_back(std::move(bound));
  return true;
}

void ZmqSocket::setReceiveTimeout(std::int64_t milliseconds) {
  const int timeout = milliseconds > std::numeric_limits<std::int32_t>::max()
                          ? -1
                          : static_cast<std::int32_t>(milliseconds);
  if (timeout == receiveTimeout_) return;  // callers set it before each call
  setOption(ZMQ_RCVTIMEO, timeout);
  receiveTimeout_ = timeout;
}

void ZmqSocket::liftSendLimit() {
  setOption(ZMQ_SNDHWM, kNoHighWaterMark);
  sendLimitLifted_ = true;
}

void ZmqSocket::setOption(int option, const void* value, std::size_t size) {
  if (zmq_setsockopt(handle_, option, value, size) != 0) throwZmqError();
}

bool ZmqSocket::send(ZmqFrame& frame, int flags) {
  if (uninterrupted([&] { return zmq_msg_send(frame.raw(), handle_, flags); }) >= 0) return true;
  if (zmq_errno() == EAGAIN) return false;
  throwZmqError();
}

bool ZmqSocket::send(std::shared_ptr<ZmqFrame>&& frame, int flags) {
  const std::shared_ptr<ZmqFrame> sent = std::move(frame);
  return send(*sent, flags);
}

bool ZmqSocket::receive(ZmqFrame& frame, int flags) {
  const auto receiveNow = [&] { return zmq_msg_recv(frame.raw(), handle_, flags); };
  // The frames of a message come together, so only the first is ever waited for.
  const bool endedBySignals =
      !waitsThroughSignals_ && (flags & ZMQ_DONTWAIT) == 0 && !receivingMore_;
  if ((endedBySignals ? receiveNow() : uninterrupted(receiveNow)) >= 0) {
    receivingMore_ = frame.more();
    return true;
  }
  if (zmq_errno() == EAGAIN) return false;
  // When the peer goes before the last frame of a request, ZeroMQ drops the request, says that it
  // was sent, and takes the wait for its reply for a mistake.
  if (zmq_errno() == EFSM && peerGone()) return false;
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

void ZmqSocket::discardWaiting() {
  ZmqFrame dropped;
  while (receive(dropped, ZMQ_DONTWAIT)) {
  }
}

void ZmqSocket::ensureConnected() {
  if (connectError_ != 0) throwZmqError(connectError_);
  // Also when the last reconnect got no socket.
  if (handle_ == nullptr || peerGone()) reconnect();
}

bool ZmqSocket::peerGone() const { return inproc_ != nullptr && inproc_->closed(); }

bool ZmqSocket::waitsForBinder() const {
  return inproc_ != nullptr && InprocEndpoints::instance().waits(*inproc_);
}

bool ZmqSocket::sendFirstNow(ZmqFrame& frame, int flags) {
  const auto sendNow = [&] { return zmq_msg_send(frame.raw(), handle_, flags | ZMQ_DONTWAIT); };
  if (uninterrupted(sendNow) >= 0) return true;
  if (zmq_errno() == EAGAIN) return false;
  if (zmq_errno() != EFSM) throwZmqError();
  reconnect();  // a request socket whose last call was interrupted before its reply
  return send(frame, flags | ZMQ_DONTWAIT);
}

bool ZmqSocket::isAbandoned() const {
  return inproc_ != nullptr && !InprocEndpoints::instance().isBound(endpoint_);
}

bool ZmqSocket::sendFirst(ZmqFrame& frame, int flags, WhenFull whenFull) {
  ensureConnected();
  while (!sendFirstNow(frame, flags)) {
    if (whenFull == WhenFull::kGiveUpIfAbandoned && isAbandoned()) return false;
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
  try {
    connect(endpoint_);
  } catch (...) {
    // Without memory ZeroMQ was not even asked: nobody must take it for connected and wait.
    if (!connectFailed()) close();
    throw;
  }
}

void ZmqSocket::unbindAll() {
  for (const std::string& endpoint : boundEndpoints_) {
    // Nothing that can be done about a failure: the close that follows releases the endpoint later.
    const auto unbindNow = [&] {
      uninterrupted([&] { return zmq_unbind(handle_, endpoint.c_str()); });
    };
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
  leavePeer();
  zmq_close(handle_);
  handle_ = nullptr;
  lastClose.note();
  if (wasBound) lastCloseOfBound.note();
}

}  // namespace tessel
