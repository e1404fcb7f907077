#ifndef TESSEL_TESTS_PUBSUB_DISPATCHER_FIXTURE_H
#define TESSEL_TESTS_PUBSUB_DISPATCHER_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tessel/message_dispatcher.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/deadline.h"
#include "support/raw_broker.h"
#include "support/recorders.h"

namespace tessel::test {

using Lines = std::vector<std::string>;

inline std::shared_ptr<RecordingSubscriber> recorder(SubscriptionMode mode,
                                                     const std::string& topic,
                                                     const std::string& tag) {
  return std::make_shared<RecordingSubscriber>(mode, topic, tag);
}

/// A dispatcher at a raw broker.
class DispatcherTest : public ::testing::Test {
 protected:
  explicit DispatcherTest(std::size_t workers = 4)
      : dispatcher(broker.updatesEndpoint, broker.cacheEndpoint, workers) {}

  /// Starts, with a marker subscribed on both sockets.
  void start() {
    dispatcher.start();
    addMarkers();
  }
  void addMarkers() {
    dispatcher.registerSubscriber(updatesMarker);
    dispatcher.registerSubscriber(cacheMarker);
    EXPECT_EQ(broker.updates.receive(), subscribed(kMarker));
    EXPECT_EQ(broker.cache.receive(), subscribed(kMarker));
  }

  /// Registers on a running dispatcher and waits until the broker has read the subscription.
  template <typename T>
  void subscribe(RawPeer& socket, const std::shared_ptr<T>& subscriber, const std::string& key) {
    dispatcher.registerSubscriber(subscriber);
    EXPECT_EQ(socket.receive(), subscribed(key));
  }

  /// Waits until every message sent so far has been delivered to everybody, the marker on the
  /// updates socket included: the callbacks of one end before those of the next begin.
  void settle() {
    for (const auto& [socket, marker] :
         {std::pair{&broker.updates, updatesMarker}, std::pair{&broker.cache, cacheMarker}}) {
      const std::size_t before = marker->journal.size();
      socket->send(valueMessage(kMarker, "."));
      EXPECT_TRUE(marker->journal.waitFor(before + 1));
    }
  }

  /// Nothing has been sent to the broker that it has not read: a subscription made now is what it
  /// reads next, on both sockets. It also makes the dispatcher look for subscribers that are gone.
  void expectNothingMoreOnTheWire() {
    const std::string topic = "fence" + std::to_string(fences.size());
    fences.push_back(recorder(SubscriptionMode::NewValues, topic, ""));
    dispatcher.registerSubscriber(fences.back());
    fences.push_back(recorder(SubscriptionMode::AllValues, topic, ""));
    dispatcher.registerSubscriber(fences.back());
    EXPECT_EQ(broker.updates.receive(), subscribed(topic + ":default"));
    EXPECT_EQ(broker.cache.receive(), subscribed(topic + ":default"));
  }

  static constexpr const char* kMarker = "~:default";

  RawBroker broker;
  std::shared_ptr<RecordingSubscriber> updatesMarker =
      recorder(SubscriptionMode::NewValues, "~", "");
  std::shared_ptr<RecordingSubscriber> cacheMarker = recorder(SubscriptionMode::AllValues, "~", "");
  std::vector<std::shared_ptr<RecordingSubscriber>> fences;
  MessageDispatcher dispatcher;  // last: no callback may come once the others are gone
};

}  // namespace tessel::test

#endif
