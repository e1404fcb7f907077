// What happens when ZeroMQ refuses what it hardly ever does. In a program of its own, since it
// stands in for the functions of libzmq and lets a chosen call of the test's thread fail. It also
// sees which sockets a thread closes, and when.

#include <gtest/gtest.h>
#include <tessel/rpc_error.h>
#include <zmq.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "messages/message_publish.h"
#include "messages/message_reply.h"
#include "messages/message_request.h"
#include "messages/value_notification.h"
#include "support/endpoints.h"
#include "support/raw_peer.h"
#include "support/socket_budget.h"
#include "support/stand_in.h"
#include "support/threads.h"
#include "support/zmq_errors.h"
#include "transport/poll_set.h"
#include "transport/thread_socket_cache.h"
#include "transport/zmq_context.h"
#include "transport/zmq_event.h"
#include "transport/zmq_socket.h"

namespace {

using tessel::test::real;

// The calls of one function that fail: after so many that do not, so many in a row.
struct Failure {
  std::string function;
  int error = 0;
  int after = 0;
  int times = 0;
};
thread_local Failure failure;

// Of the polls of the thread, in milliseconds.
thread_local std::set<long> pollTimeouts;

// Where closed sockets are noted; null while nobody wants to know.
std::atomic<std::vector<void*>*> closedSockets{nullptr};

bool fails(const char* function) {
  if (failure.times == 0 || failure.function != function) return false;
  if (failure.after > 0) {
    --failure.after;
    return false;
  }
  --failure.times;
  errno = failure.error;
  return true;
}

}  // namespace

// The names of the parameters do not matter, their types are those of zmq.h.
extern "C" {

void* zmq_ctx_new() {
  if (fails("zmq_ctx_new")) return nullptr;
  return real("zmq_ctx_new", &zmq_ctx_new)();
}
void* zmq_socket(void* context, int type) {
  if (fails("zmq_socket")) return nullptr;
  return real("zmq_socket", &zmq_socket)(context, type);
}
int zmq_close(void* socket) {
  if (std::vector<void*>* const noted = closedSockets) noted->push_back(socket);
  return real("zmq_close", &zmq_close)(socket);
}
int zmq_setsockopt(void* socket, int option, const void* value, size_t size) {
  if (fails("zmq_setsockopt")) return -1;
  return real("zmq_setsockopt", &zmq_setsockopt)(socket, option, value, size);
}
int zmq_getsockopt(void* socket, int option, void* value, size_t* size) {
  if (fails("zmq_getsockopt")) return -1;
  return real("zmq_getsockopt", &zmq_getsockopt)(socket, option, value, size);
}
int zmq_bind(void* socket, const char* endpoint) {
  if (fails("zmq_bind")) return -1;
  return real("zmq_bind", &zmq_bind)(socket, endpoint);
}
int zmq_unbind(void* socket, const char* endpoint) {
  if (fails("zmq_unbind")) return -1;
  return real("zmq_unbind", &zmq_unbind)(socket, endpoint);
}
int zmq_connect(void* socket, const char* endpoint) {
  if (fails("zmq_connect")) return -1;
  return real("zmq_connect", &zmq_connect)(socket, endpoint);
}
int zmq_poll(zmq_pollitem_t* items, int count, long timeout) {
  pollTimeouts.insert(timeout);
  if (fails("zmq_poll")) return -1;
  return real("zmq_poll", &zmq_poll)(items, count, timeout);
}
int zmq_msg_init_size(zmq_msg_t* message, size_t size) {
  if (fails("zmq_msg_init_size")) return -1;
  return real("zmq_msg_init_size", &zmq_msg_init_size)(message, size);
}
int zmq_msg_init_data(zmq_msg_t* message, void* data, size_t size, zmq_free_fn* release,
                      void* hint) {
  if (fails("zmq_msg_init_data")) return -1;
  return real("zmq_msg_init_data", &zmq_msg_init_data)(message, data, size, release, hint);
}
int zmq_msg_copy(zmq_msg_t* target, zmq_msg_t* source) {
  if (fails("zmq_msg_copy")) return -1;
  return real("zmq_msg_copy", &zmq_msg_copy)(target, source);
}
int zmq_msg_send(zmq_msg_t* message, void* socket, int flags) {
  if (fails("zmq_msg_send")) return -1;
  return real("zmq_msg_send", &zmq_msg_send)(message, socket, flags);
}
int zmq_msg_recv(zmq_msg_t* message, void* socket, int flags) {
  if (fails("zmq_msg_recv")) return -1;
  return real("zmq_msg_recv", &zmq_msg_recv)(message, socket, flags);
}

}  // extern "C"

namespace tessel::test {
namespace {

// Lets calls of `function` fail while it exists.
class Failing {
 public:
  Failing(const char* function, int error, int after = 0, int times = 1) {
    failure = {function, error, after, times};
  }
  ~Failing() { failure = Failure(); }
  Failing(const Failing&) = delete;
  Failing& operator=(const Failing&) = delete;
  bool used() const { return failure.times == 0; }
};

// ---- the context and sockets

TEST(ZmqFailures, WithoutAContextTheZmqTextIsThrownAndTheNextUseTriesAgain) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process without a context yet
  EXPECT_EXIT(
      {
        std::string thrown;
        {
          const Failing failing("zmq_ctx_new", EMFILE);
          thrown = zmqErrorOf([] { ZmqSocket(ZMQ_PULL); });
        }
        const bool thenWorks = zmqErrorOf([] { ZmqSocket(ZMQ_PULL); }) == "nothing thrown";
        std::_Exit(thrown == zmq_strerror(EMFILE) && thenWorks ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(ZmqFailures, ASocketWhoseOptionsAreRefusedIsClosed) {
  const OpenSockets sockets;
  for (const int after : {0, 1}) {
    const Failing failing("zmq_setsockopt", ENOMEM, after);
    EXPECT_ZMQ_ERROR(ZmqSocket(ZMQ_PULL), ENOMEM);
    EXPECT_TRUE(failing.used());
  }
  EXPECT_TRUE(sockets.become(0));
}

TEST(ZmqFailures, ABindWhoseEndpointCannotBeReadThrows) {
  ZmqSocket socket(ZMQ_PULL);
  const Failing failing("zmq_getsockopt", EINVAL);
  EXPECT_ZMQ_ERROR(socket.bind("tcp://127.0.0.1:*"), EINVAL);
}

TEST(ZmqFailures, AReconnectThatGotNoSocketIsMadeUpForByTheNextMessage) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket sender(ZMQ_PUSH, endpoint);
  ZmqSocket(ZMQ_PULL).bind(endpoint);
  ZmqSocket binder(ZMQ_PULL);
  binder.bind(endpoint);
  ZmqFrame frame(std::string("a"));
  {
    const Failing failing("zmq_socket", ENOMEM, 0, 2);
    EXPECT_ZMQ_ERROR(sender.sendFirst(frame, 0), ENOMEM);
    EXPECT_ZMQ_ERROR(sender.sendFirst(frame, 0, WhenFull::kGiveUpIfAbandoned), ENOMEM);
  }
  sender.sendFirst(frame, 0);
  ZmqFrame received;
  binder.setReceiveTimeout(std::chrono::milliseconds(kPatience).count());
  ASSERT_TRUE(binder.receive(received, 0));
  EXPECT_EQ(received.toString(), "a");
}

TEST(ZmqFailures, ASocketThatCouldNotBeMadeAnewIsMadeWhenItIsNextAskedFor) {
  const std::string endpoint = uniqueInproc();
  RawPeer server(ZMQ_ROUTER);
  server.bind(endpoint);
  ThreadSocketCache cache(ZMQ_REQ);
  cache.socketFor(endpoint).setReceiveTimeout(77);
  {
    const Failing failing("zmq_socket", ENOMEM, 0, 2);
    EXPECT_ZMQ_ERROR(cache.socketFor(endpoint).reconnect(), ENOMEM);
    EXPECT_ZMQ_ERROR(cache.socketFor(endpoint), ENOMEM);
  }
  ZmqSocket& client = cache.socketFor(endpoint);
  EXPECT_EQ(cache.size(), 1U);
  EXPECT_EQ(client.receiveTimeout(), 77);
  client.setReceiveTimeout(78);
  ZmqFrame frame(std::string("a"));
  client.sendFirst(frame, 0);
  EXPECT_EQ(server.receive().back(), "a");
}

TEST(ZmqFailures, ACacheKeepsNothingWhenTheSocketCouldNotBeMade) {
  ThreadSocketCache cache(ZMQ_PUSH);
  const std::string endpoint = uniqueInproc();
  {
    const Failing failing("zmq_socket", ENOMEM);
    EXPECT_ZMQ_ERROR(cache.socketFor(endpoint), ENOMEM);
  }
  {
    const Failing failing("zmq_setsockopt", ENOMEM);
    EXPECT_ZMQ_ERROR(cache.socketFor(endpoint), ENOMEM);
  }
  EXPECT_EQ(cache.size(), 0U);
  EXPECT_EQ(zmqErrorOf([&] { cache.socketFor(endpoint); }), "nothing thrown");
}

TEST(ZmqFailures, ACacheKeepsNothingWhenTheSocketCouldNotBeSetUp) {
  ThreadSocketCache cache(ZMQ_DEALER, ThreadSocketCache::SendLimit::kNone);
  const Failing failing("zmq_setsockopt", ENOMEM, 2);  // after those of every socket
  EXPECT_ZMQ_ERROR(cache.socketFor(uniqueInproc()), ENOMEM);
  EXPECT_TRUE(failing.used());
  EXPECT_EQ(cache.size(), 0U);
}

TEST(ThreadsThatEnd, CloseTheirPublishersFirst) {
  const std::string endpoint = uniqueInproc();
  RawPeer peer(ZMQ_PULL);  // they are not closed while they wait for one
  peer.bind(endpoint);
  void* published = nullptr;
  std::vector<void*> closed;
  std::thread thread([&] {
    ThreadSockets& sockets = ThreadSockets::ofThisThread();
    for (ThreadSocketCache* cache : {&sockets.registrations, &sockets.replies, &sockets.clients}) {
      cache->socketFor(endpoint);
    }
    published = sockets.publishers.socketFor(endpoint).handle();
    closedSockets = &closed;
  });
  thread.join();
  closedSockets = nullptr;
  ASSERT_EQ(closed.size(), 4U);
  EXPECT_EQ(closed.front(), published);
}

TEST(ZmqFailures, AnEventThatCannotBeMadeThrows) {
  for (const int after : {0, 1}) {
    const Failing failing("zmq_socket", ENOMEM, after);
    EXPECT_ZMQ_ERROR(ZmqEvent(), ENOMEM);
  }
}

// ---- polls

TEST(ZmqFailures, AnInterruptedWaitGoesOn) {
  ZmqEvent event;
  PollSet poll{event.pollHandle()};
  const Failing failing("zmq_poll", EINTR, 0, 3);
  std::thread other([&event, waiting = thisThread()] {
    waitUntilAsleep(waiting);
    event.signal();
  });
  EXPECT_EQ(zmqErrorOf([&] { poll.wait(); }), "nothing thrown");
  other.join();
  EXPECT_TRUE(failing.used());
  EXPECT_TRUE(poll.readable(0));
}

TEST(ZmqFailures, AWaitHasNoTimeout) {
  ZmqEvent event;
  PollSet poll{event.pollHandle()};
  pollTimeouts.clear();
  const Failing failing("zmq_poll", EFAULT);
  EXPECT_ZMQ_ERROR(poll.wait(), EFAULT);
  EXPECT_EQ(pollTimeouts, std::set<long>{-1});
}

TEST(ZmqFailures, AWaitThatFailsThrows) {
  ZmqEvent event;
  PollSet poll{event.pollHandle()};
  const Failing failing("zmq_poll", EFAULT);
  EXPECT_ZMQ_ERROR(poll.wait(), EFAULT);
}

class Discarding : public ::testing::Test {
 protected:
  Discarding() : receiver_(ZMQ_PULL), sender_(ZMQ_PUSH) {
    const std::string endpoint = uniqueInproc();
    receiver_.bind(endpoint);
    sender_.connect(endpoint).send({"a", "b", "c"});
    sender_.send({"next"});
    ZmqFrame first;
    EXPECT_TRUE(receiver_.receive(first, 0));
  }
  std::string nextFrame() {
    ZmqFrame frame;
    return receiver_.receive(frame, ZMQ_DONTWAIT) ? frame.toString() : "nothing";
  }

  ZmqSocket receiver_;
  RawPeer sender_;
};

TEST_F(Discarding, RepeatsAPollThatIsInterrupted) {
  const Failing failing("zmq_poll", EINTR, 0, 3);
  EXPECT_EQ(zmqErrorOf([&] { receiver_.discardPending(); }), "nothing thrown");
  EXPECT_TRUE(failing.used());
  EXPECT_EQ(nextFrame(), "next");
}

TEST_F(Discarding, ThrowsWhenThePollFails) {
  const Failing failing("zmq_poll", EFAULT);
  EXPECT_ZMQ_ERROR(receiver_.discardPending(), EFAULT);
}

TEST_F(Discarding, ThrowsWhenAReceiveFails) {
  const Failing failing("zmq_msg_recv", ENOTSOCK, 1);
  EXPECT_ZMQ_ERROR(receiver_.discardPending(), ENOTSOCK);
}

TEST_F(Discarding, EndsWhenAReceiveWouldHaveToWait) {
  const Failing failing("zmq_msg_recv", EAGAIN, 1);
  EXPECT_EQ(zmqErrorOf([&] { receiver_.discardPending(); }), "nothing thrown");
  EXPECT_TRUE(failing.used());
  EXPECT_EQ(nextFrame(), "c");
}

TEST(ZmqFailures, AnInterruptedWaitForRoomGoesOn) {
  const std::string endpoint = uniqueInproc();
  RawPeer peer(ZMQ_PULL);
  peer.bind(endpoint);
  ZmqSocket sender(ZMQ_PUSH, endpoint);
  ZmqFrame filler;
  while (sender.send(filler, ZMQ_DONTWAIT)) {
  }
  {
    const Failing failing("zmq_poll", EFAULT);
    EXPECT_ZMQ_ERROR(sender.sendFirst(filler, 0), EFAULT);
  }
  ZmqFrame frame(std::string("after"));
  std::thread reading;
  {
    // The test's own peer polls on another thread, where nothing fails.
    const Failing failing("zmq_poll", EINTR, 0, 3);
    reading = std::thread([&] {
      while (peer.receive() == Frames{""}) {
      }
    });
    EXPECT_EQ(zmqErrorOf([&] { sender.sendFirst(frame, 0); }), "nothing thrown");
  }
  reading.join();
  EXPECT_EQ(frame.size(), 0U);  // sent
}

// ---- frames

TEST(ZmqFailures, AFrameThatCannotBeMadeThrows) {
  const std::string text = "text";
  const std::vector<std::uint8_t> vector(10);
  const std::unique_ptr<std::uint8_t[]> array(new std::uint8_t[10]());
  const auto refused = [](const auto& make) {
    const Failing failing("zmq_msg_init_size", ENOMEM);
    EXPECT_ZMQ_ERROR(make(), ENOMEM);
  };
  refused([] { ZmqFrame::ofSize(1); });
  refused([] { ZmqFrame frame(std::uint8_t{1}); });
  refused([] { ZmqFrame frame(true); });
  refused([&] { ZmqFrame frame(text); });
  refused([&] { ZmqFrame frame(vector); });
  refused([&] { ZmqFrame frame(array, 10); });
  refused([&] { ZmqFrame frame(text.data(), 4); });
  refused([] { ZmqFrame::copyOf(ZmqFrame()); });
  refused([] { ZmqFrame::ofLittleEndian64(1); });
  refused([] { rpc_custom_error("abc", 3); });
}

TEST(ZmqFailures, AFrameThatCannotTakeABufferOverThrowsAndTheBufferIsFreedOnce) {
  const auto refused = [](const auto& make) {
    const Failing failing("zmq_msg_init_data", ENOMEM);
    EXPECT_ZMQ_ERROR(make(), ENOMEM);
  };
  refused([] { ZmqFrame frame(std::string(1000, 'x')); });
  refused([] { ZmqFrame frame(std::vector<std::uint8_t>(1000)); });
  refused([] { ZmqFrame frame(std::make_unique<std::uint8_t[]>(1000), 1000); });
  refused([] { rpc_custom_error(std::string(1000, 'x')); });
  auto array = std::make_unique<std::uint8_t[]>(1000);
  refused([&] { ZmqFrame frame(std::move(array), 1000); });
  EXPECT_NE(array, nullptr);  // NOLINT(bugprone-use-after-move): it was not taken
}

TEST(ZmqFailures, AFrameThatCannotBeSharedThrows) {
  ZmqFrame frame(std::string(1000, 'x'));
  const Failing failing("zmq_msg_copy", EFAULT);
  EXPECT_ZMQ_ERROR(frame.share(), EFAULT);
  EXPECT_EQ(frame.toString(), std::string(1000, 'x'));
}

// ---- messages

TEST(ZmqFailures, AMessageWhoseFramesCannotBeMadeThrows) {
  for (int after = 0; after < 4; ++after) {  // type, topic, tag, value; then the options
    const Failing failing("zmq_msg_init_size", ENOMEM, after);
    EXPECT_ZMQ_ERROR(MessagePublish("topic", "tag", "value", 5, 1), ENOMEM);
    EXPECT_TRUE(failing.used());
  }
  const Failing failing("zmq_msg_init_size", ENOMEM);
  EXPECT_ZMQ_ERROR(MessageReply(), ENOMEM);
}

TEST(ZmqFailures, AMessageThrowsForEveryFrameThatCannotBeSent) {
  constexpr int kFrames = 7;
  for (int frame = 0; frame < kFrames; ++frame) {
    ZmqSocket sender(ZMQ_PUSH, uniqueInproc());
    MessagePublish message("topic", "tag", "value", 5, 1);
    const Failing failing("zmq_msg_send", ENOTSOCK, frame);
    EXPECT_ZMQ_ERROR(message.send(sender), ENOTSOCK);
    EXPECT_TRUE(failing.used());
  }
}

TEST(ZmqFailures, AMessageThrowsForEveryFurtherFrameThatWouldHaveToWait) {
  for (int frame = 1; frame < 7; ++frame) {
    ZmqSocket sender(ZMQ_PUSH, uniqueInproc());
    MessagePublish message("topic", "tag", "value", 5, 1);
    const Failing failing("zmq_msg_send", EAGAIN, frame);
    EXPECT_ZMQ_ERROR(message.send(sender), EAGAIN);
  }
}

TEST(ZmqFailures, AMessageWaitsWithItsFirstFrame) {
  const std::string endpoint = uniqueInproc();
  RawPeer peer(ZMQ_PULL);
  peer.bind(endpoint);
  ZmqSocket sender(ZMQ_PUSH, endpoint);
  MessagePublish message("topic", "tag", "value", 5, 1);
  {
    const Failing failing("zmq_msg_send", EAGAIN, 0, 3);
    EXPECT_EQ(zmqErrorOf([&] { message.send(sender); }), "nothing thrown");
    EXPECT_TRUE(failing.used());
  }
  EXPECT_EQ(peer.receive(), (Frames{"", "RS02", "\x03", "topic", "tag", "value", word(1)}));
}

TEST(ZmqFailures, ANotificationThrowsForEveryFrameThatCannotBeSent) {
  for (int frame = 0; frame < 3; ++frame) {
    for (const int error : {ENOTSOCK, EAGAIN}) {
      ZmqSocket sender(ZMQ_XPUB);
      ValueNotification notification("topic:tag", ZmqFrame(), 0);
      const Failing failing("zmq_msg_send", error, frame);
      EXPECT_ZMQ_ERROR(notification.send(sender), error);
      EXPECT_TRUE(failing.used());
    }
  }
}

// Eight frames that have come, to be received.
struct MessageThatWaits {
  MessageThatWaits() {
    receiver.bind(endpoint);
    RawPeer(ZMQ_PUSH).connect(endpoint).send(
        {"route", "", "RS02", "\x03", "topic", "tag", "value", word(1)});
  }
  bool receive() { return message.receive(receiver); }

  const std::string endpoint = uniqueInproc();
  ZmqSocket receiver{ZMQ_PULL};
  MessagePublish message;
};

TEST(ZmqFailures, AMessageThrowsForEveryFrameThatCannotBeReceived) {
  for (int frame = 0; frame < 8; ++frame) {
    MessageThatWaits waiting;
    const Failing failing("zmq_msg_recv", ENOTSOCK, frame);
    EXPECT_ZMQ_ERROR(waiting.receive(), ENOTSOCK) << frame;
    EXPECT_TRUE(failing.used());
  }
}

TEST(ZmqFailures, AMessageIsNotReceivedWhenAFrameDoesNotCome) {
  for (int frame = 0; frame < 8; ++frame) {
    MessageThatWaits waiting;
    const Failing failing("zmq_msg_recv", EAGAIN, frame);
    EXPECT_FALSE(waiting.receive()) << frame;
    EXPECT_TRUE(failing.used());
  }
}

// ---- signal handlers, of which ZeroMQ tells also where nothing waits

TEST(ZmqFailures, AnInterruptedConnectOrBindGoesOn) {
  for (const std::string& endpoint : {uniqueInproc(), freeTcp()}) {
    ZmqSocket receiver(ZMQ_PULL);
    ZmqSocket sender(ZMQ_PUSH);
    {
      const Failing failing("zmq_bind", EINTR, 0, 3);
      EXPECT_EQ(zmqErrorOf([&] { receiver.bind(endpoint); }), "nothing thrown");
      EXPECT_TRUE(failing.used());
    }
    {
      const Failing failing("zmq_connect", EINTR, 0, 3);
      EXPECT_EQ(zmqErrorOf([&] { sender.connect(endpoint); }), "nothing thrown");
      EXPECT_TRUE(failing.used());
    }
    ZmqFrame frame(std::string("arrives"));
    sender.sendFirst(frame, 0);
    ZmqFrame received;
    EXPECT_TRUE(receiver.receive(received, 0));
    EXPECT_EQ(received.toString(), "arrives");
  }
}

TEST(ZmqFailures, AnInterruptedUnbindGoesOn) {
  for (const std::string& endpoint : {uniqueInproc(), freeTcp()}) {
    auto closing = std::make_unique<ZmqSocket>(ZMQ_PULL);
    closing->bind(endpoint);
    const Failing failing("zmq_unbind", EINTR, 0, 3);
    closing.reset();
    EXPECT_TRUE(failing.used());
    ZmqSocket next(ZMQ_PULL);
    EXPECT_EQ(zmqErrorOf([&] { next.bind(endpoint); }), "nothing thrown");
  }
}

TEST(ZmqFailures, AnUnbindThatFailsKeepsNothingOpen) {
  const OpenSockets sockets;
  const std::string endpoint = uniqueInproc();
  auto closing = std::make_unique<ZmqSocket>(ZMQ_PULL);
  closing->bind(endpoint);
  const Failing failing("zmq_unbind", ENOENT);
  EXPECT_EQ(zmqErrorOf([&] { closing.reset(); }), "nothing thrown");
  EXPECT_TRUE(failing.used());
  EXPECT_FALSE(InprocEndpoints::instance().isBound(endpoint));
  EXPECT_TRUE(sockets.become(0));
}

TEST(ZmqFailures, AnInterruptedSendGoesOn) {
  const std::string endpoint = uniqueInproc();
  RawPeer peer(ZMQ_PULL);
  peer.bind(endpoint);
  for (int frame = 0; frame < 7; ++frame) {
    ZmqSocket sender(ZMQ_PUSH, endpoint);
    MessagePublish message("topic", "tag", "value", 5, 1);
    {
      const Failing failing("zmq_msg_send", EINTR, frame, 3);
      EXPECT_EQ(zmqErrorOf([&] { message.send(sender); }), "nothing thrown");
      EXPECT_TRUE(failing.used());
    }
    EXPECT_EQ(peer.receive(), (Frames{"", "RS02", "\x03", "topic", "tag", "value", word(1)}));
  }
}

class InterruptedReceive : public ::testing::Test {
 protected:
  InterruptedReceive() : receiver_(ZMQ_PULL) {
    const std::string endpoint = uniqueInproc();
    receiver_.bind(endpoint);
    RawPeer(ZMQ_PUSH).connect(endpoint).send({"a", "b"});
  }

  ZmqSocket receiver_;
};

TEST_F(InterruptedReceive, GoesOnWhereItDoesNotWait) {
  ZmqFrame frame;
  {
    const Failing failing("zmq_msg_recv", EINTR, 0, 3);
    EXPECT_TRUE(receiver_.receive(frame, ZMQ_DONTWAIT));
    EXPECT_TRUE(failing.used());
    EXPECT_EQ(frame.toString(), "a");
  }
  const Failing failing("zmq_msg_recv", EINTR, 0, 3);
  EXPECT_TRUE(receiver_.receive(frame, 0));  // it has come with the first
  EXPECT_TRUE(failing.used());
  EXPECT_EQ(frame.toString(), "b");
}

TEST_F(InterruptedReceive, ThrowsWhereItWaits) {
  ZmqFrame frame;
  EXPECT_TRUE(receiver_.receive(frame, 0));
  EXPECT_TRUE(receiver_.receive(frame, 0));
  const Failing failing("zmq_msg_recv", EINTR);
  EXPECT_ZMQ_ERROR(receiver_.receive(frame, 0), EINTR);
}

TEST_F(InterruptedReceive, WaitsOnWhenSignalsAreNotToEndIt) {
  receiver_.waitThroughSignals();
  ZmqFrame frame;
  const Failing failing("zmq_msg_recv", EINTR, 0, 3);
  EXPECT_TRUE(receiver_.receive(frame, 0));
  EXPECT_TRUE(failing.used());
  EXPECT_EQ(frame.toString(), "a");
}

TEST_F(InterruptedReceive, OfANewSocketWaitsAgain) {
  ZmqFrame frame;
  EXPECT_TRUE(receiver_.receive(frame, 0));
  receiver_.connect(uniqueInproc());
  receiver_.reconnect();
  const Failing failing("zmq_msg_recv", EINTR);
  EXPECT_ZMQ_ERROR(receiver_.receive(frame, 0), EINTR);
}

TEST(ZmqFailures, AnEventIsConsumedInSpiteOfInterruptions) {
  ZmqEvent event;
  {
    const Failing failing("zmq_msg_send", EINTR, 0, 3);
    event.signal();
    EXPECT_TRUE(failing.used());
  }
  const Failing failing("zmq_msg_recv", EINTR, 0, 3);
  EXPECT_EQ(zmqErrorOf([&] { event.consume(); }), "nothing thrown");
  EXPECT_TRUE(failing.used());
}

}  // namespace
}  // namespace tessel::test
