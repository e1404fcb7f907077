#include "messages/message_request.h"

#include <gtest/gtest.h>

#include "messages/message_kinds.h"

namespace tessel::test {
namespace {

TEST(MessageRequest, ForSendingHoldsCopiesOfEverything) {
  std::vector<std::uint8_t> reserved{0, 1, 2};
  std::string service = "service";
  std::string instance = "instance";
  std::string method = "method";
  std::string payload = bytes("pay\0load", 8);
  const MessageRequest request(reserved, service, instance, method, payload.data(), payload.size());
  reserved[0] = 9;
  service = instance = method = "";
  payload[0] = '-';
  EXPECT_EQ(request.type(), 0);
  EXPECT_TRUE(request.envelope().empty());
  EXPECT_EQ(request.reserved(), (std::vector<std::uint8_t>{0, 1, 2}));
  EXPECT_EQ(request.serviceName(), "service");
  EXPECT_EQ(request.instanceName(), "instance");
  EXPECT_EQ(request.methodName(), "method");
  EXPECT_EQ(text(request.payload(), request.payloadSize()), bytes("pay\0load", 8));
}

TEST(MessageRequest, ForReceivingIsEmpty) { EXPECT_EQ(contentsOf(MessageRequest()), Frames(5)); }

TEST(MessageRequest, FromAClientIsTheseFrames) {
  MessageRequest request({0}, "service", "instance", "method", "\x01\x02", 2);
  EXPECT_EQ(sentOver(ZMQ_REQ, request), (Frames{"me", "", "RS02", bytes("\0", 1), bytes("\0", 1),
                                                "service", "instance", "method", "\x01\x02"}));
}

TEST(MessageRequest, FromAMasterToASlaveIsTheseFrames) {
  MessageRequest request({0}, "service", "instance", "method", "\x01\x02", 2);
  EXPECT_EQ(sentOver(ZMQ_ROUTER, request), (Frames{"", "RS02", bytes("\0", 1), bytes("\0", 1),
                                                   "service", "instance", "method", "\x01\x02"}));
}

TEST(MessageRequest, OfNothingIsEmptyFrames) {
  MessageRequest request({}, "", "", "", nullptr, 0);
  EXPECT_EQ(sentOver(ZMQ_PUSH, request), (Frames{"", "RS02", bytes("\0", 1), "", "", "", "", ""}));
}

TEST(MessageRequest, IsReadFromTheseFrames) {
  Link link(ZMQ_ROUTER);
  link.send({"", "RS02", bytes("\0", 1), bytes("\0\xFF", 2), "ser\xC3\xB6vice", bytes("in\0st", 5),
             "method", std::string(100000, 'p')});
  MessageRequest request;
  ASSERT_TRUE(request.receive(link.receiver()));
  EXPECT_EQ(contentsOf(request), (Frames{bytes("\0\xFF", 2), "ser\xC3\xB6vice", bytes("in\0st", 5),
                                         "method", std::string(100000, 'p')}));
}

TEST(MessageRequest, IsForwardedBehindTheSlavesIdentity) {
  // Two routers in a row: the client's identity stays in the envelope behind the slave's.
  Link client(ZMQ_ROUTER);
  client.send(Frames{""} + allKinds()[0]->message());
  MessageRequest request;
  ASSERT_TRUE(request.receive(client.receiver()));
  EXPECT_EQ(texts(request.envelope()), Frames{"peer"});
  request.insertEnvelopeFront(ZmqFrame(std::string("slave")));
  EXPECT_EQ(texts(request.envelope()), (Frames{"slave", "peer"}));
  EXPECT_EQ(sentOver(ZMQ_PUSH, request), (Frames{"slave", "peer", ""} + allKinds()[0]->message()));
}

TEST(MessageRequest, CarriesALargePayloadOverTcp) {
  const std::string endpoint = freeTcp();
  ZmqSocket server(ZMQ_ROUTER);
  server.setReceiveTimeout(std::chrono::milliseconds(kPatience).count());
  server.bind(endpoint);
  std::string payload(64U << 20U, 'x');
  payload.front() = 'a';
  payload.back() = 'z';
  ZmqSocket client(ZMQ_REQ, endpoint);
  MessageRequest({0}, "s", "i", "m", payload.data(), payload.size()).send(client);
  MessageRequest received;
  ASSERT_TRUE(received.receive(server));
  EXPECT_EQ(received.payloadSize(), payload.size());
  EXPECT_TRUE(text(received.payload(), received.payloadSize()) == payload);
}

}  // namespace
}  // namespace tessel::test
