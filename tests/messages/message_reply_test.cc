#include "messages/message_reply.h"

#include <gtest/gtest.h>
#include <tessel/rpc_error.h>

#include "messages/message_kinds.h"

namespace tessel::test {
namespace {

MessageRequest requestWith(const std::vector<std::uint8_t>& reserved) {
  return MessageRequest(reserved, "service", "instance", "method", "data", 4);
}

TEST(MessageReply, StatusCodesAreThoseOnTheWire) {
  EXPECT_EQ(kReplySuccess, 0);
  EXPECT_EQ(kReplyServiceError, 1);
  EXPECT_EQ(kReplyBrokerError, 2);
  EXPECT_EQ(kReplyCustomError, 3);
}

TEST(MessageReply, OfSuccessHoldsACopyOfTheResult) {
  MessageRequest request = requestWith({0, 5});
  std::string result = bytes("re\0sult", 7);
  MessageReply reply(request, result.data(), result.size());
  result[0] = '-';
  EXPECT_EQ(reply.type(), 1);
  EXPECT_EQ(contentsOf(reply), (Frames{bytes("\0\x05", 2), bytes("\0", 1), bytes("re\0sult", 7)}));
  EXPECT_EQ(sentOver(ZMQ_PUSH, reply),
            (Frames{"", "RS02", "\x01", bytes("\0\x05", 2), bytes("\0", 1), bytes("re\0sult", 7)}));
}

TEST(MessageReply, OfSuccessMayBeEmpty) {
  MessageRequest request = requestWith({0});
  MessageReply reply(request, nullptr, 0);
  EXPECT_EQ(sentOver(ZMQ_PUSH, reply),
            (Frames{"", "RS02", "\x01", bytes("\0", 1), bytes("\0", 1), ""}));
}

TEST(MessageReply, OfSuccessTakesAnArrayOfAnySize) {
  for (const std::size_t size : {0U, 1U, 33U, 34U, 4095U, 4096U, 100000U}) {
    MessageRequest request = requestWith({0});
    auto result = std::make_unique<std::uint8_t[]>(size);
    if (size != 0) result[size - 1] = 'z';
    const std::string expected = text(result.get(), size);
    MessageReply reply(request, std::move(result), size);
    EXPECT_EQ(sentOver(ZMQ_PUSH, reply),
              (Frames{"", "RS02", "\x01", bytes("\0", 1), bytes("\0", 1), expected}));
  }
}

TEST(MessageReply, OfSuccessWithoutAnArrayIsEmpty) {
  MessageRequest request = requestWith({0});
  const MessageReply reply(request, std::unique_ptr<std::uint8_t[]>(), 5000);
  EXPECT_EQ(reply.status(), 0);
  EXPECT_EQ(reply.payloadSize(), 0U);
}

TEST(MessageReply, OfACustomErrorHoldsACopyOfItsBytes) {
  MessageRequest request = requestWith({0});
  auto error = std::make_unique<rpc_custom_error>(bytes("\x01\0\xFF", 3));
  MessageReply reply(request, *error);
  EXPECT_NE(reply.payload(), error->data());
  error.reset();
  EXPECT_EQ(reply.status(), 3);
  EXPECT_EQ(sentOver(ZMQ_PUSH, reply),
            (Frames{"", "RS02", "\x01", bytes("\0", 1), "\x03", bytes("\x01\0\xFF", 3)}));
}

TEST(MessageReply, OfACustomErrorThatWasMovedFromIsEmpty) {
  MessageRequest request = requestWith({0});
  rpc_custom_error error(std::string("abc"));
  const rpc_custom_error taken(std::move(error));
  const MessageReply reply(request, error);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(reply.status(), 3);
  EXPECT_EQ(reply.payloadSize(), 0U);
}

TEST(MessageReply, OfAnErrorHoldsItsTextWithoutCopyingIt) {
  for (const int status : {1, 2, 77, 255}) {
    MessageRequest request = requestWith({0});
    std::string message(1000, 'm');
    const void* const place = message.data();
    MessageReply reply(request, status, std::move(message));
    EXPECT_EQ(reply.payload(), place);
    EXPECT_EQ(reply.status(), status);
    EXPECT_EQ(sentOver(ZMQ_PUSH, reply),
              (Frames{"", "RS02", "\x01", bytes("\0", 1), std::string(1, static_cast<char>(status)),
                      std::string(1000, 'm')}));
  }
}

TEST(MessageReply, EchoesTheReservedBytesUnchanged) {
  for (const std::string& reserved :
       {std::string(), bytes("\0", 1), bytes("\x01\x02\0\xFF", 4), std::string(5000, 'r')}) {
    Link link(ZMQ_ROUTER);
    link.send({"", "RS02", bytes("\0", 1), reserved, "s", "i", "m", "p"});
    MessageRequest request;
    ASSERT_TRUE(request.receive(link.receiver()));
    MessageReply reply(request, "ok", 2);
    EXPECT_EQ(text(reply.reserved()), reserved);
    reply.send(link.receiver());
    EXPECT_EQ(link.sender().receive(),
              (Frames{"", "RS02", "\x01", reserved, bytes("\0", 1), "ok"}));
  }
}

TEST(MessageReply, TakesTheWholeEnvelopeInOrderAndLeavesNone) {
  const auto makeEach = [](MessageRequest& request, int which) {
    if (which == 0) return std::make_unique<MessageReply>(request, "ok", 2);
    if (which == 1) return std::make_unique<MessageReply>(request, rpc_custom_error("ok", 2));
    return std::make_unique<MessageReply>(request, 2, std::string("ok"));
  };
  for (const int which : {0, 1, 2}) {
    Link link(ZMQ_ROUTER);
    link.send({"first", "second", "", "RS02", bytes("\0", 1), "r", "s", "i", "m", "p"});
    MessageRequest request;
    ASSERT_TRUE(request.receive(link.receiver()));
    const auto reply = makeEach(request, which);
    EXPECT_TRUE(request.envelope().empty());
    EXPECT_EQ(texts(reply->envelope()), (Frames{"peer", "first", "second"}));
    reply->send(link.receiver());  // so it finds its way back
    EXPECT_EQ(link.sender().receive(),
              (Frames{"first", "second", "", "RS02", "\x01", "r",
                      std::string(1, static_cast<char>(reply->status())), "ok"}));
  }
}

TEST(MessageReply, OfASlaveGoesOnWithoutTheSlavesIdentity) {
  // A master gets it with the slave's identity in front and the client's behind that.
  Link slave(ZMQ_ROUTER);
  slave.send({"client", "", "RS02", "\x01", "r", bytes("\0", 1), "ok"});
  MessageReply reply;
  ASSERT_TRUE(reply.receive(slave.receiver()));
  EXPECT_EQ(texts(reply.envelope()), (Frames{"peer", "client"}));
  reply.removeEnvelopeFront();
  EXPECT_EQ(sentOver(ZMQ_PUSH, reply),
            (Frames{"client", "", "RS02", "\x01", "r", bytes("\0", 1), "ok"}));
}

TEST(MessageReply, IsReadFromTheseFrames) {
  Link link(ZMQ_DEALER);
  for (int status = 0; status < 256; ++status) {
    link.send({"", "RS02", "\x01", "r", std::string(1, static_cast<char>(status)), "text"});
    MessageReply reply;
    ASSERT_TRUE(reply.receive(link.receiver()));
    EXPECT_EQ(reply.status(), status);
    EXPECT_EQ(text(reply.reserved()), "r");
    EXPECT_EQ(reply.payloadText(), "text");
    EXPECT_EQ(text(reply.payload(), reply.payloadSize()), "text");
  }
}

TEST(MessageReply, OfTheStatusOnlyTheFirstByteCounts) {
  Link link(ZMQ_PULL);
  link.send({"", "RS02", "\x01", "r", "\x02\x01", "text"});
  MessageReply reply;
  ASSERT_TRUE(reply.receive(link.receiver()));
  EXPECT_EQ(reply.status(), 2);
}

TEST(MessageReply, GivesItsPayloadInEveryForm) {
  MessageRequest request = requestWith({0});
  MessageReply reply(request, 1, bytes("te\0xt", 5));
  EXPECT_EQ(reply.payloadText(), bytes("te\0xt", 5));
  ZmqFrame frame = reply.payloadFrame();
  EXPECT_EQ(frame.toString(), bytes("te\0xt", 5));
  std::unique_ptr<std::uint8_t[]> data;
  std::size_t size = 77;
  reply.copyPayload(data, size);
  ASSERT_EQ(size, 5U);
  EXPECT_EQ(text(data.get(), size), bytes("te\0xt", 5));
  data[0] = '-';
  EXPECT_EQ(reply.payloadText(), bytes("te\0xt", 5));
  reply.send(*std::make_unique<ZmqSocket>(ZMQ_PUB));  // the frame stays good when it is gone
  EXPECT_EQ(frame.toString(), bytes("te\0xt", 5));
}

TEST(MessageReply, CopiesAnEmptyPayloadIntoAnArrayToo) {
  MessageRequest request = requestWith({0});
  const MessageReply reply(request, nullptr, 0);
  std::unique_ptr<std::uint8_t[]> data;
  std::size_t size = 77;
  reply.copyPayload(data, size);
  EXPECT_EQ(size, 0U);
  EXPECT_NE(data, nullptr);
}

TEST(MessageReply, ForReceivingIsEmpty) {
  const MessageReply reply;
  EXPECT_EQ(contentsOf(reply), (Frames{"", bytes("\0", 1), ""}));
}

TEST(MessageReply, ReachesTheClientOfARouter) {
  const std::string endpoint = uniqueInproc();
  ZmqSocket server(ZMQ_ROUTER);
  server.setReceiveTimeout(std::chrono::milliseconds(kPatience).count());
  server.bind(endpoint);
  RawPeer client(ZMQ_REQ);
  client.connect(endpoint).send({"RS02", bytes("\0", 1), bytes("\0", 1), "s", "i", "m", "p"});
  MessageRequest request;
  ASSERT_TRUE(request.receive(server));
  MessageReply(request, "result", 6).send(server);
  EXPECT_EQ(client.receive(), (Frames{"RS02", "\x01", bytes("\0", 1), bytes("\0", 1), "result"}));
}

TEST(MessageReply, CarriesALargePayload) {
  const std::string endpoint = uniqueIpc();
  RawPeer server(ZMQ_REP);
  server.bind(endpoint);
  ZmqSocket client(ZMQ_REQ, endpoint);
  client.setReceiveTimeout(std::chrono::milliseconds(kPatience).count());
  MessageRequest({0}, "s", "i", "m", nullptr, 0).send(client);
  server.receive();
  std::string payload(64U << 20U, 'x');
  payload.front() = 'a';
  payload.back() = 'z';
  server.send({"RS02", "\x01", bytes("\0", 1), bytes("\0", 1), payload});
  MessageReply reply;
  ASSERT_TRUE(reply.receive(client));
  EXPECT_TRUE(reply.payloadText() == payload);
}

}  // namespace
}  // namespace tessel::test
