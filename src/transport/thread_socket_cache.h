#ifndef TESSEL_SRC_TRANSPORT_THREAD_SOCKET_CACHE_H
#define TESSEL_SRC_TRANSPORT_THREAD_SOCKET_CACHE_H

#include <zmq.h>

#include <cstddef>
#include <string>

#include "transport/left_sockets.h"
#include "transport/zmq_socket.h"

namespace tessel {

/// One thread's connected sockets of one type, by endpoint; made on first use, closed with the
/// cache.
class ThreadSocketCache {
 public:
  enum class SendLimit { kDefault, kNone };
  explicit ThreadSocketCache(int socketType, SendLimit sendLimit = SendLimit::kDefault);
  ThreadSocketCache(const ThreadSocketCache&) = delete;
  ThreadSocketCache& operator=(const ThreadSocketCache&) = delete;

  /// The thread's socket for `endpoint`. A failed connect throws and keeps the unconnected socket,
  /// so that later calls return it without trying again; nothing is kept when the socket itself
  /// could not be made.
  ZmqSocket& socketFor(const std::string& endpoint);
  /// Closes the thread's socket for `endpoint`, if there is one.
  void close(const std::string& endpoint) { sockets_.erase(endpoint); }
  /// Leaves those to LeftSockets that wait for somebody to bind their endpoint.
  void leaveWaiting() noexcept;
  std::size_t size() const { return sockets_.size(); }

 private:
  void dropDeadSockets();

  const int socketType_;
  const SendLimit sendLimit_;
  SocketsByEndpoint sockets_;
};

/// The sockets of the calling thread, a cache for each use that application threads and workers
/// have for them. They are closed when the thread ends, those of publishers first. What publishers
/// have queued for a broker of the process that is not there yet is left for it.
struct ThreadSockets {
  ThreadSockets();
  ~ThreadSockets() { publishers.leaveWaiting(); }
  ThreadSockets(const ThreadSockets&) = delete;
  ThreadSockets& operator=(const ThreadSockets&) = delete;

  static ThreadSockets& ofThisThread();

  // Destroyed in reverse order.
  ThreadSocketCache registrations{ZMQ_PUSH};
  ThreadSocketCache replies{ZMQ_DEALER, ThreadSocketCache::SendLimit::kNone};
  ThreadSocketCache clients{ZMQ_REQ};
  ThreadSocketCache publishers{ZMQ_PUSH};
};

}  // namespace tessel

#endif
