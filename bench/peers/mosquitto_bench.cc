// MQTT by libmosquitto and the mosquitto broker, with quality of service 0: as here, TCP is what
// nothing gets lost by. Kept values are retained messages.

#include <mosquitto.h>
#include <poll.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "peers/support/peer_loads.h"
#include "peers/support/reader_thread.h"
#include "peers/support/server_process.h"
#include "support/try_until.h"

namespace tessel::bench {
namespace {

constexpr bool kRetain = true;

void check(int result) {
  if (result != MOSQ_ERR_SUCCESS) throw std::runtime_error(mosquitto_strerror(result));
}

std::string topicOf(const std::string& tag) { return kTopic + "/" + tag; }

class Server : public ServerProcess {
 public:
  Server() : Server(freePort()) {}

 private:
  // Nothing is refused or dropped for being too much.
  explicit Server(int port)
      : ServerProcess(port, {MOSQUITTO, "-c", kConfiguration},
                      "listener " + std::to_string(port) + " 127.0.0.1\n" +
                          "allow_anonymous true\n"
                          "persistence false\n"
                          "log_type error\n"
                          "max_queued_messages 0\n"
                          "set_tcp_nodelay true\n"
                          "sys_interval 0\n") {}
};

/// A connection, used by one thread at a time. What it gets it hands to `callback`.
class Client {
 public:
  explicit Client(const Server& server, Callback callback = {})
      : client_(mosquitto_new(nullptr, true, this)), callback_(std::move(callback)) {
    constexpr int kKeepAliveSeconds = 65535;
    mosquitto_message_callback_set(
        client_, [](mosquitto*, void* self, const mosquitto_message* message) {
          static_cast<Client*>(self)->callback_(message->payload,
                                                static_cast<std::size_t>(message->payloadlen));
        });
    check(mosquitto_int_option(client_, MOSQ_OPT_TCP_NODELAY, 1));
    check(mosquitto_connect(client_, "127.0.0.1", server.port(), kKeepAliveSeconds));
  }
  ~Client() { mosquitto_destroy(client_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  int handle() const { return mosquitto_socket(client_); }
  void read() { check(mosquitto_loop_read(client_, 1)); }
  void subscribe(const std::vector<std::string>& topics) {
    std::vector<char*> patterns;
    for (const std::string& topic : topics) patterns.push_back(const_cast<char*>(topic.c_str()));
    check(mosquitto_subscribe_multiple(client_, nullptr, static_cast<int>(patterns.size()),
                                       patterns.data(), 0, 0, nullptr));
    flush();
  }
  void publish(const std::string& topic, const void* data, std::size_t size, bool retain = false) {
    check(mosquitto_publish(client_, nullptr, topic.c_str(), static_cast<int>(size), data, 0,
                            retain));
    flush();
  }

 private:
  void flush() {
    while (mosquitto_want_write(client_)) {
      pollfd writable{handle(), POLLOUT, 0};
      poll(&writable, 1, -1);
      check(mosquitto_loop_write(client_, 1));
    }
  }

  mosquitto* const client_;
  const Callback callback_;
};

/// A subscription is a client of its own, since a client has one callback for all of them; one
/// thread reads for all clients.
class MosquittoPeer {
 public:
  static constexpr const char* kName = "mosquitto";

  MosquittoPeer(Transport /*only one*/, std::size_t subscriptions,
                const IndexedCallback& callback) {
    std::vector<int> handles;
    for (std::size_t i = 0; i < subscriptions; ++i) {
      clients_.push_back(std::make_unique<Client>(
          server_, [=](const void* data, std::size_t size) { callback(i, data, size); }));
      clients_.back()->subscribe({topic_});
      handles.push_back(clients_.back()->handle());
    }
    reader_ =
        std::make_unique<ReaderThread>(handles, [this](std::size_t i) { clients_[i]->read(); });
  }
  void publish(const void* data, std::size_t size) { publisher_.publish(topic_, data, size); }

 private:
  const Server server_;
  const std::string topic_ = topicOf(kTag);
  Client publisher_{server_};
  std::vector<std::unique_ptr<Client>> clients_;
  std::unique_ptr<ReaderThread> reader_;
};

/// Retained messages, for a client that subscribes to each by its name or to all by a wildcard.
template <bool kByName>
class MosquittoCache {
 public:
  static constexpr const char* kName = "mosquitto";

  explicit MosquittoCache(Transport /*only one*/) {}
  std::uint64_t residentBytes() const { return server_.residentBytes(); }
  void fill(int count) {
    const std::string value(kCachedSize, 'x');
    for (int i = 0; i < count; ++i) {
      publisher_.publish(topicOf(cachedTag(i)), value.data(), value.size(), kRetain);
    }
    waitForServer();
  }
  void prepare(int count, const Callback& callback) {
    if (kByName) {
      for (int i = 0; i < count; ++i) topics_.push_back(topicOf(cachedTag(i)));
    } else {
      topics_.push_back(topicOf("#"));
    }
    consumer_ = std::make_unique<Client>(server_, callback);
  }
  void join() {
    consumer_->subscribe(topics_);
    reader_ = std::make_unique<ReaderThread>(std::vector<int>{consumer_->handle()},
                                             [this](std::size_t) { consumer_->read(); });
  }

 private:
  // What a client publishes is read in order: when the last message is back, all others are there.
  void waitForServer() {
    bool back = false;
    Client fence(server_, [&](const void*, std::size_t) { back = true; });
    fence.subscribe({"fence"});
    const auto comesBack = [&] {
      publisher_.publish("fence", "", 0);
      pollfd readable{fence.handle(), POLLIN, 0};
      if (poll(&readable, 1, 5) == 1) fence.read();
      return back;
    };
    tryUntil(comesBack, "nothing comes back from mosquitto");
  }

  const Server server_;
  Client publisher_{server_};
  std::unique_ptr<Client> consumer_;
  std::vector<std::string> topics_;
  std::unique_ptr<ReaderThread> reader_;
};

}  // namespace
}  // namespace tessel::bench

int main(int argc, char** argv) {
  using namespace tessel::bench;
  mosquitto_lib_init();
  registerPeer<MosquittoPeer>();
  registerPeerReplay<MosquittoCache<true>>("replay");
  registerPeerReplay<MosquittoCache<false>>("replay_all");
  registerPeerMemory<MosquittoCache<false>>();
  return runBenchmarks(argc, argv);
}
