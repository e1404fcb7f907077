#include "transport/thread_socket_cache.h"

#include <memory>

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

ThreadSocketCache::ThreadSocketCache(int socketType) : socketType_(socketType), sockets_(8) {
  sockets_.max_load_factor(1.0F);
}

ZmqSocket& ThreadSocketCache::socketFor(const std::string& endpoint) {
  const auto known = sockets_.find(endpoint);
  if (known != sockets_.end()) return known->second;
  ZmqSocket& socket = sockets_.try_emplace(endpoint, socketType_).first->second;
  socket.connect(endpoint);
  return socket;
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
