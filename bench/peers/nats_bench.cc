// NATS by its C client and nats-server. Kept values are those of a JetStream key-value bucket in
// memory.

#include <nats/nats.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "peers/support/peer_loads.h"
#include "peers/support/server_process.h"

namespace tessel::bench {
namespace {

void check(natsStatus status) {
  if (status != NATS_OK) throw std::runtime_error(natsStatus_GetText(status));
}

class Server : public ServerProcess {
 public:
  Server() : Server(freePort()) {}

 private:
  explicit Server(int port)
      : ServerProcess(
            port, {NATS_SERVER, "-a", "127.0.0.1", "-p", std::to_string(port), "-js", "-sd", "."}) {
  }
};

class Connection {
 public:
  explicit Connection(const Server& server) {
    natsOptions* options = nullptr;
    check(natsOptions_Create(&options));
    const std::string url = "nats://127.0.0.1:" + std::to_string(server.port());
    check(natsOptions_SetURL(options, url.c_str()));
    // Otherwise a thread sends after a millisecond, to which the whole window would have to wait.
    check(natsOptions_SetSendAsap(options, true));
    // One thread, which main() asks for, and not one for each subscription.
    check(natsOptions_UseGlobalMessageDelivery(options, true));
    check(natsConnection_Connect(&connection_, options));
    natsOptions_Destroy(options);
  }
  ~Connection() { natsConnection_Destroy(connection_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  natsConnection* get() const { return connection_; }

 private:
  natsConnection* connection_ = nullptr;
};

/// One connection with all subscriptions: the server sends a value once for each.
class NatsPeer {
 public:
  static constexpr const char* kName = "nats";

  NatsPeer(Transport /*only one*/, std::size_t subscriptions, const IndexedCallback& callback)
      : callback_(callback), receivers_(subscriptions) {
    for (std::size_t i = 0; i < subscriptions; ++i) {
      receivers_[i] = {this, i, nullptr};
      check(natsConnection_Subscribe(&receivers_[i].subscription, subscriber_.get(), kSubject,
                                     &NatsPeer::onMessage, &receivers_[i]));
      check(natsSubscription_SetPendingLimits(receivers_[i].subscription, -1, -1));
    }
    check(natsConnection_Flush(subscriber_.get()));
  }
  ~NatsPeer() {
    for (const Receiver& receiver : receivers_) natsSubscription_Destroy(receiver.subscription);
    natsConnection_Close(subscriber_.get());
  }
  void publish(const void* data, std::size_t size) {
    check(natsConnection_Publish(publisher_.get(), kSubject, data, static_cast<int>(size)));
  }

 private:
  static constexpr const char* kSubject = "temperature.outside";

  struct Receiver {
    NatsPeer* peer;
    std::size_t index;
    natsSubscription* subscription;
  };

  static void onMessage(natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
    const auto& receiver = *static_cast<const Receiver*>(closure);
    receiver.peer->callback_(receiver.index, natsMsg_GetData(message),
                             static_cast<std::size_t>(natsMsg_GetDataLength(message)));
    natsMsg_Destroy(message);
  }

  const Server server_;
  const IndexedCallback callback_;
  std::vector<Receiver> receivers_;
  Connection publisher_{server_};
  Connection subscriber_{server_};
};

/// A bucket, and one watcher of all that is in it.
class NatsCache {
 public:
  static constexpr const char* kName = "nats";

  explicit NatsCache(Transport /*only one*/) {
    check(natsConnection_JetStream(&stream_, publisher_.get(), nullptr));
    kvConfig configuration;
    check(kvConfig_Init(&configuration));
    configuration.Bucket = "values";
    configuration.StorageType = js_MemoryStorage;
    check(js_CreateKeyValue(&bucket_, stream_, &configuration));
  }
  ~NatsCache() {
    if (reader_.joinable()) reader_.join();
    kvWatcher_Destroy(watcher_);
    kvStore_Destroy(bucket_);
    jsCtx_Destroy(stream_);
  }
  std::uint64_t residentBytes() const { return server_.residentBytes(); }
  // What kvStore_Put() does, but for waiting for each answer.
  void fill(int count) {
    const std::string value(kCachedSize, 'x');
    for (int i = 0; i < count; ++i) {
      const std::string subject = "$KV.values." + kTopic + "." + cachedTag(i);
      check(js_PublishAsync(stream_, subject.c_str(), value.data(), static_cast<int>(value.size()),
                            nullptr));
    }
    check(js_PublishAsyncComplete(stream_, nullptr));
  }
  void prepare(int count, const Callback& callback) {
    count_ = count;
    callback_ = callback;
  }
  void join() {
    reader_ = std::thread([this] {
      check(kvStore_WatchAll(&watcher_, bucket_, nullptr));
      for (int i = 0; i < count_; ++i) {
        kvEntry* entry = nullptr;
        check(kvWatcher_Next(&entry, watcher_, kTimeoutMilliseconds));
        callback_(kvEntry_Value(entry), static_cast<std::size_t>(kvEntry_ValueLen(entry)));
        kvEntry_Destroy(entry);
      }
    });
  }

 private:
  static constexpr std::int64_t kTimeoutMilliseconds = 60000;

  const Server server_;
  Connection publisher_{server_};
  jsCtx* stream_ = nullptr;
  kvStore* bucket_ = nullptr;
  kvWatcher* watcher_ = nullptr;
  Callback callback_;
  int count_ = 0;
  std::thread reader_;
};

}  // namespace
}  // namespace tessel::bench

int main(int argc, char** argv) {
  using namespace tessel::bench;
  nats_Open(-1);
  nats_SetMessageDeliveryPoolSize(1);
  registerPeer<NatsPeer>();
  registerPeerReplay<NatsCache>("replay_all");
  registerPeerMemory<NatsCache>();
  const int result = runBenchmarks(argc, argv);
  nats_Close();
  return result;
}
