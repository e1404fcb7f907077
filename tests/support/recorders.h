#ifndef TESSEL_TESTS_SUPPORT_RECORDERS_H
#define TESSEL_TESTS_SUPPORT_RECORDERS_H

#include <tessel/message_broker.h>
#include <tessel/message_dispatcher.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "support/deadline.h"

namespace tessel::test {

/// What happened, in order, as one line of text each; other threads add, the test waits.
class Journal {
 public:
  void add(std::string line) {
    const std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(std::move(line));
    changed_.notify_all();
  }
  /// False when there are fewer than `count` lines after the patience.
  bool waitFor(std::size_t count, std::chrono::milliseconds patience = kPatience) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, patience, [&] { return lines_.size() >= count; });
  }
  std::vector<std::string> lines() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  /// The lines once there are at least `count` of them, or what there is after the patience.
  std::vector<std::string> lines(std::size_t count) {
    waitFor(count);
    return lines();
  }
  std::size_t size() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lines_.size();
  }
  void clear() {
    const std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;
};

/// Lines such as "value 1" and "deleted".
class RecordingSubscriber : public Subscriber {
 public:
  using Subscriber::Subscriber;
  Journal journal;

 protected:
  void onValue(const void* data, std::size_t size) override {
    journal.add("value " + std::string(static_cast<const char*>(data), size));
  }
  void onDeletion() override { journal.add("deleted"); }
};

/// Lines such as "value topic tag 1" and "deleted topic tag".
class RecordingMultiSubscriber : public MultiSubscriber {
 public:
  using MultiSubscriber::MultiSubscriber;
  Journal journal;

 protected:
  void onValue(const std::string& topic, const std::string& tag, const void* data,
               std::size_t size) override {
    journal.add("value " + topic + " " + tag + " " +
                std::string(static_cast<const char*>(data), size));
  }
  void onDeletion(const std::string& topic, const std::string& tag) override {
    journal.add("deleted " + topic + " " + tag);
  }
};

/// Lines such as "subscribe topic tag" and "publish topic tag 1 1 0" (cached, updated, suppressed).
class RecordingBrokerObserver : public MessageBrokerObserver {
 public:
  Journal journal;

  void onSubscribe(const std::string& topic, const std::string& tag) override {
    journal.add("subscribe " + topic + " " + tag);
  }
  void onUnsubscribe(const std::string& topic, const std::string& tag) override {
    journal.add("unsubscribe " + topic + " " + tag);
  }
  void onPublish(const std::string& topic, const std::string& tag, bool cached, bool cacheUpdated,
                 bool suppressed) override {
    journal.add("publish " + topic + " " + tag + flags(cached, cacheUpdated, suppressed));
  }
  void onUnpublish(const std::string& topic, const std::string& tag, bool removeFromCache,
                   bool cacheUpdated, bool suppressed) override {
    journal.add("unpublish " + topic + " " + tag +
                flags(removeFromCache, cacheUpdated, suppressed));
  }

 private:
  static std::string flags(bool a, bool b, bool c) {
    return std::string(a ? " 1" : " 0") + (b ? " 1" : " 0") + (c ? " 1" : " 0");
  }
};

}  // namespace tessel::test

#endif
