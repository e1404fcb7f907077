#include "messages/value_notification.h"

#include <gtest/gtest.h>
#include <zmq.h>

#include <chrono>

#include "support/endpoints.h"
#include "support/raw_peer.h"
#include "support/zmq_errors.h"

namespace tessel::test {
namespace {

// A publishing socket of the library and a bare subscriber that it knows of.
class Broadcast {
 public:
  explicit Broadcast(const std::string& prefix) : sender_(ZMQ_XPUB), peer_(ZMQ_SUB) {
    const std::string endpoint = uniqueInproc();
    sender_.bind(endpoint);
    peer_.connect(endpoint).subscribe(prefix);
    ZmqFrame subscription;
    EXPECT_TRUE(sender_.receive(subscription, 0));
  }
  ZmqSocket& sender() { return sender_; }
  Frames receive() { return peer_.receive(); }

 private:
  ZmqSocket sender_;
  RawPeer peer_;
};

// A SUB of the library that gets whatever the bare publisher sends.
class Reception {
 public:
  Reception() : receiver_(ZMQ_SUB), peer_(ZMQ_XPUB) {
    const std::string endpoint = uniqueInproc();
    peer_.bind(endpoint);
    receiver_.setReceiveTimeout(std::chrono::milliseconds(kPatience).count());
    receiver_.setOption(ZMQ_SUBSCRIBE, std::string());
    receiver_.connect(endpoint);
    EXPECT_EQ(peer_.receive(), Frames{"\x01"});
  }
  ZmqSocket& receiver() { return receiver_; }
  void send(const Frames& frames) { peer_.send(frames); }

 private:
  ZmqSocket receiver_;
  RawPeer peer_;
};

struct Expected {
  std::string key;
  std::string value;
  std::uint64_t flags;
};

TEST(ValueNotification, FlagsAreTheseBits) {
  EXPECT_EQ(kReplayed, 1U);
  EXPECT_EQ(kWithdrawn, 2U);
}

TEST(ValueNotification, IsTheseFrames) {
  Broadcast broadcast("");
  for (const std::uint64_t flags : {0U, 1U, 2U}) {
    ValueNotification("topic:tag", ZmqFrame(bytes("va\0lue", 6)), flags).send(broadcast.sender());
    EXPECT_EQ(broadcast.receive(), (Frames{"topic:tag", bytes("va\0lue", 6), word(flags)}));
  }
  ValueNotification("", ZmqFrame(), 0xF123456789ABCDEFU).send(broadcast.sender());
  EXPECT_EQ(broadcast.receive(), (Frames{"", "", "\xEF\xCD\xAB\x89\x67\x45\x23\xF1"}));
}

TEST(ValueNotification, IsMatchedByTheBeginningOfItsKey) {
  Broadcast broadcast("topic:");
  ValueNotification("other:tag", ZmqFrame(), 0).send(broadcast.sender());
  ValueNotification("topic:tag", ZmqFrame(), 0).send(broadcast.sender());
  EXPECT_EQ(broadcast.receive(), (Frames{"topic:tag", "", word(0)}));
}

TEST(ValueNotification, CanBeSentOnASecondSocketOverTheSameBytes) {
  Broadcast first("");
  Broadcast second("");
  const std::string large(1000, 'v');
  ValueNotification notification("topic:tag", ZmqFrame(large), 1);
  notification.share().send(first.sender());
  notification.send(second.sender());
  EXPECT_EQ(first.receive(), (Frames{"topic:tag", large, word(1)}));
  EXPECT_EQ(second.receive(), (Frames{"topic:tag", large, word(1)}));
}

TEST(ValueNotification, SendingThrowsTheZmqText) {
  ZmqSocket cannotSend(ZMQ_SUB);
  EXPECT_ZMQ_ERROR(ValueNotification("a:b", ZmqFrame(), 0).send(cannotSend), ENOTSUP);
  ZmqSocket nobodyThere(ZMQ_PUSH);
  nobodyThere.setOption(ZMQ_SNDTIMEO, 0);
  EXPECT_ZMQ_ERROR(ValueNotification("a:b", ZmqFrame(), 0).send(nobodyThere), EAGAIN);
}

TEST(ReceivedNotification, KnowsWhatItsFlagsSay) {
  ReceivedNotification notification;
  const auto check = [&](std::uint64_t flags, bool replayed, bool withdrawn) {
    notification.flags = flags;
    EXPECT_EQ(notification.replayed(), replayed) << flags;
    EXPECT_EQ(notification.withdrawn(), withdrawn) << flags;
  };
  check(0, false, false);
  check(1, true, false);
  check(2, false, true);
  check(3, true, true);
  check(4, false, false);
  check(0xFFFFFFFFFFFFFFFCU, false, false);
}

TEST(ReceivedNotification, IsReadFromTheseFramesAndFromFewerAndMore) {
  Reception reception;
  const std::vector<std::pair<Frames, Expected>> cases = {
      {{"topic:tag", bytes("va\0lue", 6), "\xEF\xCD\xAB\x89\x67\x45\x23\xF1"},
       {"topic:tag", bytes("va\0lue", 6), 0xF123456789ABCDEFU}},
      {{"", "", word(0)}, {"", "", 0}},
      {{"key"}, {"key", "", 0}},
      {{""}, {"", "", 0}},
      {{"key", "value"}, {"key", "value", 0}},
      {{"key", "value", ""}, {"key", "value", 0}},
      {{"key", "value", "\x02"}, {"key", "value", 2}},
      {{"key", "value", "\x01\x02\x03\x04\x05\x06\x07"}, {"key", "value", 0x07060504030201U}},
      {{"key", "value", word(1) + "more"}, {"key", "value", 1}},
      {{"key", "value", word(2), "fourth"}, {"key", "value", 2}},
      {{"key", "value", word(2), "", "fifth", ""}, {"key", "value", 2}},
  };
  for (const auto& [frames, expected] : cases) {
    SCOPED_TRACE(::testing::PrintToString(frames));
    reception.send(frames);
    reception.send({"next", "one", word(1)});
    ReceivedNotification notification;
    ASSERT_TRUE(receiveNotification(reception.receiver(), notification));
    EXPECT_EQ(notification.key, expected.key);
    EXPECT_EQ(notification.value.toString(), expected.value);
    EXPECT_EQ(notification.flags, expected.flags);
    ReceivedNotification next;
    ASSERT_TRUE(receiveNotification(reception.receiver(), next));
    EXPECT_EQ(next.key, "next");
    EXPECT_EQ(next.value.toString(), "one");
    EXPECT_EQ(next.flags, 1U);
  }
}

TEST(ReceivedNotification, IsNotThereWhenNothingCame) {
  Reception reception;
  ReceivedNotification notification;
  EXPECT_FALSE(receiveNotification(reception.receiver(), notification, ZMQ_DONTWAIT));
  reception.receiver().setReceiveTimeout(1);
  EXPECT_FALSE(receiveNotification(reception.receiver(), notification));
  reception.send({"key"});
  EXPECT_TRUE(receiveNotification(reception.receiver(), notification, ZMQ_DONTWAIT));
}

}  // namespace
}  // namespace tessel::test
