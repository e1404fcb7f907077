#ifndef TESSEL_TESTS_SUPPORT_RAW_PEER_H
#define TESSEL_TESTS_SUPPORT_RAW_PEER_H

#include <gtest/gtest.h>
#include <zmq.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "support/deadline.h"
#include "transport/inproc_endpoints.h"
#include "transport/zmq_context.h"

namespace tessel::test {

/// The frames of one message as bytes.
using Frames = std::vector<std::string>;

/// `text` with its NUL bytes, for frames that have them: bytes("\x01\0", 2).
inline std::string bytes(const char* text, std::size_t size) { return std::string(text, size); }

/// An options or flags word as it stands on the wire.
inline std::string word(unsigned long long value) {
  std::string frame;
  for (int i = 0; i < 8; ++i) frame.push_back(static_cast<char>(value >> (8 * i) & 0xFF));
  return frame;
}

/// A bare libzmq socket as the other end of what is tested: it shares no code with the library but
/// what in-process endpoints need, the context and the books of who is bound. One thread at a time.
class RawPeer {
 public:
  explicit RawPeer(int type, void* context = ZmqContext::handle())
      : socket_(zmq_socket(context, type)), hasBooks_(context == ZmqContext::handle()) {
    const int linger = 0;
    EXPECT_NE(socket_, nullptr) << zmq_strerror(zmq_errno());
    set(ZMQ_LINGER, linger);
  }
  ~RawPeer() {
    if (socket_ == nullptr) return;
    for (const std::string& endpoint : inBooks_) {
      InprocEndpoints::instance().unbind(endpoint, [&] { zmq_unbind(socket_, endpoint.c_str()); });
    }
    zmq_close(socket_);
  }
  RawPeer(const RawPeer&) = delete;
  RawPeer& operator=(const RawPeer&) = delete;

  RawPeer& set(int option, int value) {
    EXPECT_EQ(zmq_setsockopt(socket_, option, &value, sizeof value), 0);
    return *this;
  }
  RawPeer& set(int option, const std::string& value) {
    EXPECT_EQ(zmq_setsockopt(socket_, option, value.data(), value.size()), 0);
    return *this;
  }
  RawPeer& connect(const std::string& endpoint) {
    EXPECT_EQ(zmq_connect(socket_, endpoint.c_str()), 0) << zmq_strerror(zmq_errno());
    return *this;
  }
  RawPeer& bind(const std::string& endpoint) {
    const auto bindTo = [&](const std::string& name) {
      return zmq_bind(socket_, name.c_str()) == 0;
    };
    if (hasBooks_ && InprocEndpoints::isInproc(endpoint)) {
      const bool bound = InprocEndpoints::instance().bind(endpoint, bindTo);
      EXPECT_TRUE(bound) << zmq_strerror(zmq_errno());
      if (bound) inBooks_.push_back(endpoint);
    } else {
      EXPECT_TRUE(bindTo(endpoint)) << zmq_strerror(zmq_errno());
    }
    return *this;
  }
  RawPeer& subscribe(const std::string& prefix) { return set(ZMQ_SUBSCRIBE, prefix); }
  RawPeer& unsubscribe(const std::string& prefix) { return set(ZMQ_UNSUBSCRIBE, prefix); }
  void* handle() const { return socket_; }

  void send(const Frames& frames) {
    for (std::size_t i = 0; i < frames.size(); ++i) {
      const int flags = i + 1 < frames.size() ? ZMQ_SNDMORE : 0;
      ASSERT_EQ(zmq_send(socket_, frames[i].data(), frames[i].size(), flags),
                static_cast<int>(frames[i].size()))
          << zmq_strerror(zmq_errno());
    }
  }

  /// The next message; nothing when none comes within the patience.
  std::optional<Frames> tryReceive(std::chrono::milliseconds patience) {
    zmq_pollitem_t item = {socket_, 0, ZMQ_POLLIN, 0};
    const auto deadline = std::chrono::steady_clock::now() + patience;
    do {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (zmq_poll(&item, 1, left.count() > 0 ? static_cast<long>(left.count()) : 0) > 0) {
        return receiveNow();
      }
    } while (std::chrono::steady_clock::now() < deadline);
    return std::nullopt;
  }
  /// The next message; fails the test when none comes.
  Frames receive() {
    std::optional<Frames> frames = tryReceive(kPatience);
    EXPECT_TRUE(frames.has_value()) << "no message came";
    return frames.value_or(Frames());
  }
  /// Whether something can be read right now. To know that nothing was sent, let a marker follow
  /// it and look at what arrives first.
  bool readable() {
    zmq_pollitem_t item = {socket_, 0, ZMQ_POLLIN, 0};
    return zmq_poll(&item, 1, 0) > 0;
  }

 private:
  Frames receiveNow() {
    Frames frames;
    int more = 1;
    while (more != 0) {
      zmq_msg_t message;
      zmq_msg_init(&message);
      if (zmq_msg_recv(&message, socket_, 0) < 0) {
        ADD_FAILURE() << zmq_strerror(zmq_errno());
        more = 0;
      } else {
        frames.emplace_back(static_cast<const char*>(zmq_msg_data(&message)),
                            zmq_msg_size(&message));
        more = zmq_msg_more(&message);
      }
      zmq_msg_close(&message);
    }
    return frames;
  }

  void* socket_;
  const bool hasBooks_;
  std::vector<std::string> inBooks_;
};

}  // namespace tessel::test

#endif
