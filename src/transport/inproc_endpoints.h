#ifndef TESSEL_SRC_TRANSPORT_INPROC_ENDPOINTS_H
#define TESSEL_SRC_TRANSPORT_INPROC_ENDPOINTS_H

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "transport/mutex.h"

namespace tessel {

/// Tells connected sockets that the in-process endpoint they connected to has been closed.
///
/// ZeroMQ does not: such a socket keeps no peer, a blocking send on it never returns, and it is not
/// connected again when the name is bound anew. All sockets that bind in-process names are this
/// library's own, so they report here. One lock covers a connect with its entry in the books, and
/// an unbind with the message to those entered; a connection is therefore either told or made
/// after the unbind, and waits for the next binder.
class InprocEndpoints {
 public:
  /// True once the endpoint has been closed since the connect; shared by those that connected.
  using ClosedFlag = std::shared_ptr<const std::atomic<bool>>;

  static InprocEndpoints& instance();
  static bool isInproc(const std::string& endpoint);

  /// Runs `connect` and returns the flag to look at before each message. What it throws passes.
  /// Both here and in bind() the books are written first, since there may be no memory for it.
  ClosedFlag connect(const std::string& endpoint, const std::function<void()>& connect)
      TESSEL_EXCLUDES(mutex_);
  /// Runs `bind` and, if that succeeds, counts the name as bound; passes its answer on.
  bool bind(const std::string& endpoint, const std::function<bool()>& bind) TESSEL_EXCLUDES(mutex_);
  /// Runs `unbind`, then tells everyone who connected before.
  void unbind(const std::string& endpoint, const std::function<void()>& unbind)
      TESSEL_EXCLUDES(mutex_);
  /// Runs `takeOver`, which binds and unbinds a socket of its own, then tells everyone who
  /// connected before; in one step, so that the name never seems bound. Nothing when it is.
  void releaseOrphans(const std::string& endpoint, const std::function<void()>& takeOver)
      TESSEL_EXCLUDES(mutex_);
  /// Whether a socket of this process is bound to the name right now.
  bool isBound(const std::string& endpoint) TESSEL_EXCLUDES(mutex_);

 private:
  // Those who connected to one name since it was last closed. Takes its name off the books when the
  // last of them has gone, for which it takes the lock: it is never released under it.
  class Connected {
   public:
    explicit Connected(const std::string& endpoint) : endpoint_(endpoint) {}
    ~Connected() { instance().forget(endpoint_); }
    Connected(const Connected&) = delete;
    Connected& operator=(const Connected&) = delete;

    std::atomic<bool> closed{false};

   private:
    const std::string endpoint_;
  };

  InprocEndpoints() = default;
  std::shared_ptr<Connected> tellClosed(const std::string& endpoint) TESSEL_REQUIRES(mutex_);
  void forget(const std::string& endpoint) TESSEL_EXCLUDES(mutex_);

  Mutex mutex_;
  // Weak, so that a name costs nothing once no socket is connected to it.
  std::unordered_map<std::string, std::weak_ptr<Connected>> connected_ TESSEL_GUARDED_BY(mutex_);
  std::unordered_set<std::string> bound_ TESSEL_GUARDED_BY(mutex_);
};

}  // namespace tessel

#endif
