#include "support/roads.h"

#include <atomic>
#include <cstring>

namespace tessel::bench {

const std::string kTopic = "temperature";
const std::string kTag = "outside";

namespace {

// The system gives ports out in turn, so three that are free together differ.
std::string newTcp() {
  raw::Context context;
  raw::Socket socket(context, ZMQ_PULL);
  socket.bind("tcp://127.0.0.1:*");
  char endpoint[64];
  std::size_t size = sizeof endpoint;
  zmq_getsockopt(socket.handle(), ZMQ_LAST_ENDPOINT, endpoint, &size);
  return endpoint;
}

std::string newInproc() {
  static std::atomic<int> next{0};
  return "inproc://bench" + std::to_string(next++);
}

}  // namespace

std::string newEndpoint(Transport transport) {
  return transport == Transport::kTcp ? newTcp() : newInproc();
}

raw::Endpoints newEndpoints(Transport transport) {
  return {newEndpoint(transport), newEndpoint(transport), newEndpoint(transport)};
}

TesselRoad::TesselRoad(Transport transport, Callback callback)
    : TesselRoad(newEndpoints(transport), std::move(callback)) {}

TesselRoad::TesselRoad(const raw::Endpoints& endpoints, Callback callback)
    : broker_({endpoints.pull}, {endpoints.updates}, {endpoints.cache}),
      publisher_({endpoints.pull}, kTopic, kTag),
      subscriber_(std::make_shared<CallbackSubscriber>(SubscriptionMode::NewValues, kTopic, kTag,
                                                       std::move(callback))),
      dispatcher_(endpoints.updates, endpoints.cache) {
  dispatcher_.registerSubscriber(subscriber_);
  dispatcher_.start();
  broker_.start();
}

RawRoad::RawRoad(Transport transport, Callback callback)
    : RawRoad(newEndpoints(transport), std::move(callback)) {}

RawRoad::RawRoad(const raw::Endpoints& endpoints, Callback callback)
    : pullEndpoint_(endpoints.pull),
      broker_(context_, endpoints, false),
      push_(context_, ZMQ_PUSH),
      consumer_(context_, endpoints.updates, std::move(callback)) {
  push_.connect(endpoints.pull);
  consumer_.subscribe(kTopic + ":" + kTag);
  context_.run([this] { broker_.run(); });
  context_.run([this] { consumer_.run(); });
}

std::uint64_t numberOf(const void* data) {
  std::uint64_t number = 0;
  std::memcpy(&number, data, sizeof number);
  return number;
}

void setNumber(std::vector<std::uint8_t>& value, std::uint64_t number) {
  std::memcpy(value.data(), &number, sizeof number);
}

}  // namespace tessel::bench
