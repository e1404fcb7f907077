#include "feed.h"

#include <functional>
#include <utility>

#include "clock.h"
#include "names.h"

namespace vitals {
namespace {

using tessel::SubscriptionMode;

// AllValues: what was last published comes at once, and then whatever is new.
class RowSubscriber : public tessel::Subscriber {
 public:
  RowSubscriber(Board& board, const std::string& key)
      : Subscriber(SubscriptionMode::AllValues, topicOf(key), tagOf(key)),
        board_(board),
        key_(key) {}

 private:
  void onValue(const void* data, std::size_t size) override {
    if (const auto reading = decodeReading(data, size)) board_.takeValue(key_, *reading);
  }
  void onDeletion() override { board_.takeWithdrawal(key_); }

  Board& board_;
  const std::string key_;
};

// Counts what is published under one topic from now on, whatever the tag.
class TopicSubscriber : public tessel::MultiSubscriber {
 public:
  TopicSubscriber(Board& board, const std::string& topic)
      : MultiSubscriber(topic, ""), board_(board) {}

 private:
  void onValue(const std::string& topic, const std::string&, const void*, std::size_t) override {
    board_.countTopic(topic);
  }

  Board& board_;
};

// Hears the sensor's list of keys: Once the one that is there, AllValues each that follows as well.
class KeysSubscriber : public tessel::Subscriber {
 public:
  KeysSubscriber(SubscriptionMode mode, std::function<void(const Keys&)> onKeys,
                 std::function<void()> onNoKeys)
      : Subscriber(mode, kSensorTopic, kKeysTag),
        onKeys_(std::move(onKeys)),
        onNoKeys_(std::move(onNoKeys)) {}

 private:
  void onValue(const void* data, std::size_t size) override { onKeys_(decodeKeys(data, size)); }
  void onDeletion() override { onNoKeys_(); }

  const std::function<void(const Keys&)> onKeys_;
  const std::function<void()> onNoKeys_;
};

}  // namespace

Feed::Feed(const Ports& ports, Board& board)
    : board_(board),
      hub_(std::make_shared<HubWatch>()),
      firstKeys_(std::make_shared<KeysSubscriber>(
          SubscriptionMode::Once, [this](const Keys& keys) { onFirstKeys(keys); },
          [this] { onNoKeys(); })),
      keys_(std::make_shared<KeysSubscriber>(
          SubscriptionMode::AllValues, [this](const Keys& keys) { onKeys(keys); },
          [this] { onNoKeys(); })),
      dispatcher_(endpoint(ports.updates), endpoint(ports.cache)) {
  dispatcher_.registerSubscriber(hub_);
  dispatcher_.start();
}

void Feed::join() { dispatcher_.registerSubscriber(firstKeys_); }

// The hub answers subscriptions in their order. So when the list comes again, to the one who asked
// for it last, the hub has answered for every row.
void Feed::onFirstKeys(const Keys& keys) {
  board_.beginJoin(keys);
  follow(keys);
  dispatcher_.registerSubscriber(keys_);
}

void Feed::onKeys(const Keys& keys) {
  board_.takeKeys(keys);
  follow(keys);
}

void Feed::onNoKeys() { sensorEnded_ = now(); }

void Feed::follow(const Keys& keys) {
  for (const std::string& key : keys) {
    if (!board_.addRow(key)) continue;
    auto& row = rows_[key] = std::make_shared<RowSubscriber>(board_, key);
    dispatcher_.registerSubscriber(row);
    auto& topic = topics_[topicOf(key)];
    if (topic) continue;
    topic = std::make_shared<TopicSubscriber>(board_, topicOf(key));
    dispatcher_.registerSubscriber(topic);
  }
}

}  // namespace vitals
