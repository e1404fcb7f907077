// Late joiners while values flow:
//
//   late_joiners [--seed N] [--count JOINS] [--seconds N]
//
// Publishing threads count the values of each key up while subscribers of all keys join many
// dispatchers. Every subscriber must have its key's last value in the end; its first is no older
// than what the broker had when it joined, if its dispatcher did not have the key yet, or than what
// its dispatcher had delivered; each comes once, in order and without a hole. One that asked for
// one value gets one.

#include <tessel/tessel.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/deadline.h"
#include "support/endpoints.h"
#include "support/watchdog.h"
#include "torture.h"

namespace tessel::test {
namespace {

constexpr std::chrono::seconds kStuck{100};
constexpr std::uint64_t kMaxAhead = 500;

class Joiner : public Subscriber {
 public:
  Joiner(SubscriptionMode mode, std::size_t key, std::uint64_t atLeast)
      : Subscriber(mode, "k" + std::to_string(key), ""),
        key_(key),
        atLeast_(atLeast),
        once_(mode == SubscriptionMode::Once) {}
  std::size_t key() const { return key_; }
  bool once() const { return once_; }
  std::uint64_t last() const { return last_; }

 protected:
  void onValue(const void* data, std::size_t size) override {
    std::uint64_t value = 0;
    require(size == sizeof value, "a value has another size");
    std::memcpy(&value, data, sizeof value);
    const std::uint64_t before = last_.exchange(value);
    if (before == 0) {
      require(value >= atLeast_, "the first value is older than the join");
    } else {
      require(!once_, "who asked for one value gets another");
      require(value > before, "a value comes again or late");
      require(value == before + 1, "a value is missing");
    }
  }

 private:
  const std::size_t key_;
  const std::uint64_t atLeast_;
  const bool once_;
  std::atomic<std::uint64_t> last_{0};
};

class Handled : public MessageBrokerObserver {
 public:
  explicit Handled(std::size_t keys) : of(keys) {}
  void onSubscribe(const std::string&, const std::string&) override {}
  void onUnsubscribe(const std::string&, const std::string&) override {}
  void onPublish(const std::string& topic, const std::string&, bool, bool, bool) override {
    if (topic.front() == 'k') ++of[std::stoul(topic.substr(1))];
    ++inAll;
  }
  void onUnpublish(const std::string&, const std::string&, bool, bool, bool) override {}

  std::vector<std::atomic<std::uint64_t>> of;  // the last is the fence's
  std::atomic<std::uint64_t> inAll{0};
};

struct Shape {
  std::size_t dispatchers;
  std::size_t keys;
};
constexpr Shape kShapes[] = {{1, 2500}, {4, 500}, {16, 100}, {40, 30}};

class Batch {
 public:
  Batch(std::uint64_t number, const std::string& kind, const Shape& shape)
      : number_(number),
        kind_(kind),
        shape_(shape),
        broker_({pull_}, {updates_}, {cache_}),
        handled_(std::make_shared<Handled>(shape.keys + 1)),
        sequences_(shape.keys),
        joiners_(shape.dispatchers) {
    broker_.attach(handled_);
    broker_.start();
    for (std::size_t i = 0; i < shape.dispatchers; ++i) {
      dispatchers_.push_back(std::make_unique<MessageDispatcher>(updates_, cache_, 1 + i % 3));
      dispatchers_.back()->start();
    }
  }

  std::uint64_t run() {
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < kPublishers; ++i) threads.emplace_back([=] { publish(i); });
    std::vector<std::thread> joining;
    for (std::size_t i = 0; i < kJoining; ++i) joining.emplace_back([=] { join(i); });
    // Some batches have their last value long before the last one joins.
    Random random = randomFor(number_, 1);
    const std::uint64_t enough = shape_.keys * (1 + pick(random, 10));
    while (joined_ < kJoining && (number_ % 2 == 0 || handled_->inAll < enough)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    flowing_ = false;
    for (std::thread& thread : threads) thread.join();
    for (std::thread& thread : joining) thread.join();
    return settle();
  }

 private:
  static constexpr std::size_t kPublishers = 2;
  static constexpr std::size_t kJoining = 4;

  std::string endpoint() const {
    if (kind_ == "tcp") return freeTcp();
    return kind_ == "ipc" ? uniqueIpc() : uniqueInproc();
  }

  void publish(std::size_t thread) {
    Random random = randomFor(number_, 100 + thread);
    std::vector<std::unique_ptr<Publisher>> publishers;
    for (std::size_t key = thread; key < shape_.keys; key += kPublishers) {
      publishers.push_back(std::make_unique<Publisher>(std::vector<std::string>{pull_},
                                                       "k" + std::to_string(key), ""));
    }
    while (flowing_) {
      const std::size_t i = pick(random, publishers.size());
      const std::uint64_t value = ++sequences_[i * kPublishers + thread];
      ++sent_;
      publishers[i]->publish(&value, sizeof value);
      if (pick(random, 16) == 0) std::this_thread::sleep_for(std::chrono::microseconds(500));
      require(eventually([&] { return handled_->inAll + kMaxAhead > sent_; }, kStuck),
              "the broker does not take the values");
    }
    // The connection ends with the thread, and what is still in it with the connection.
    require(eventually([&] { return handled_->inAll >= sent_; }, kStuck),
            "the broker does not take the last values");
  }

  // Each dispatcher is one thread's, which takes its keys in an order of its own.
  void join(std::size_t thread) {
    Random random = randomFor(number_, 200 + thread);
    std::vector<std::size_t> keys(shape_.keys);
    for (std::size_t i = 0; i < keys.size(); ++i) keys[i] = i;
    for (std::size_t place = thread; place < shape_.dispatchers; place += kJoining) {
      std::shuffle(keys.begin(), keys.end(), random);
      for (const std::size_t key : keys) {
        // One that wants a single value makes its dispatcher leave the key, when it is alone.
        // Nobody joins there again: values from before are on their way, and who gets one of them
        // is not given the answer from the cache.
        const bool once = pick(random, 4) == 0;
        const std::shared_ptr<Joiner> first =
            add(place, once ? SubscriptionMode::Once : SubscriptionMode::AllValues, key,
                handled_->of[key]);
        if (!once && pick(random, 2) == 0) seconds(place, *first, random);
        if (pick(random, 50) == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
    ++joined_;
  }
  void seconds(std::size_t place, const Joiner& first, Random& random) {
    const SubscriptionMode modes[] = {SubscriptionMode::AllValues, SubscriptionMode::Once};
    if (pick(random, 2) == 0) std::this_thread::yield();
    add(place, modes[pick(random, 2)], first.key(), first.last());
  }
  std::shared_ptr<Joiner> add(std::size_t place, SubscriptionMode mode, std::size_t key,
                              std::uint64_t atLeast) {
    const auto joiner = std::make_shared<Joiner>(mode, key, atLeast);
    joiners_[place].push_back(joiner);
    dispatchers_[place]->registerSubscriber(joiner);
    return joiner;
  }

  // Keys that were never published have no last value to get.
  bool served(const Joiner& joiner) const {
    const std::uint64_t last = sequences_[joiner.key()];
    return joiner.once() ? (last == 0) == (joiner.last() == 0) : joiner.last() == last;
  }
  std::uint64_t settle() {
    std::uint64_t joins = 0;
    for (const auto& joiners : joiners_) {
      joins += joiners.size();
      for (const auto& joiner : joiners) {
        require(eventually([&] { return served(*joiner); }, kStuck),
                joiner->once() ? "who asked for one value gets none" : "a last value is missed");
      }
    }
    // What comes behind everything else, on every cache connection.
    std::vector<std::shared_ptr<Joiner>> fences;
    for (const auto& dispatcher : dispatchers_) {
      fences.push_back(std::make_shared<Joiner>(SubscriptionMode::AllValues, shape_.keys, 0));
      dispatcher->registerSubscriber(fences.back());
    }
    std::thread([&] {
      const std::uint64_t value = 1;
      Publisher(std::vector<std::string>{pull_}, "k" + std::to_string(shape_.keys), "")
          .publish(&value, sizeof value);
      require(eventually(
                  [&] {
                    return std::all_of(fences.begin(), fences.end(),
                                       [](const auto& fence) { return fence->last() == 1; });
                  },
                  kStuck),
              "a fence is not reached");
    }).join();
    for (const auto& dispatcher : dispatchers_) dispatcher->stop();
    return joins;
  }

  const std::uint64_t number_;
  const std::string kind_;
  const Shape shape_;
  const std::string pull_ = endpoint();
  const std::string updates_ = endpoint();
  const std::string cache_ = endpoint();
  MessageBroker broker_;
  const std::shared_ptr<Handled> handled_;
  std::vector<std::unique_ptr<MessageDispatcher>> dispatchers_;

  std::atomic<bool> flowing_{true};
  std::atomic<std::size_t> joined_{0};
  std::atomic<std::uint64_t> sent_{0};
  std::vector<std::atomic<std::uint64_t>> sequences_;  // the last one published of each key
  std::vector<std::vector<std::shared_ptr<Joiner>>> joiners_;
};

int run() {
  const Torture& torture = Torture::instance();
  const Watchdog watchdog("the late joiners", torture.length() + 2 * kStuck);
  const char* const kinds[] = {"tcp", "inproc", "ipc"};
  std::uint64_t joins = 0;
  std::uint64_t number = 0;
  while (number < 3 || (joins < torture.count() && !torture.timeIsUp())) {
    joins += Batch(number, kinds[number % 3], kShapes[number / 3 % 4]).run();
    ++number;
  }
  row("F1", "late joiners over TCP, ipc and in process", grouped(joins) + " joins", "0 misses");
  return 0;
}

}  // namespace
}  // namespace tessel::test

int main(int argc, char** argv) {
  tessel::test::Torture::instance().begin(argc, argv, 1000000, 3600);
  return tessel::test::run();
}
