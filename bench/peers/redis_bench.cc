// Redis: PUBLISH and SUBSCRIBE by hiredis, and SET for what a kept value takes. It replays nothing
// to those who come late.

#include <hiredis/hiredis.h>

#include <initializer_list>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "peers/support/peer_loads.h"
#include "peers/support/reader_thread.h"
#include "peers/support/server_process.h"
#include "support/try_until.h"

namespace tessel::bench {
namespace {

class Server : public ServerProcess {
 public:
  Server() : Server(freePort()) {}

 private:
  explicit Server(int port)
      : ServerProcess(port, {REDIS_SERVER, kConfiguration},
                      "port " + std::to_string(port) + "\n" +
                          "bind 127.0.0.1\n"
                          "save \"\"\n"
                          "appendonly no\n"
                          "client-output-buffer-limit pubsub 0 0 0\n") {}
};

/// A connection, used by one thread at a time.
class Client {
 public:
  using Reply = std::unique_ptr<redisReply, decltype(&freeReplyObject)>;

  explicit Client(const Server& server)
      : context_(redisConnect("127.0.0.1", server.port()), &redisFree) {
    if (!context_ || context_->err != 0) throw std::runtime_error("no connection to redis");
  }

  int handle() const { return context_->fd; }
  /// Does not wait for the answer.
  void send(std::initializer_list<std::string_view> words) {
    const char* data[4];
    std::size_t sizes[4];
    int count = 0;
    for (const std::string_view word : words) {
      data[count] = word.data();
      sizes[count++] = word.size();
    }
    redisAppendCommandArgv(context_.get(), count, data, sizes);
    int done = 0;
    while (done == 0) check(redisBufferWrite(context_.get(), &done));
  }
  Reply call(std::initializer_list<std::string_view> words) {
    send(words);
    void* reply = nullptr;
    check(redisGetReply(context_.get(), &reply));
    return {static_cast<redisReply*>(reply), &freeReplyObject};
  }
  /// What has come on a connection that subscribes; waits if nothing has.
  void read(const std::function<void(const void*, std::size_t)>& callback) {
    check(redisBufferRead(context_.get()));
    for (;;) {
      void* next = nullptr;
      check(redisGetReplyFromReader(context_.get(), &next));
      if (next == nullptr) return;
      const Reply reply(static_cast<redisReply*>(next), &freeReplyObject);
      // "message", the channel and the value; or the answer to SUBSCRIBE, which ends in a number.
      const redisReply& last = *reply->element[2];
      if (last.type == REDIS_REPLY_STRING) callback(last.str, last.len);
    }
  }

 private:
  void check(int result) const {
    if (result != REDIS_OK) throw std::runtime_error(context_->errstr);
  }

  const std::unique_ptr<redisContext, decltype(&redisFree)> context_;
};

/// A connection whose commands are not answered, so that nobody needs to read from it.
class SilentClient : public Client {
 public:
  explicit SilentClient(const Server& server) : Client(server) { send({"CLIENT", "REPLY", "OFF"}); }
};

std::string_view bytes(const void* data, std::size_t size) {
  return {static_cast<const char*>(data), size};
}

/// A subscription is a connection of its own, since a connection subscribes to a channel only once;
/// one thread reads from all of them.
class RedisPeer {
 public:
  static constexpr const char* kName = "redis";

  RedisPeer(Transport /*only one*/, std::size_t subscriptions, const IndexedCallback& callback) {
    std::vector<int> handles;
    for (std::size_t i = 0; i < subscriptions; ++i) {
      clients_.push_back(std::make_unique<Client>(server_));
      clients_.back()->send({"SUBSCRIBE", channel_});
      handles.push_back(clients_.back()->handle());
    }
    reader_ = std::make_unique<ReaderThread>(handles, [this, callback](std::size_t i) {
      clients_[i]->read([&](const void* data, std::size_t size) { callback(i, data, size); });
    });
  }
  void publish(const void* data, std::size_t size) {
    publisher_.send({"PUBLISH", channel_, bytes(data, size)});
  }

 private:
  const Server server_;
  const std::string channel_ = kTopic + ":" + kTag;
  SilentClient publisher_{server_};
  std::vector<std::unique_ptr<Client>> clients_;
  std::unique_ptr<ReaderThread> reader_;
};

class RedisCache {
 public:
  static constexpr const char* kName = "redis";

  explicit RedisCache(Transport /*only one*/) {}
  std::uint64_t residentBytes() const { return server_.residentBytes(); }
  void fill(int count) {
    const std::string value(kCachedSize, 'x');
    SilentClient publisher(server_);
    for (int i = 0; i < count; ++i) publisher.send({"SET", kTopic + ":" + cachedTag(i), value});
    Client observer(server_);
    tryUntil([&] { return observer.call({"DBSIZE"})->integer == count; },
             "not all values reach redis");
  }

 private:
  const Server server_;
};

}  // namespace
}  // namespace tessel::bench

int main(int argc, char** argv) {
  using namespace tessel::bench;
  registerPeer<RedisPeer>();
  registerPeerMemory<RedisCache>();
  return runBenchmarks(argc, argv);
}
