#ifndef TESSEL_SRC_TRANSPORT_LEFT_SOCKETS_H
#define TESSEL_SRC_TRANSPORT_LEFT_SOCKETS_H

#include <cstddef>
#include <deque>
#include <string>
#include <unordered_map>

#include "transport/mutex.h"
#include "transport/zmq_socket.h"

namespace tessel {

using SocketsByEndpoint = std::unordered_map<std::string, ZmqSocket>;

/// What threads that have ended leave behind: sockets with messages for an in-process endpoint that
/// nobody has bound yet. Within the process a message is not lost with its thread, and these go to
/// whoever binds the endpoint. A few are kept, since each takes a place among the sockets of the
/// process, and perhaps nobody ever will. Any thread.
class LeftSockets {
 public:
  static constexpr std::size_t kMost = 100;
  using Socket = SocketsByEndpoint::node_type;

  static LeftSockets& instance();

  /// Takes over one that waits. The one that was left first goes when there are too many.
  void take(Socket socket) noexcept TESSEL_EXCLUDES(mutex_);
  /// Closes those that wait no more: whoever has bound their endpoint gets what they have sent.
  void closeConnected() TESSEL_EXCLUDES(mutex_);

 private:
  LeftSockets() = default;

  Mutex mutex_;  // taken before the lock of the in-process endpoints
  std::deque<Socket> sockets_ TESSEL_GUARDED_BY(mutex_);
};

}  // namespace tessel

#endif
