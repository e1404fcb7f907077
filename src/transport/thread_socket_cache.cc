#include "transport/thread_socket_cache.h"

#include <iterator>
#include <memory>

#include "transport/broker_number.h"
#include "transport/thread_slot.h"

#if defined(_WIN32)
#define TESSEL_THREAD_EXIT_CALL __stdcall
#else
#define TESSEL_THREAD_EXIT_CALL
#endif

namespace tessel {
namespace {

void TESSEL_THREAD_EXIT_CALL closeThreadSockets(void* sockets) {
  delete static_cast<ThreadSockets*>(sockets);
}

}  // namespace

ThreadSocketCache::ThreadSocketCache(int socketType, SendLimit sendLimit)
    : socketType_(socketType), sendLimit_(sendLimit), sockets_(8) {
  sockets_.max_load_factor(1.0F);
}

ZmqSocket& ThreadSocketCache::socketFor(const std::string& endpoint) {
  const auto known = sockets_.find(endpoint);
  if (known != sockets_.end()) {
    // A reconnect that found no socket left has closed this one; otherwise it would stay closed.
    if (known->second.handle() == nullptr) known->second.reconnect();
    return known->second;
  }
  dropDeadSockets();
  const auto made = sockets_.try_emplace(endpoint, socketType_).first;
  ZmqSocket& socket = made->second;
  try {
    if (sendLimit_ == SendLimit::kNone) socket.liftSendLimit();
    socket.connect(endpoint);
  } catch (...) {
    // One that ZeroMQ did not connect is kept, and says so to whoever sends. Any other would be
    // waited on for ever.
    if (!socket.connectFailed()) sockets_.erase(made);
    throw;
  }
  return socket;
}

// A thread that lives long may see many brokers of its process come and go. What was sent to those
// is lost, and whoever asks for their endpoint again gets a fresh socket. What is sent to one that
// has gone for good is lost, too, and is not kept for longer than that.
void ThreadSocketCache::dropDeadSockets() {
  for (auto entry = sockets_.begin(); entry != sockets_.end();) {
    const bool dead = entry->second.peerGone() || BrokerNumber::isRetired(entry->first);
    entry = dead ? sockets_.erase(entry) : std::next(entry);
  }
}

void ThreadSocketCache::leaveWaiting() noexcept {
  dropDeadSockets();
  for (auto entry = sockets_.begin(); entry != sockets_.end();) {
    const auto next = std::next(entry);
    if (entry->second.waitsForBinder()) LeftSockets::instance().take(sockets_.extract(entry));
    entry = next;
  }
}

// Whatever a thread looks at that ends exists from now on: then there may be no memory for it.
ThreadSockets::ThreadSockets() {
  LeftSockets::instance();
  BrokerNumber::isRetired(std::string());
}

ThreadSockets& ThreadSockets::ofThisThread() {
  static ThreadSlot& slot = *new ThreadSlot(closeThreadSockets);  // outlives every thread
  auto* sockets = static_cast<ThreadSockets*>(slot.get());
  if (sockets == nullptr) {
    auto made = std::make_unique<ThreadSockets>();
    slot.set(made.get());
    sockets = made.release();
  }
  return *sockets;
}

}  // namespace tessel
