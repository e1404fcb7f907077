// The bytes that docs/wire_format.md shows, made by the library and read by bare libzmq sockets.
// The page shows the regions of docs/snippets/wire_format.txt; after a change of the format, that
// file becomes what the failing test prints.
#include <gtest/gtest.h>
#include <tessel/tessel.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/endpoints.h"
#include "support/raw_broker.h"
#include "support/raw_peer.h"
#include "support/rpc_peers.h"

namespace tessel::test {
namespace {

constexpr std::size_t kBytesInLine = 16;
constexpr std::size_t kColumn = 3 * kBytesInLine + 2;  // where the words behind the bytes begin

/// "52 53 30 32".
std::string hex(const std::string& bytes) {
  std::string text;
  char digits[4];
  for (const char byte : bytes) {
    std::snprintf(digits, sizeof digits, "%02x ", static_cast<unsigned char>(byte));
    text += digits;
  }
  return text.substr(0, text.size() - 1);
}

std::string line(std::string left, const std::string& right) {
  left.resize(kColumn, ' ');
  return left + right + "\n";
}

/// The bytes of a frame and the words that belong to it.
std::string dump(const std::string& frame, const std::string& words) {
  if (frame.empty()) return line("(empty)", words);
  // Another one on every run.
  if (words.find("named by the ROUTER") != std::string::npos) return line("00 .. .. .. ..", words);
  if (frame.size() <= kBytesInLine) return line(hex(frame), words);
  return line(hex(frame.substr(0, kBytesInLine)), words) + hex(frame.substr(kBytesInLine)) + "\n";
}

std::string dump(const Frames& frames, const std::vector<std::string>& words) {
  std::string text;
  EXPECT_EQ(frames.size(), words.size());
  for (std::size_t i = 0; i < std::min(frames.size(), words.size()); ++i) {
    text += dump(frames[i], words[i]);
  }
  return text;
}

/// What the page shows under that name.
std::string shown(const std::string& name) {
  std::ifstream file(TESSEL_WIRE_FORMAT);
  std::string text;
  std::string line;
  bool inside = false;
  while (std::getline(file, line)) {
    if (line == "# [" + name + "]") {
      inside = !inside;
    } else if (inside) {
      text += line + "\n";
    }
  }
  return text;
}

class WireFormat : public testing::Test {
 protected:
  const std::string endpoint_ = uniqueInproc();
};

TEST_F(WireFormat, OfAPublicationIsAsThePageShows) {
  RawPeer broker(ZMQ_PULL);
  broker.bind(endpoint_);
  Publisher({endpoint_}, "temperature", "kitchen").publish("21.5", 4);
  EXPECT_EQ(dump(broker.receive(),
                 {"delimiter", "signature \"RS02\"", "type 3: publication", "topic \"temperature\"",
                  "tag \"kitchen\"", "value \"21.5\"", "options: 1, keep"}),
            shown("publication"));
}

TEST_F(WireFormat, OfAWithdrawalIsAsThePageShows) {
  RawPeer broker(ZMQ_PULL);
  broker.bind(endpoint_);
  Publisher({endpoint_}, "temperature", "kitchen").unpublish();
  EXPECT_EQ(
      dump(broker.receive(), {"delimiter", "signature \"RS02\"", "type 4: withdrawal",
                              "topic \"temperature\"", "tag \"kitchen\"", "options: 1, forget"}),
      shown("withdrawal"));
}

TEST_F(WireFormat, OfNotificationsIsAsThePageShows) {
  MessageBroker broker({}, {}, {endpoint_});
  const auto observer = std::make_shared<RecordingBrokerObserver>();
  broker.attach(observer);
  broker.start();
  Publisher kitchen(broker, "temperature", "kitchen");
  kitchen.publish("21.5", 4);
  ASSERT_TRUE(observer->journal.waitFor(1));
  RawPeer late(ZMQ_SUB);
  late.connect(endpoint_).subscribe("temperature:kitchen");
  const Frames replayed = late.receive();
  kitchen.publish("22.0", 4);
  const Frames live = late.receive();
  kitchen.unpublish();
  const Frames withdrawn = late.receive();
  const std::string key = "key \"temperature:kitchen\"";
  EXPECT_EQ(dump(replayed, {key, "value \"21.5\"", "flags: 1, replayed"}), shown("replayed"));
  EXPECT_EQ(dump(live, {key, "value \"22.0\"", "flags: 0, live"}), shown("live"));
  EXPECT_EQ(dump(withdrawn, {key, "no value", "flags: 2, withdrawn"}), shown("withdrawn"));
}

TEST_F(WireFormat, OfSubscriptionsIsAsThePageShows) {
  RawBroker broker;
  MessageDispatcher dispatcher(broker.updatesEndpoint, broker.cacheEndpoint);
  dispatcher.start();
  const auto display =
      std::make_shared<Subscriber>(SubscriptionMode::AllValues, "temperature", "kitchen");
  const auto log = std::make_shared<MultiSubscriber>("temp");
  dispatcher.registerSubscriber(display);
  dispatcher.registerSubscriber(log);
  EXPECT_EQ(dump(broker.cache.receive(), {"subscribe \"temperature:kitchen\""}),
            shown("subscribe_cache"));
  EXPECT_EQ(dump(broker.updates.receive(), {"subscribe \"temp\""}), shown("subscribe_updates"));
  dispatcher.unregisterSubscriber(log);
  EXPECT_EQ(dump(broker.updates.receive(), {"unsubscribe \"temp\""}), shown("unsubscribe"));
}

const std::vector<std::string> kRequestWords = {
    "delimiter",           "signature \"RS02\"",      "type 0: request",  "reserved",
    "service \"greeter\"", "instance \"front door\"", "method \"greet\"", "payload \"world\""};
const std::vector<std::string> kReplyWords = {"delimiter",         "signature \"RS02\"",
                                              "type 1: reply",     "reserved, from the request",
                                              "status 0: success", "payload \"Hello, world\""};

/// With more envelope frames in front.
std::vector<std::string> behind(std::vector<std::string> envelope,
                                const std::vector<std::string>& words) {
  envelope.insert(envelope.end(), words.begin(), words.end());
  return envelope;
}

TEST_F(WireFormat, OfARequestIsAsThePageShows) {
  RawPeer master(ZMQ_ROUTER);
  master.bind(endpoint_);
  RpcClient client(endpoint_, std::chrono::milliseconds(0));
  Buffer out;
  std::size_t size = 0;
  EXPECT_THROW(client.CallMethod("greeter", "front door", "greet", "world", 5, out, size),
               rpc_timeout);
  EXPECT_EQ(dump(master.receive(), behind({"the client, named by the ROUTER"}, kRequestWords)),
            shown("request"));
}

TEST_F(WireFormat, OfAReplyIsAsThePageShows) {
  RpcBroker master(true, {endpoint_}, std::make_shared<ThreadedRpcDispatcher>());
  master.registerService(answering("greeter", "front door", "Hello, world"));
  master.start();
  RawPeer client(ZMQ_DEALER);
  client.connect(endpoint_);
  client.send(enveloped({}, requestFrames("greeter", "front door", "greet", "world")));
  EXPECT_EQ(dump(client.receive(), kReplyWords), shown("reply"));
}

TEST_F(WireFormat, OfARegistrationIsAsThePageShows) {
  RawPeer master(ZMQ_ROUTER);
  master.bind(endpoint_);
  RpcBroker slave(false, {endpoint_}, std::make_shared<ThreadedRpcDispatcher>());
  slave.registerService(answering("greeter", "front door", "Hello, world"));
  slave.start();
  EXPECT_EQ(dump(master.receive(), {"the slave, named by the ROUTER", "delimiter",
                                    "signature \"RS02\"", "type 2: registration", "1: register",
                                    "service \"greeter\"", "instance \"front door\""}),
            shown("registration"));
}

// A bare slave, so that what it is sent can be seen.
TEST_F(WireFormat, OfAForwardedRequestIsAsThePageShows) {
  RpcBroker master(true, {endpoint_}, std::make_shared<ThreadedRpcDispatcher>());
  const auto observer = std::make_shared<RecordingRpcObserver>();
  master.attach(observer);
  master.start();
  RawPeer slave(ZMQ_DEALER);
  slave.set(ZMQ_ROUTING_ID, std::string("slave")).connect(endpoint_);
  slave.send(enveloped({}, registrationFrames(true, "greeter", "front door")));
  ASSERT_TRUE(observer->journal.waitFor(1));
  RawPeer client(ZMQ_DEALER);
  client.set(ZMQ_ROUTING_ID, std::string("client")).connect(endpoint_);
  client.send(enveloped({}, requestFrames("greeter", "front door", "greet", "world")));
  EXPECT_EQ(dump(slave.receive(), behind({"the client, here \"client\""}, kRequestWords)),
            shown("forwarded"));
}

// A bare master, so that what comes back can be seen.
TEST_F(WireFormat, OfASlavesReplyIsAsThePageShows) {
  RawPeer master(ZMQ_ROUTER);
  // By TCP: in the process a worker answers only where the library itself has bound.
  RpcBroker slave(false, {bindTcp(master)}, std::make_shared<ThreadedRpcDispatcher>());
  slave.registerService(answering("greeter", "front door", "Hello, world"));
  slave.start();
  const std::string identity = master.receive().front();
  master.send(
      enveloped({identity, "client"}, requestFrames("greeter", "front door", "greet", "world")));
  EXPECT_EQ(dump(master.receive(),
                 behind({"the slave's worker, named by the ROUTER", "the client, here \"client\""},
                        kReplyWords)),
            shown("slaves_reply"));
}

}  // namespace
}  // namespace tessel::test
