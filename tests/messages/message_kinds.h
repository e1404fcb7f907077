#ifndef TESSEL_TESTS_MESSAGES_MESSAGE_KINDS_H
#define TESSEL_TESTS_MESSAGES_MESSAGE_KINDS_H

#include <zmq.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "messages/message_publish.h"
#include "messages/message_registration.h"
#include "messages/message_reply.h"
#include "messages/message_request.h"
#include "messages/message_unpublish.h"
#include "support/endpoints.h"
#include "support/raw_peer.h"

namespace tessel::test {

inline std::string text(const std::vector<std::uint8_t>& bytes) {
  return std::string(bytes.begin(), bytes.end());
}

inline std::vector<std::uint8_t> blob(const std::string& text) {
  return std::vector<std::uint8_t>(text.begin(), text.end());
}

inline std::string text(const void* data, std::size_t size) {
  return std::string(static_cast<const char*>(data), size);
}

inline Frames operator+(Frames front, const Frames& back) {
  front.insert(front.end(), back.begin(), back.end());
  return front;
}

/// A message class, for what holds for all of them.
class MessageKind {
 public:
  MessageKind(std::string name, int type, Frames body)
      : name_(std::move(name)), type_(type), body_(std::move(body)) {}
  virtual ~MessageKind() = default;

  const std::string& name() const { return name_; }
  int type() const { return type_; }
  std::string typeFrame() const { return std::string(1, static_cast<char>(type_)); }
  /// A good body as it stands on the wire.
  const Frames& body() const { return body_; }
  /// A good message but for envelope and delimiter.
  Frames message() const { return Frames{"RS02", typeFrame()} + body_; }

  virtual std::unique_ptr<MessageBase> forReceiving() const = 0;
  virtual std::unique_ptr<MessageBase> over(MessageHeader&& header) const = 0;
  /// What the accessors say, as the body frames that say the same.
  virtual Frames contents(const MessageBase& message) const = 0;

 private:
  std::string name_;
  int type_;
  Frames body_;
};

inline Frames contentsOf(const MessageRequest& message) {
  return {text(message.reserved()), message.serviceName(), message.instanceName(),
          message.methodName(), text(message.payload(), message.payloadSize())};
}
inline Frames contentsOf(const MessageReply& message) {
  return {text(message.reserved()), std::string(1, static_cast<char>(message.status())),
          message.payloadText()};
}
inline Frames contentsOf(const MessageRegistration& message) {
  return {bytes(message.registered() ? "\x01" : "\0", 1), message.serviceName(),
          message.instanceName()};
}
inline Frames contentsOf(const MessagePublish& message) {
  return {message.topic(), message.tag(), text(message.value()), word(message.options())};
}
inline Frames contentsOf(const MessageUnpublish& message) {
  return {message.topic(), message.tag(), word(message.options())};
}

template <typename Message>
class MessageKindOf : public MessageKind {
 public:
  using MessageKind::MessageKind;
  std::unique_ptr<MessageBase> forReceiving() const override { return std::make_unique<Message>(); }
  std::unique_ptr<MessageBase> over(MessageHeader&& header) const override {
    return std::make_unique<Message>(std::move(header));
  }
  Frames contents(const MessageBase& message) const override {
    return contentsOf(dynamic_cast<const Message&>(message));
  }
};

/// All five. No frame of their bodies is empty, so that none can be taken for a delimiter.
inline const std::vector<std::unique_ptr<MessageKind>>& allKinds() {
  static const auto& kinds = *[] {
    auto* made = new std::vector<std::unique_ptr<MessageKind>>;
    made->push_back(std::make_unique<MessageKindOf<MessageRequest>>(
        "request", 0, Frames{bytes("\0\x07", 2), "service", "instance", "method", "payload"}));
    made->push_back(std::make_unique<MessageKindOf<MessageReply>>(
        "reply", 1, Frames{bytes("\0\x07", 2), "\x03", "payload"}));
    made->push_back(std::make_unique<MessageKindOf<MessageRegistration>>(
        "registration", 2, Frames{"\x01", "service", "instance"}));
    made->push_back(std::make_unique<MessageKindOf<MessagePublish>>(
        "publish", 3, Frames{"topic", "tag", "value", word(0x8000000000000003U)}));
    made->push_back(std::make_unique<MessageKindOf<MessageUnpublish>>(
        "unpublish", 4, Frames{"topic", "tag", word(0x0100000000000001U)}));
    return made;
  }();
  return kinds;
}

/// A socket of the library that receives, and a bare one that sends to it. The types are those with
/// an envelope; to the ROUTER the sender is "peer".
class Link {
 public:
  explicit Link(int receiverType)
      : receiver_(receiverType), sender_(senderType(receiverType)), endpoint_(uniqueInproc()) {
    receiver_.setReceiveTimeout(std::chrono::milliseconds(kPatience).count());
    if (receiverType == ZMQ_DEALER) receiver_.setOption(ZMQ_ROUTING_ID, std::string("me"));
    if (receiverType == ZMQ_ROUTER) sender_.set(ZMQ_ROUTING_ID, "peer");
    receiver_.bind(endpoint_);
    sender_.connect(endpoint_);
    if (receiverType == ZMQ_DEALER) {  // a ROUTER has to hear of a peer before it can send to it
      ZmqFrame hello(std::string("hello"));
      receiver_.send(hello, 0);
      EXPECT_EQ(sender_.receive(), (Frames{"me", "hello"}));
    }
  }

  ZmqSocket& receiver() { return receiver_; }
  RawPeer& sender() { return sender_; }
  /// What the receiver finds in front of what was sent.
  Frames envelope() const { return receiver_.type() == ZMQ_ROUTER ? Frames{"peer"} : Frames{}; }
  void send(const Frames& frames) {
    sender_.send(receiver_.type() == ZMQ_DEALER ? Frames{"me"} + frames : frames);
  }
  /// The frames that are left of the message being read.
  Frames rest() {
    Frames frames;
    ZmqFrame frame;
    do {
      if (!receiver_.receive(frame, ZMQ_DONTWAIT)) return frames + Frames{"nothing left"};
      frames.push_back(frame.toString());
    } while (frame.more());
    return frames;
  }
  bool empty() {
    ZmqFrame frame;
    return !receiver_.receive(frame, ZMQ_DONTWAIT);
  }

 private:
  static int senderType(int receiverType) {
    if (receiverType == ZMQ_PULL) return ZMQ_PUSH;
    return receiverType == ZMQ_ROUTER ? ZMQ_DEALER : ZMQ_ROUTER;
  }

  ZmqSocket receiver_;
  RawPeer sender_;
  std::string endpoint_;
};

constexpr int kLinkTypes[] = {ZMQ_PULL, ZMQ_ROUTER, ZMQ_DEALER};

inline Frames texts(const std::vector<ZmqFrame>& frames) {
  Frames found;
  for (const ZmqFrame& frame : frames) found.push_back(frame.toString());
  return found;
}

/// What a bare peer gets when a socket of `type` sends the message: from the ROUTER to its peer
/// "peer", from DEALER and REQ with their identity "me" in front.
inline Frames sentOver(int type, MessageBase& message) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket sender(type);
  if (type == ZMQ_DEALER || type == ZMQ_REQ) {
    sender.setOption(ZMQ_ROUTING_ID, std::string("me"));
  }
  RawPeer peer(type == ZMQ_PUSH ? ZMQ_PULL : type == ZMQ_ROUTER ? ZMQ_DEALER : ZMQ_ROUTER);
  if (type == ZMQ_ROUTER) peer.set(ZMQ_ROUTING_ID, "peer");
  peer.bind(endpoint);
  sender.connect(endpoint);
  if (type == ZMQ_ROUTER) {
    peer.send({"hello"});
    ZmqFrame frame;
    EXPECT_TRUE(sender.receive(frame, 0));
    EXPECT_TRUE(sender.receive(frame, 0));
    message.insertEnvelopeFront(ZmqFrame(std::string("peer")));
  }
  message.send(sender);
  return peer.receive();
}

}  // namespace tessel::test

#endif
