#ifndef TESSEL_TESTS_SUPPORT_SOCKET_BUDGET_H
#define TESSEL_TESTS_SUPPORT_SOCKET_BUDGET_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <zmq.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <iterator>
#include <thread>
#include <vector>

#include "support/deadline.h"
#include "support/raw_peer.h"
#include "transport/zmq_context.h"

namespace tessel::test {

/// Takes every socket that the process's context still has to give (1023 in all). They are given
/// back when it is gone, a moment later: ZeroMQ closes in the background.
class SocketBudget {
 public:
  SocketBudget() {
    raiseFileLimit();
    // Those of before that are still being closed become free a moment later.
    auto last = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - last < kQuiet) {
      if (void* socket = zmq_socket(ZmqContext::handle(), ZMQ_PAIR)) {
        taken_.push_back(socket);
        last = std::chrono::steady_clock::now();
      } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
  }
  ~SocketBudget() {
    for (void* socket : taken_) zmq_close(socket);
  }
  SocketBudget(const SocketBudget&) = delete;
  SocketBudget& operator=(const SocketBudget&) = delete;

 private:
  static constexpr std::chrono::milliseconds kQuiet{300};

  // Every socket takes a file descriptor; their limit must not come first.
  static void raiseFileLimit() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, std::min<rlim_t>(limit.rlim_max, 8192));
    setrlimit(RLIMIT_NOFILE, &limit);
  }

  std::vector<void*> taken_;
};

/// Counts the sockets that the process opens and has not closed, by the file descriptor that each
/// takes. TCP and ipc take more of them, so it is for sockets on in-process names. ZeroMQ keeps a
/// closed one until its peer has noticed, so somebody has to be bound and to be looked at.
class OpenSockets {
 public:
  /// Waits until those of before are closed, then counts from here.
  OpenSockets() {
    awaitClosing();
    std::ptrdiff_t last = -1;
    while (last != openFiles()) {
      last = openFiles();
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    before_ = last;
  }

  /// Whether there are `expected` more in the end: ZeroMQ closes in the background.
  bool become(std::ptrdiff_t expected) const {
    return eventually([&] { return openFiles() - before_ == expected; });
  }
  /// The same for sockets connected to `peer`.
  bool become(std::ptrdiff_t expected, RawPeer& peer) const {
    return eventually([&] {
      peer.readable();  // lets it notice who has gone
      return openFiles() - before_ == expected;
    });
  }

 private:
  // The context opens files of its own with its first socket, and closes in turn in the background.
  static void awaitClosing() {
    void* socket = zmq_socket(ZmqContext::handle(), ZMQ_PAIR);
    int descriptor = -1;
    std::size_t size = sizeof descriptor;
    zmq_getsockopt(socket, ZMQ_FD, &descriptor, &size);
    zmq_close(socket);
    EXPECT_TRUE(eventually([&] { return fcntl(descriptor, F_GETFD) == -1; }));
  }

  static std::ptrdiff_t openFiles() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
  }

  std::ptrdiff_t before_;
};

}  // namespace tessel::test

#endif
