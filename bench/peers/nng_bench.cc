// Publish and subscribe by nng, with a device between publisher and subscriber as a broker would
// be. It keeps no values.

#include <nng/nng.h>
#include <nng/protocol/pubsub0/pub.h>
#include <nng/protocol/pubsub0/sub.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "peers/support/peer_loads.h"
#include "peers/support/server_process.h"

namespace tessel::bench {
namespace {

// Messages that may wait in each place; what is more would be dropped.
constexpr int kBuffered = 1024;

void check(int result) {
  if (result != 0) throw std::runtime_error(nng_strerror(result));
}

std::string newAddress(Transport transport) {
  static int next = 0;
  return transport == Transport::kTcp ? "tcp://127.0.0.1:" + std::to_string(freePort())
                                      : "inproc://bench" + std::to_string(next++);
}

class Socket {
 public:
  Socket(int (*open)(nng_socket*), const char* buffer) {
    check(open(&socket_));
    check(nng_socket_set_int(socket_, buffer, kBuffered));
  }
  ~Socket() { close(); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  nng_socket get() const { return socket_; }
  void listen(const std::string& address) {
    check(nng_listen(socket_, address.c_str(), nullptr, 0));
  }
  void dial(const std::string& address) { check(nng_dial(socket_, address.c_str(), nullptr, 0)); }
  void close() { nng_close(socket_); }

 private:
  nng_socket socket_{};
};

/// Passes everything on.
class Forwarder {
 public:
  Forwarder(const std::string& input, const std::string& output) {
    in_.listen(input);
    out_.listen(output);
    thread_ = std::thread([this] { nng_device(in_.get(), out_.get()); });
  }
  ~Forwarder() {
    in_.close();
    out_.close();
    thread_.join();
  }

 private:
  Socket in_{nng_sub0_open_raw, NNG_OPT_RECVBUF};
  Socket out_{nng_pub0_open_raw, NNG_OPT_SENDBUF};
  std::thread thread_;
};

/// One subscription: a context of the subscribing socket. Called on nng's own threads.
class Receiver {
 public:
  Receiver(const Socket& socket, const std::string& topic, Callback callback)
      : topicSize_(topic.size()), callback_(std::move(callback)) {
    check(nng_ctx_open(&context_, socket.get()));
    check(nng_ctx_set_int(context_, NNG_OPT_RECVBUF, kBuffered));
    check(nng_ctx_set(context_, NNG_OPT_SUB_SUBSCRIBE, topic.data(), topic.size()));
    check(nng_aio_alloc(
        &operation_, [](void* self) { static_cast<Receiver*>(self)->onMessage(); }, this));
    nng_ctx_recv(context_, operation_);
  }
  ~Receiver() {
    nng_ctx_close(context_);
    nng_aio_free(operation_);
  }
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

 private:
  void onMessage() {
    if (nng_aio_result(operation_) != 0) return;  // closed
    nng_msg* const message = nng_aio_get_msg(operation_);
    callback_(static_cast<const char*>(nng_msg_body(message)) + topicSize_,
              nng_msg_len(message) - topicSize_);
    nng_msg_free(message);
    nng_ctx_recv(context_, operation_);
  }

  const std::size_t topicSize_;
  const Callback callback_;
  nng_ctx context_{};
  nng_aio* operation_ = nullptr;
};

class NngPeer {
 public:
  static constexpr const char* kName = "nng";

  NngPeer(Transport transport, std::size_t subscriptions, const IndexedCallback& callback)
      : NngPeer(newAddress(transport), newAddress(transport)) {
    for (std::size_t i = 0; i < subscriptions; ++i) {
      receivers_.push_back(std::make_unique<Receiver>(
          subscriber_, topic_,
          [=](const void* data, std::size_t size) { callback(i, data, size); }));
    }
  }
  void publish(const void* data, std::size_t size) {
    nng_msg* message = nullptr;
    check(nng_msg_alloc(&message, topic_.size() + size));
    char* const body = static_cast<char*>(nng_msg_body(message));
    std::memcpy(body, topic_.data(), topic_.size());
    std::memcpy(body + topic_.size(), data, size);
    check(nng_sendmsg(publisher_.get(), message, 0));
  }

 private:
  NngPeer(const std::string& input, const std::string& output) : forwarder_(input, output) {
    publisher_.dial(input);
    subscriber_.dial(output);
  }

  const std::string topic_ = kTopic + ":" + kTag + "\n";
  Forwarder forwarder_;
  Socket publisher_{nng_pub0_open, NNG_OPT_SENDBUF};
  Socket subscriber_{nng_sub0_open, NNG_OPT_RECVBUF};
  std::vector<std::unique_ptr<Receiver>> receivers_;
};

}  // namespace
}  // namespace tessel::bench

int main(int argc, char** argv) {
  using namespace tessel::bench;
  registerPeer<NngPeer>({Transport::kTcp, Transport::kInproc});
  return runBenchmarks(argc, argv);
}
