#ifndef TESSEL_DOCS_SNIPPETS_SUPPORT_H
#define TESSEL_DOCS_SNIPPETS_SUPPORT_H

// What the programs of the guide share and do not show: waiting for what happens on other threads,
// so that each prints the same text on every run.

#include <tessel/tessel.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>

namespace guide {

// Words that any thread may add, to be printed as one line.
class Line {
 public:
  void add(const std::string& word) {
    const std::lock_guard<std::mutex> lock(mutex_);
    text_ += (text_.empty() || text_.back() == '\n' ? "" : " ") + word;
    ++count_;
    changed_.notify_all();
  }
  // Ends the program when there are fewer than `count` words after a long time.
  std::string waitFor(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, std::chrono::seconds(60), [&] { return count_ >= count; })) {
      std::cerr << "only: " << text_ << "\n";
      std::_Exit(1);
    }
    return text_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string text_;
  int count_ = 0;
};

// Counts the values that a broker has taken.
class Witness : public tessel::MessageBrokerObserver {
 public:
  void waitForValues(int count) {
    for (int i = 0; i < 60000 && values_ < count; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  int values() const { return values_; }

  void onSubscribe(const std::string&, const std::string&) override {}
  void onUnsubscribe(const std::string&, const std::string&) override {}
  void onPublish(const std::string&, const std::string&, bool, bool, bool) override { ++values_; }
  void onUnpublish(const std::string&, const std::string&, bool, bool, bool) override {}

 private:
  std::atomic<int> values_{0};
};

// A receiver of live values that knows whether one has come.
class Probe : public tessel::Subscriber {
 public:
  Probe() : Subscriber(tessel::SubscriptionMode::NewValues, "probe", "") {}
  bool reached() const { return reached_; }

 private:
  void onValue(const void*, std::size_t) override { reached_ = true; }
  std::atomic<bool> reached_{false};
};

// Returns when what was registered before for live values is subscribed at the broker.
inline void waitUntilSubscribed(tessel::MessageDispatcher& dispatcher,
                                const tessel::MessageBroker& broker) {
  tessel::Publisher publisher(broker, "probe", "");
  publisher.enableCache(false);
  const auto probe = std::make_shared<Probe>();
  dispatcher.registerSubscriber(probe);
  for (int i = 0; i < 60000 && !probe->reached(); ++i) {
    publisher.publish("", 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

}  // namespace guide

#endif
