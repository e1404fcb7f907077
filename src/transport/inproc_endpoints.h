#ifndef TESSEL_SRC_TRANSPORT_INPROC_ENDPOINTS_H
#define TESSEL_SRC_TRANSPORT_INPROC_ENDPOINTS_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "transport/mutex.h"

namespace tessel {

/// The books of in-process endpoints: who has bound which, who is connected, and who waits. They
/// make up for two things that ZeroMQ does not do.
///
/// It does not tell a connected socket that its endpoint was closed: such a socket keeps no peer, a
/// blocking send on it never returns, and it is not connected again when the name is bound anew. So
/// an unbind tells those who are in the books.
///
/// And it keeps a socket that connected to a name which nobody had bound, with its place among the
/// 1023 of a context, also after it was closed, until somebody binds the name. Those who take the
/// name over to end that take what others have sent there, too. So a connection to an endpoint that
/// nobody has bound is made to a name of its own, which whoever binds the endpoint binds as well;
/// and who wants to close binds that name itself, which concerns nobody else.
///
/// All sockets that bind in-process names are this library's own, so they report here. One lock
/// covers what is done and its entry in the books: a connection is either told of an unbind or made
/// after it.
class InprocEndpoints {
 public:
  /// One socket's connection to an in-process endpoint. Destroying it takes it off the books.
  class Connection {
   public:
    ~Connection() { instance().forget(*this); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Whether the endpoint has been closed since the connect; to look at before each message.
    bool closed() const { return closed_.load(std::memory_order_acquire); }

   private:
    friend class InprocEndpoints;
    Connection(const std::string& endpoint, std::function<void()> onClosed)
        : endpoint_(endpoint), onClosed_(std::move(onClosed)) {}

    const std::string endpoint_;
    const std::function<void()> onClosed_;
    std::atomic<bool> closed_{false};
    std::string waitingName_;  // under the lock of the books; empty once the endpoint is bound
  };

  static InprocEndpoints& instance();
  /// Not for one without a name, which ZeroMQ refuses.
  static bool isInproc(const std::string& endpoint);

  /// Runs `connect` with the name to connect to; what it throws passes. `onClosed` may be null; it
  /// is called with the lock held, by whoever closes the endpoint: it must do no more than wake.
  /// Both here and in bind() the books are written first, since there may be no memory for it.
  std::unique_ptr<Connection> connect(const std::string& endpoint,
                                      const std::function<void(const std::string&)>& connect,
                                      std::function<void()> onClosed = nullptr)
      TESSEL_EXCLUDES(mutex_);
  /// Runs `bind` with the endpoint and, if that succeeds, counts it as bound and runs `bind` with
  /// the name of each connection that waits for it. Passes the first answer on.
  bool bind(const std::string& endpoint, const std::function<bool(const std::string&)>& bind)
      TESSEL_EXCLUDES(mutex_);
  /// Runs `unbind`, then tells everyone who connected before.
  void unbind(const std::string& endpoint, const std::function<void()>& unbind)
      TESSEL_EXCLUDES(mutex_);
  /// Takes a connection off the books. Returns the name on which its socket still waits for
  /// somebody to bind, and which nobody else will bind any more; empty when it does not wait.
  std::string takeBack(Connection& connection) TESSEL_EXCLUDES(mutex_);
  /// Whether the connection waits for somebody to bind its endpoint.
  bool waits(const Connection& connection) TESSEL_EXCLUDES(mutex_);
  /// Whether a socket of this process is bound to the endpoint right now.
  bool isBound(const std::string& endpoint) TESSEL_EXCLUDES(mutex_);

 private:
  struct Endpoint {
    bool bound = false;
    std::vector<Connection*> connections;  // since it was last closed; they take themselves off
  };

  InprocEndpoints() = default;
  void forget(const Connection& connection) TESSEL_EXCLUDES(mutex_);
  void remove(const Connection& connection) TESSEL_REQUIRES(mutex_);
  void dropIfUnused(const std::string& endpoint) TESSEL_REQUIRES(mutex_);

  Mutex mutex_;  // taken before the lock of whatever is told of a close
  // Only what is bound or connected to, so that a name costs nothing once neither is left.
  std::unordered_map<std::string, Endpoint> endpoints_ TESSEL_GUARDED_BY(mutex_);
  std::uint64_t nextWaitingName_ TESSEL_GUARDED_BY(mutex_) = 0;
};

}  // namespace tessel

#endif
