#include "transport/thread_socket_cache.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <zmq.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "support/deadline.h"
#include "support/endpoints.h"
#include "support/raw_peer.h"
#include "support/resources.h"
#include "support/socket_budget.h"
#include "support/zmq_errors.h"

namespace tessel::test {
namespace {

int option(const ZmqSocket& socket, int name) {
  int value = -12345;
  std::size_t size = sizeof value;
  EXPECT_EQ(zmq_getsockopt(socket.handle(), name, &value, &size), 0);
  return value;
}

void sendText(ZmqSocket& socket, const std::string& text) {
  ZmqFrame frame(text);
  socket.sendFirst(frame, 0);
}

// Which connections a bound socket has seen come and go.
class ConnectionMonitor {
 public:
  explicit ConnectionMonitor(RawPeer& watched) : events_(ZMQ_PAIR) {
    const std::string endpoint = uniqueInproc();
    EXPECT_EQ(zmq_socket_monitor(watched.handle(), endpoint.c_str(),
                                 ZMQ_EVENT_ACCEPTED | ZMQ_EVENT_DISCONNECTED),
              0);
    events_.connect(endpoint);
  }
  /// The next event, ZMQ_EVENT_ACCEPTED or ZMQ_EVENT_DISCONNECTED.
  int next() {
    const Frames frames = events_.receive();
    std::uint16_t event = 0;
    if (!frames.empty()) std::memcpy(&event, frames[0].data(), sizeof event);
    return event;
  }

 private:
  RawPeer events_;
};

// ---- ThreadSocketCache

TEST(ThreadSocketCache, MakesSocketsOfItsType) {
  for (const int type : {ZMQ_PUSH, ZMQ_REQ, ZMQ_DEALER}) {
    ThreadSocketCache cache(type);
    const std::string endpoint = uniqueInproc();
    ZmqSocket& socket = cache.socketFor(endpoint);
    EXPECT_EQ(socket.type(), type);
    EXPECT_EQ(option(socket, ZMQ_TYPE), type);
    EXPECT_EQ(option(socket, ZMQ_LINGER), 0);
    EXPECT_EQ(option(socket, ZMQ_RCVTIMEO), -1);
    EXPECT_EQ(socket.endpoint(), endpoint);
  }
}

TEST(ThreadSocketCache, ReturnsTheSameSocketAgain) {
  ThreadSocketCache cache(ZMQ_PUSH);
  const std::string endpoint = uniqueInproc();
  EXPECT_EQ(cache.size(), 0U);
  ZmqSocket* const socket = &cache.socketFor(endpoint);
  void* const handle = socket->handle();
  EXPECT_EQ(cache.size(), 1U);
  // References stay good while the cache grows.
  for (int i = 0; i < 30; ++i) EXPECT_NE(&cache.socketFor(uniqueInproc()), socket);
  EXPECT_EQ(cache.size(), 31U);
  EXPECT_EQ(&cache.socketFor(endpoint), socket);
  EXPECT_EQ(socket->handle(), handle);
  EXPECT_EQ(cache.size(), 31U);
}

TEST(ThreadSocketCache, ConnectsToTheEndpoint) {
  const std::string endpoint = uniqueInproc();
  RawPeer peer(ZMQ_PULL);
  peer.bind(endpoint);
  ThreadSocketCache cache(ZMQ_PUSH);
  sendText(cache.socketFor(endpoint), "a");
  sendText(cache.socketFor(endpoint), "b");
  EXPECT_EQ(peer.receive(), Frames{"a"});
  EXPECT_EQ(peer.receive(), Frames{"b"});
}

TEST(ThreadSocketCache, ClosesItsSockets) {
  RawPeer peer(ZMQ_ROUTER);
  const std::string endpoints[] = {uniqueInproc(), uniqueInproc(), uniqueInproc()};
  for (const std::string& endpoint : endpoints) peer.bind(endpoint);
  const OpenSockets sockets;
  {
    ThreadSocketCache cache(ZMQ_DEALER);
    for (const std::string& endpoint : endpoints) cache.socketFor(endpoint);
    EXPECT_TRUE(sockets.become(3, peer));
  }
  EXPECT_TRUE(sockets.become(0, peer));
}

TEST(ThreadSocketCache, KeepsASocketThatCouldNotConnectAndDoesNotTryAgain) {
  ThreadSocketCache cache(ZMQ_PUSH);
  EXPECT_ZMQ_ERROR(cache.socketFor("foo://bar"), EPROTONOSUPPORT);
  EXPECT_EQ(cache.size(), 1U);
  ZmqSocket* const kept = &cache.socketFor("foo://bar");  // throws no more
  EXPECT_EQ(cache.size(), 1U);
  EXPECT_NE(kept->handle(), nullptr);
  EXPECT_EQ(&cache.socketFor("foo://bar"), kept);
  EXPECT_EQ(zmqErrorOf([&] { sendText(*kept, "a"); }), "Protocol not supported");
}

TEST(ThreadSocketCache, KeepsNothingWhenTheSocketCouldNotBeMade) {
  const std::string endpoint = uniqueInproc();
  RawPeer peer(ZMQ_PULL);
  peer.bind(endpoint);
  ThreadSocketCache cache(ZMQ_PUSH);
  {
    const SocketBudget everySocket;
    EXPECT_ZMQ_ERROR(cache.socketFor(endpoint), EMFILE);
    EXPECT_EQ(cache.size(), 0U);
  }
  EXPECT_TRUE(eventually(
      [&] { return zmqErrorOf([&] { cache.socketFor(endpoint); }) == "nothing thrown"; }));
  EXPECT_EQ(cache.size(), 1U);
  sendText(cache.socketFor(endpoint), "connected");
  EXPECT_EQ(peer.receive(), Frames{"connected"});
}

TEST(ThreadSocketCache, DropsThoseWhosePeerHasGoneWhenItGrows) {
  const std::string kept = uniqueInproc();
  RawPeer peer(ZMQ_PULL);
  peer.bind(kept);
  ThreadSocketCache cache(ZMQ_PUSH);
  ZmqSocket* const alive = &cache.socketFor(kept);
  for (int round = 0; round < 20; ++round) {
    const std::string name = uniqueInproc();
    ZmqSocket binder(ZMQ_PULL);
    binder.bind(name);
    cache.socketFor(name);
    EXPECT_EQ(cache.size(), 2U);
  }
  EXPECT_EQ(&cache.socketFor(kept), alive);
}

TEST(ThreadSocketCache, SendsWithoutALimitOnlyWhenToldSo) {
  ThreadSocketCache limited(ZMQ_DEALER);
  EXPECT_EQ(option(limited.socketFor(uniqueInproc()), ZMQ_SNDHWM), 1000);
  ThreadSocketCache unlimited(ZMQ_DEALER, ThreadSocketCache::SendLimit::kNone);
  EXPECT_EQ(option(unlimited.socketFor(uniqueInproc()), ZMQ_SNDHWM), 0);
}

// ---- ThreadSockets

TEST(ThreadSockets, HaveACacheForEachUse) {
  std::thread([] {
    const std::string endpoint = uniqueInproc();
    ThreadSockets& sockets = ThreadSockets::ofThisThread();
    EXPECT_EQ(&ThreadSockets::ofThisThread(), &sockets);
    EXPECT_EQ(sockets.publishers.socketFor(endpoint).type(), ZMQ_PUSH);
    EXPECT_EQ(sockets.clients.socketFor(endpoint).type(), ZMQ_REQ);
    EXPECT_EQ(sockets.replies.socketFor(endpoint).type(), ZMQ_DEALER);
    EXPECT_EQ(sockets.registrations.socketFor(endpoint).type(), ZMQ_PUSH);
    // Replies must never be held up by a broker that is slow to pass them on.
    EXPECT_EQ(option(sockets.replies.socketFor(endpoint), ZMQ_SNDHWM), 0);
    EXPECT_EQ(option(sockets.publishers.socketFor(endpoint), ZMQ_SNDHWM), 1000);
    EXPECT_NE(&sockets.publishers.socketFor(endpoint), &sockets.registrations.socketFor(endpoint));
    EXPECT_EQ(sockets.publishers.size(), 1U);
  }).join();
}

TEST(ThreadSockets, AreNeverSharedBetweenThreads) {
  const std::string endpoint = uniqueInproc();
  constexpr std::size_t kThreads = 8;
  std::vector<void*> handles(kThreads);
  std::vector<ThreadSockets*> sockets(kThreads);
  Gate everyoneHasOne;
  std::atomic<std::size_t> ready{0};
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      sockets[i] = &ThreadSockets::ofThisThread();
      handles[i] = sockets[i]->publishers.socketFor(endpoint).handle();
      ++ready;
      everyoneHasOne.pass();  // all alive at once, so none can reuse another's memory
      EXPECT_EQ(&ThreadSockets::ofThisThread(), sockets[i]);
      EXPECT_EQ(sockets[i]->publishers.socketFor(endpoint).handle(), handles[i]);
    });
  }
  EXPECT_TRUE(eventually([&] { return ready.load() == kThreads; }));
  everyoneHasOne.open();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::set<void*>(handles.begin(), handles.end()).size(), kThreads);
  EXPECT_EQ(std::set<ThreadSockets*>(sockets.begin(), sockets.end()).size(), kThreads);
}

TEST(ThreadSockets, AreClosedWhenTheThreadEnds) {
  const std::string endpoints[] = {uniqueInproc(), uniqueInproc()};
  RawPeer peer(ZMQ_ROUTER);  // of any type: only who is connected matters
  for (const std::string& endpoint : endpoints) peer.bind(endpoint);
  const OpenSockets open;
  for (int round = 0; round < 3; ++round) {
    Gate counted;
    std::thread thread([&] {
      ThreadSockets& sockets = ThreadSockets::ofThisThread();
      for (ThreadSocketCache* cache :
           {&sockets.publishers, &sockets.clients, &sockets.replies, &sockets.registrations}) {
        for (const std::string& endpoint : endpoints) cache->socketFor(endpoint);
      }
      counted.pass();
    });
    EXPECT_TRUE(open.become(8, peer));
    counted.open();
    thread.join();
    EXPECT_TRUE(open.become(0, peer));
  }
}

TEST(ThreadSockets, DoNotRunOutHoweverManyThreadsThereWere) {
  const std::string endpoint = uniqueInproc();
  RawPeer peer(ZMQ_PULL);
  peer.bind(endpoint);
  ClosingPace pace;
  for (int i = 0; i < 1100; ++i) {  // more than a process can have sockets
    std::thread([&] {
      sendText(ThreadSockets::ofThisThread().publishers.socketFor(endpoint), "a");
    }).join();
    ASSERT_EQ(peer.receive(), Frames{"a"}) << i;
    pace.keep();
  }
}

TEST(ThreadSockets, ABoundPeerSeesThemGoWithTheirThread) {
  const std::string endpoint = freeTcp();
  RawPeer peer(ZMQ_PULL);
  ConnectionMonitor connections(peer);
  peer.bind(endpoint);
  Gate seen;
  std::thread thread([&] {
    sendText(ThreadSockets::ofThisThread().publishers.socketFor(endpoint), "a");
    seen.pass();
  });
  EXPECT_EQ(connections.next(), ZMQ_EVENT_ACCEPTED);
  EXPECT_EQ(peer.receive(), Frames{"a"});
  seen.open();
  thread.join();
  EXPECT_EQ(connections.next(), ZMQ_EVENT_DISCONNECTED);
}

// An application's object that still has something to send when its thread ends.
class LastWords {
 public:
  std::function<void()> say;
  ~LastWords() {
    if (say) say();
  }
};
thread_local LastWords lastWords;

TEST(ThreadSockets, ServeAThreadLocalObjectThatIsDestroyedWhenTheThreadEnds) {
  const std::string endpoint = uniqueInproc();
  RawPeer peer(ZMQ_PULL);
  peer.bind(endpoint);
  const OpenSockets open;
  for (const bool usedBefore : {true, false}) {
    std::thread([&] {
      // Made before the thread's sockets, and so destroyed after any thread_local of the library.
      auto before = std::make_shared<void*>(nullptr);
      lastWords.say = [&endpoint, before] {
        ZmqSocket& socket = ThreadSockets::ofThisThread().publishers.socketFor(endpoint);
        EXPECT_TRUE(*before == nullptr || socket.handle() == *before);
        sendText(socket, "last words");
      };
      if (usedBefore) {
        *before = ThreadSockets::ofThisThread().publishers.socketFor(endpoint).handle();
      }
    }).join();
    EXPECT_EQ(peer.receive(), Frames{"last words"});
    EXPECT_TRUE(open.become(0, peer));
  }
}

TEST(ThreadSockets, AreMadeAnewForWhoeverComesAfterTheyWereClosed) {
  static std::string endpoint;
  endpoint = uniqueInproc();
  RawPeer peer(ZMQ_PULL);
  peer.bind(endpoint);
  const OpenSockets open;
  std::thread([] { ThreadSockets::ofThisThread(); }).join();  // their slot comes first
  // Slots are freed in the order in which they were made: this one after the sockets are closed.
  pthread_key_t key{};
  ASSERT_EQ(pthread_key_create(&key,
                               [](void*) {
                                 ThreadSockets& sockets = ThreadSockets::ofThisThread();
                                 EXPECT_EQ(sockets.publishers.size(), 0U);
                                 sendText(sockets.publishers.socketFor(endpoint), "very last");
                               }),
            0);
  std::thread([&] {
    sendText(ThreadSockets::ofThisThread().publishers.socketFor(endpoint), "first");
    ASSERT_EQ(pthread_setspecific(key, &key), 0);
  }).join();
  EXPECT_EQ(peer.receive(), Frames{"first"});
  EXPECT_EQ(peer.receive(), Frames{"very last"});
  EXPECT_TRUE(open.become(0, peer));
  pthread_key_delete(key);
}

TEST(ThreadSockets, TheirMessagesReachTheNextBinderOfTheName) {
  const std::string endpoint = uniqueInproc();
  std::thread([&] {
    for (int round = 0; round < 200; ++round) {
      ZmqSocket binder(ZMQ_PULL);
      binder.bind(endpoint);
      binder.setReceiveTimeout(std::chrono::milliseconds(kPatience).count());
      sendText(ThreadSockets::ofThisThread().publishers.socketFor(endpoint), "a");
      ZmqFrame frame;
      ASSERT_TRUE(binder.receive(frame, 0)) << round;
    }
    EXPECT_EQ(ThreadSockets::ofThisThread().publishers.size(), 1U);
  }).join();
}

}  // namespace
}  // namespace tessel::test
