// Public headers and the library as it ships, nothing of its inside.
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "api/endpoint_kinds.h"
#include "support/deadline.h"
#include "tessel/tessel.h"

namespace tessel::test {
namespace {

/// What subscribers heard, in order.
class Journal {
 public:
  void add(const std::string& line) {
    const std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(line);
    added_.notify_all();
  }
  /// All there is as soon as there are `count` lines, or after the patience.
  std::vector<std::string> wait(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    added_.wait_for(lock, kPatience, [&] { return lines_.size() >= count; });
    return lines_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable added_;
  std::vector<std::string> lines_;
};

std::string text(const void* data, std::size_t size) {
  return std::string(static_cast<const char*>(data), size);
}

class OneKey : public Subscriber, public Journal {
 public:
  OneKey(SubscriptionMode mode, const std::string& topic, const std::string& tag)
      : Subscriber(mode, topic, tag) {}

 protected:
  void onValue(const void* data, std::size_t size) override { add(text(data, size)); }
  void onDeletion() override { add("deleted"); }
};

class ManyKeys : public MultiSubscriber, public Journal {
 public:
  explicit ManyKeys(const std::string& prefix) : MultiSubscriber(prefix) {}

 protected:
  void onValue(const std::string& topic, const std::string& tag, const void* data,
               std::size_t size) override {
    add(topic + " " + tag + " " + text(data, size));
  }
  void onDeletion(const std::string& topic, const std::string& tag) override {
    add(topic + " " + tag + " deleted");
  }
};

class PublishSubscribe : public ::testing::TestWithParam<EndpointKind> {
 protected:
  const std::string publish_ = newEndpoint(GetParam());
  const std::string updates_ = newEndpoint(GetParam());
  const std::string cache_ = newEndpoint(GetParam());
  MessageBroker broker_{{publish_}, {updates_}, {cache_}};
};

INSTANTIATE_TEST_SUITE_P(Over, PublishSubscribe, everyKind(), kindName);

void publish(const Publisher& publisher, const std::string& value) {
  publisher.publish(value.data(), value.size());
}

TEST_P(PublishSubscribe, ASubscriberGetsTheCachedValueThenWhatFollowsInOrder) {
  MessageDispatcher dispatcher(updates_, cache_);
  const auto subscriber = std::make_shared<OneKey>(SubscriptionMode::AllValues, "speed", "left");
  broker_.start();
  dispatcher.start();

  const Publisher publisher({publish_}, "speed", "left");
  publish(publisher, "1");
  dispatcher.registerSubscriber(subscriber);
  EXPECT_EQ(subscriber->wait(1), std::vector<std::string>({"1"}));
  publish(publisher, "2");
  publish(publisher, "2");  // a repeat: not passed on
  publish(publisher, "3");
  publisher.unpublish();
  EXPECT_EQ(subscriber->wait(4), std::vector<std::string>({"1", "2", "3", "deleted"}));
}

TEST_P(PublishSubscribe, APrefixSubscriberHearsOfEveryTag) {
  MessageDispatcher dispatcher(updates_, cache_, 1);
  const auto subscriber = std::make_shared<ManyKeys>("speed:");
  dispatcher.registerSubscriber(subscriber);
  broker_.start();
  dispatcher.start();

  const Publisher left({publish_}, "speed", "left");
  const Publisher other({publish_}, "height", "left");
  const Publisher right({publish_}, "speed", "");
  // Until the subscription has reached the broker nothing comes.
  ASSERT_TRUE(eventually([&] {
    left.unpublish();
    publish(left, "probe");
    return !subscriber->wait(0).empty();
  }));
  publish(other, "not for us");
  publish(right, "last");
  ASSERT_TRUE(eventually([&] { return subscriber->wait(0).back() == "speed default last"; }));
  for (const std::string& line : subscriber->wait(0)) {
    EXPECT_NE(line.find("speed "), std::string::npos) << line;
  }
}

TEST_P(PublishSubscribe, AStoppedDispatcherAndBrokerGoOnAfterTheNextStart) {
  MessageDispatcher dispatcher(updates_, cache_);
  const auto subscriber = std::make_shared<OneKey>(SubscriptionMode::AllValues, "speed", "");
  dispatcher.registerSubscriber(subscriber);
  Publisher publisher({publish_}, "speed", "");
  publish(publisher, "queued");

  broker_.start();
  dispatcher.start();
  EXPECT_EQ(subscriber->wait(1), std::vector<std::string>({"queued"}));
  dispatcher.stop();
  broker_.stop();
  broker_.start();
  dispatcher.start();
  // Until the subscription is back at the broker nothing comes.
  publisher.enablePublishIfEqual(true);
  EXPECT_TRUE(eventually([&] {
    publish(publisher, "again");
    return subscriber->wait(0).back() == "again";
  }));
}

TEST(PublishSubscribeErrors, AreStandardOnesWhenTheyLeaveTheLibrary) {
  EXPECT_THROW(Publisher("a:b", ""), std::invalid_argument);
  EXPECT_THROW(MessageBroker({"nonsense"}, {}, {}), std::runtime_error);
  MessageDispatcher dispatcher(uniqueInproc(), uniqueInproc());
  EXPECT_THROW(dispatcher.registerSubscriber(std::shared_ptr<Subscriber>()), std::invalid_argument);
}

}  // namespace
}  // namespace tessel::test
