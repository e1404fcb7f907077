// Messages that are not what they should be: each is dropped whole, and the good one behind it is
// served. A reader that stops short, or reads on into the next message, misses the good one.

#include <gtest/gtest.h>

#include <functional>

#include "messages/message_kinds.h"

namespace tessel::test {
namespace {

struct Case {
  std::string what;
  Frames frames;
};

// Malformed from the signature on.
std::vector<Case> afterTheDelimiter(const MessageKind& kind) {
  std::vector<Case> cases;
  const Frames good = kind.message();
  const Frames& body = kind.body();

  for (std::size_t i = 0; i < body.size(); ++i) {
    Frames frames = good;
    frames.erase(frames.begin() + 2 + static_cast<std::ptrdiff_t>(i));
    cases.push_back({"without body frame " + std::to_string(i), frames});
  }
  for (std::size_t length = 1; length < good.size(); ++length) {
    cases.push_back({"ends after frame " + std::to_string(length),
                     Frames(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(length))});
  }
  cases.push_back({"one more frame", good + Frames{"more"}});
  cases.push_back({"one more empty frame", good + Frames{""}});
  cases.push_back({"many more frames", good + Frames(300, "more")});
  cases.push_back({"itself twice", good + good});

  for (std::size_t i = 0; i < 4; ++i) {
    for (const int bit : {0x01, 0x20, 0x80}) {
      Frames frames = good;
      frames[0][i] = static_cast<char>(frames[0][i] ^ bit);
      cases.push_back({"signature " + frames[0], frames});
    }
  }
  for (const std::string& signature :
       {std::string(), std::string("R"), std::string("RS"), std::string("RS0"),
        std::string("RS02x"), bytes("RS02\0", 5), std::string("RS02RS02"), std::string("2"),
        std::string(300, 'R')}) {
    Frames frames = good;
    frames[0] = signature;
    cases.push_back({"signature " + signature, frames});
  }
  for (const std::string& type :
       {std::string(), kind.typeFrame() + kind.typeFrame(), kind.typeFrame() + bytes("\0", 1),
        word(static_cast<unsigned>(kind.type()))}) {
    Frames frames = good;
    frames[1] = type;
    cases.push_back({"type frame of " + std::to_string(type.size()) + " bytes", frames});
  }

  Frames withoutSignature = good;
  withoutSignature.erase(withoutSignature.begin());
  cases.push_back({"without signature", withoutSignature});
  Frames withoutType = good;
  withoutType.erase(withoutType.begin() + 1);
  withoutType[1] += withoutType[1];  // a single byte would do as a type
  cases.push_back({"without type", withoutType});
  cases.push_back({"an empty frame alone", {""}});
  cases.push_back({"empty frames alone", {"", "", "", "", "", "", "", ""}});
  cases.push_back({"something else", {"hello"}});
  return cases;
}

// The same as they are sent to a socket with an envelope, and those malformed in their envelope.
std::vector<Case> whole(const MessageKind& kind) {
  std::vector<Case> cases;
  for (const Case& malformed : afterTheDelimiter(kind)) {
    cases.push_back({malformed.what, Frames{""} + malformed.frames});
    cases.push_back(
        {malformed.what + ", in an envelope", Frames{"route", "further", ""} + malformed.frames});
  }
  const Frames good = kind.message();
  cases.push_back({"a delimiter alone", {""}});
  cases.push_back({"without delimiter", good});
  cases.push_back({"without delimiter, in an envelope", Frames{"route", "further"} + good});
  cases.push_back({"two delimiters", Frames{"", ""} + good});
  cases.push_back({"one frame", {"x"}});
  cases.push_back({"signature alone", {"RS02"}});
  cases.push_back({"an envelope alone", {"route", "further"}});
  cases.push_back({"an envelope and its delimiter alone", {"route", "further", ""}});
  cases.push_back({"a long envelope alone", Frames(300, "route")});
  return cases;
}

using Serve = std::function<bool(const MessageKind&, ZmqSocket&, Frames&)>;

// As one who expects this class: the message reads its header itself.
bool serveWhole(const MessageKind& kind, ZmqSocket& socket, Frames& contents) {
  const auto message = kind.forReceiving();
  if (!message->receive(socket)) return false;
  contents = kind.contents(*message);
  return true;
}

// As a loop does: the header first, then the class over it.
bool serveByHeader(const MessageKind& kind, ZmqSocket& socket, Frames& contents) {
  MessageHeader header;
  if (readMessageHeader(socket, header) != HeaderRead::kRead) return false;
  const auto message = kind.over(std::move(header));
  if (!message->receive(socket)) return false;
  contents = kind.contents(*message);
  return true;
}

void expectDroppedAndTheNextServed(const Serve& serve) {
  for (const int linkType : kLinkTypes) {
    for (const auto& kind : allKinds()) {
      Link link(linkType);
      for (const Case& malformed : whole(*kind)) {
        SCOPED_TRACE(kind->name() + ", " + malformed.what + ", to socket type " +
                     std::to_string(linkType));
        link.send(malformed.frames);
        link.send(Frames{""} + kind->message());
        Frames contents;
        EXPECT_FALSE(serve(*kind, link.receiver(), contents));
        ASSERT_TRUE(serve(*kind, link.receiver(), contents));
        EXPECT_EQ(contents, kind->body());
        ASSERT_TRUE(link.empty());
      }
    }
  }
}

TEST(MalformedMessage, IsDroppedByOneWhoReadsAMessage) {
  expectDroppedAndTheNextServed(serveWhole);
}

TEST(MalformedMessage, IsDroppedByALoopThatReadsTheHeaderFirst) {
  expectDroppedAndTheNextServed(serveByHeader);
}

TEST(MalformedMessage, IsNotWaitedFor) {
  // Without a message behind it, a reader that wants more than there is would hang.
  for (const int linkType : kLinkTypes) {
    for (const auto& kind : allKinds()) {
      Link link(linkType);
      link.receiver().setReceiveTimeout(-1);
      for (const Case& malformed : whole(*kind)) {
        SCOPED_TRACE(kind->name() + ", " + malformed.what);
        link.send(malformed.frames);
        Frames contents;
        EXPECT_FALSE(serveWhole(*kind, link.receiver(), contents));
        ASSERT_TRUE(link.empty());
      }
    }
  }
}

TEST(MalformedMessage, EverySignatureByteCounts) {
  Link link(ZMQ_PULL);
  const MessageKind& kind = *allKinds()[3];
  for (std::size_t i = 0; i < 4; ++i) {
    for (int value = 0; value < 256; ++value) {
      Frames frames = kind.message();
      if (frames[0][i] == static_cast<char>(value)) continue;
      frames[0][i] = static_cast<char>(value);
      link.send(Frames{""} + frames);
      Frames contents;
      ASSERT_FALSE(serveWhole(kind, link.receiver(), contents)) << frames[0];
      ASSERT_TRUE(link.empty());
    }
  }
}

// A REQ client of the library and the bare server that answers it.
class Exchange {
 public:
  Exchange() : server_(ZMQ_ROUTER), client_(ZMQ_REQ) {
    const std::string endpoint = uniqueInproc();
    server_.bind(endpoint);
    client_.connect(endpoint);
    client_.setReceiveTimeout(std::chrono::milliseconds(kPatience).count());
  }
  ZmqSocket& client() { return client_; }
  void answer(const Frames& frames) {
    ZmqFrame question(std::string("?"));
    client_.send(question, 0);
    const Frames asked = server_.receive();
    server_.send(Frames{asked.at(0), ""} + frames);
  }

 private:
  RawPeer server_;
  ZmqSocket client_;
};

TEST(MalformedMessage, OnARequestSocketIsDroppedAndTheNextReplyServed) {
  for (const auto& kind : allKinds()) {
    for (const Serve& serve : {Serve(serveWhole), Serve(serveByHeader)}) {
      Exchange exchange;
      for (const Case& malformed : afterTheDelimiter(*kind)) {
        SCOPED_TRACE(kind->name() + ", " + malformed.what);
        Frames contents;
        exchange.answer(malformed.frames);
        EXPECT_FALSE(serve(*kind, exchange.client(), contents));
        exchange.answer(kind->message());
        ASSERT_TRUE(serve(*kind, exchange.client(), contents));
        EXPECT_EQ(contents, kind->body());
      }
    }
  }
}

TEST(MalformedMessage, OnAReplySocketIsDropped) {
  for (const auto& kind : allKinds()) {
    const std::string endpoint = uniqueInproc();
    ZmqSocket server(ZMQ_REP);
    server.setReceiveTimeout(std::chrono::milliseconds(kPatience).count());
    server.bind(endpoint);
    RawPeer client(ZMQ_REQ);
    client.connect(endpoint);
    for (const Case& malformed : afterTheDelimiter(*kind)) {
      SCOPED_TRACE(kind->name() + ", " + malformed.what);
      Frames contents;
      client.send(malformed.frames);
      EXPECT_FALSE(serveWhole(*kind, server, contents));
      ZmqFrame answer;
      ASSERT_TRUE(server.send(answer, 0));  // it was read to its end, so it can be answered
      ASSERT_EQ(client.receive(), Frames{""});
      client.send(kind->message());
      ASSERT_TRUE(serveWhole(*kind, server, contents));
      EXPECT_EQ(contents, kind->body());
      ASSERT_TRUE(server.send(answer, 0));
      ASSERT_EQ(client.receive(), Frames{""});
    }
  }
}

// ---- unusual, and good

TEST(UnusualMessage, WithEmptyBodyFramesIsRead) {
  for (const int linkType : kLinkTypes) {
    for (const auto& kind : allKinds()) {
      SCOPED_TRACE(kind->name());
      Link link(linkType);
      link.send(Frames{"", "RS02", kind->typeFrame()} + Frames(kind->body().size()));
      Frames contents;
      ASSERT_TRUE(serveWhole(*kind, link.receiver(), contents));
      Frames expected(kind->body().size());
      if (kind->type() == 1) expected[1] = bytes("\0", 1);
      if (kind->type() == 2) expected[0] = bytes("\0", 1);
      if (kind->type() == 3 || kind->type() == 4) expected.back() = word(0);
      EXPECT_EQ(contents, expected);
    }
  }
}

TEST(UnusualMessage, ShortOptionsReadAsIfZeroBytesFollowed) {
  const std::string full = "\x81\x82\x83\x84\x85\x86\x87\x88";
  for (const std::size_t which : {3U, 4U}) {
    const MessageKind& kind = *allKinds()[which];
    Link link(ZMQ_PULL);
    for (std::size_t length = 0; length <= 8; ++length) {
      Frames frames = kind.message();
      frames.back() = full.substr(0, length);
      link.send(Frames{""} + frames);
      Frames contents;
      ASSERT_TRUE(serveWhole(kind, link.receiver(), contents)) << kind.name() << length;
      EXPECT_EQ(contents.back(), full.substr(0, length) + std::string(8 - length, '\0'));
    }
  }
}

TEST(UnusualMessage, OfLongOptionsOnlyTheFirstEightBytesAreRead) {
  for (const std::size_t which : {3U, 4U}) {
    const MessageKind& kind = *allKinds()[which];
    Link link(ZMQ_PULL);
    for (const std::size_t length : {9U, 16U, 100U}) {
      Frames frames = kind.message();
      frames.back() = word(2) + std::string(length - 8, '\xFF');
      link.send(Frames{""} + frames);
      Frames contents;
      ASSERT_TRUE(serveWhole(kind, link.receiver(), contents));
      EXPECT_EQ(contents.back(), word(2));
    }
  }
}

// ---- other types than expected

TEST(MessageOfAnotherType, IsRefusedAndItsBodyLeftUnread) {
  for (const int linkType : kLinkTypes) {
    for (const auto& expected : allKinds()) {
      for (const auto& sent : allKinds()) {
        if (expected == sent) continue;
        SCOPED_TRACE(expected->name() + " expected, " + sent->name() + " sent");
        Link link(linkType);
        link.send(Frames{""} + sent->message());
        link.send(Frames{""} + expected->message());
        Frames contents;
        EXPECT_FALSE(serveWhole(*expected, link.receiver(), contents));
        EXPECT_EQ(link.rest(), sent->body());
        ASSERT_TRUE(serveWhole(*expected, link.receiver(), contents));
        EXPECT_EQ(contents, expected->body());
      }
    }
  }
}

TEST(MessageOfAnotherType, StaysRefusedByTheObjectThatRefusedIt) {
  for (const auto& expected : allKinds()) {
    for (const auto& sent : allKinds()) {
      if (expected == sent) continue;
      SCOPED_TRACE(expected->name() + " expected, " + sent->name() + " sent");
      Link link(ZMQ_PULL);
      link.send(Frames{""} + sent->message());
      link.send(Frames{""} + expected->message());
      const auto message = expected->forReceiving();
      EXPECT_FALSE(message->receive(link.receiver()));
      EXPECT_FALSE(message->receive(link.receiver()));
      EXPECT_EQ(link.rest(), sent->body());
      EXPECT_FALSE(message->receive(link.receiver()));
      Frames contents;
      ASSERT_TRUE(serveWhole(*expected, link.receiver(), contents));
      EXPECT_EQ(contents, expected->body());
    }
  }
}

TEST(MessageOfAnotherType, AlsoOnARequestSocketIsRefusedAndItsBodyLeftUnread) {
  for (const auto& sent : allKinds()) {
    if (sent->type() == 1) continue;
    Exchange exchange;
    exchange.answer(sent->message());
    MessageReply reply;
    EXPECT_FALSE(reply.receive(exchange.client()));
    for (const std::string& frame : sent->body()) {
      ZmqFrame left;
      ASSERT_TRUE(exchange.client().receive(left, ZMQ_DONTWAIT));
      EXPECT_EQ(left.toString(), frame);
    }
  }
}

TEST(MessageOfAnotherType, UnknownOnesToo) {
  for (const auto& expected : allKinds()) {
    Link link(ZMQ_ROUTER);
    for (int type = 5; type < 256; ++type) {
      const Frames unknown = {"", "RS02", std::string(1, static_cast<char>(type)), "x", "y"};
      link.send(unknown);
      link.send(unknown);
      link.send(Frames{""} + expected->message());
      Frames contents;
      ASSERT_FALSE(serveWhole(*expected, link.receiver(), contents)) << type;
      ASSERT_EQ(link.rest(), (Frames{"x", "y"}));
      // A loop that does not know the type drains the body.
      MessageHeader header;
      ASSERT_EQ(readMessageHeader(link.receiver(), header), HeaderRead::kRead);
      ASSERT_EQ(header.type, type);
      link.receiver().discardPending();
      ASSERT_TRUE(serveWhole(*expected, link.receiver(), contents)) << type;
      ASSERT_EQ(contents, expected->body());
    }
  }
}

TEST(MessageOfAnotherType, HeaderIsRefusedByTheClass) {
  for (const auto& expected : allKinds()) {
    for (int type = 0; type < 256; ++type) {
      if (type == expected->type()) continue;
      std::string thrown = "nothing";
      try {
        expected->over(MessageHeader(type));
      } catch (const std::logic_error& error) {
        thrown = typeid(error) == typeid(std::logic_error) ? error.what() : "another class";
      }
      ASSERT_EQ(thrown, "invalid header for message type") << expected->name() << type;
    }
    EXPECT_NO_THROW(expected->over(MessageHeader(expected->type())));
  }
}

}  // namespace
}  // namespace tessel::test
