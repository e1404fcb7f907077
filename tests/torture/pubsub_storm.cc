// Everything at once, for as long as asked: publishing, subscribing, starting, stopping and
// destroying from many threads, and what must hold all the same:
//
//   - the values of a key reach each subscriber in the order in which they were published;
//   - no subscriber is called once it is destroyed;
//   - callbacks of different values never overlap in a dispatcher;
//   - when it is quiet again, every subscriber gets the last value.
//
//   pubsub_storm [--seed N] [--seconds N]
//
// Exits with 1, and says with which seed, at the first thing that does not hold. The seed decides
// what is tried, not how the threads interleave.

#include <tessel/tessel.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/deadline.h"
#include "support/endpoints.h"
#include "support/watchdog.h"
#include "torture.h"

namespace tessel::test {
namespace {

constexpr std::size_t kPublishers = 8;
constexpr std::size_t kKeysEach = 4;
constexpr std::size_t kKeys = kPublishers * kKeysEach;
constexpr std::size_t kDispatchers = 3;
constexpr std::size_t kRegistrars = 8;
// How far a key's publisher may be ahead of a subscriber: it bounds what waits in the queues, so
// that no value is ever dropped on the side where none may be.
constexpr std::uint64_t kMaxAhead = 100;
constexpr std::chrono::seconds kStuck{100};

std::uint64_t valuesInAll = 0;

struct Value {
  std::uint64_t key = 0;
  std::uint64_t sequence = 0;  // 1, 2, 3... of its key
};

std::string topicOf(std::size_t key) { return "k" + std::to_string(key); }

// A dispatcher and what runs on it: any number of callbacks, all for the same value.
class Arena {
 public:
  Arena(const std::string& updates, const std::string& cache, std::size_t workers)
      : dispatcher(updates, cache, workers) {}

  enum Side { kUpdates, kCache };
  // Two values in a row with the same mark cannot be told apart; withdrawals carry none.
  static std::uint64_t mark(Side side, std::uint64_t key, std::uint64_t sequence) {
    return (sequence * kKeys + key) * 2 + (side == kCache ? 1 : 0);
  }
  void enter(std::uint64_t mark) {
    const std::lock_guard<std::mutex> lock(mutex_);
    require(running_ == 0 || mark_ == mark, "callbacks of different values overlap");
    mark_ = mark;
    ++running_;
  }
  void leave() {
    const std::lock_guard<std::mutex> lock(mutex_);
    --running_;
  }

 private:
  std::mutex mutex_;
  int running_ = 0;
  std::uint64_t mark_ = 0;

 public:
  MessageDispatcher dispatcher;  // last: its callbacks use the others
};

// Looks at every call that a subscriber gets.
class Checks {
 public:
  Checks(std::shared_ptr<Arena> arena, Arena::Side side) : arena_(arena), side_(side) {}
  ~Checks() { alive_ = 0; }

  void value(std::size_t key, const void* data, std::size_t size) {
    require(alive_ == kAlive, "a destroyed subscriber is called");
    Value value;
    require(size == sizeof value, "a value has another size");
    std::memcpy(&value, data, sizeof value);
    require(value.key == key, "a value comes to another key");
    const std::shared_ptr<Arena> arena = arena_.lock();
    if (arena != nullptr) arena->enter(Arena::mark(side_, key, value.sequence));
    noteInOrder(key, value.sequence);
    if (value.sequence % 64 == 0) std::this_thread::yield();
    require(alive_ == kAlive, "a subscriber is destroyed while it is called");
    if (arena != nullptr) arena->leave();
  }
  void deletion(std::size_t key) {
    require(alive_ == kAlive, "a destroyed subscriber is told of a withdrawal");
    const std::shared_ptr<Arena> arena = arena_.lock();
    if (arena != nullptr) arena->enter(Arena::mark(side_, key, 0));
    if (arena != nullptr) arena->leave();
  }
  std::uint64_t last(std::size_t key) const { return last_[key]; }

 private:
  static constexpr std::uint32_t kAlive = 0xA11FE;

  // Registered twice it gets a value twice, so equal ones are in order.
  void noteInOrder(std::size_t key, std::uint64_t sequence) {
    const std::uint64_t before = last_[key].exchange(sequence);
    require(before <= sequence, "a value comes after a later one");
  }

  // Weak, since a subscriber may outlive its dispatcher, and the last of the two must not be let go
  // by a worker: a dispatcher cannot be destroyed there.
  const std::weak_ptr<Arena> arena_;
  const Arena::Side side_;
  std::atomic<std::uint64_t> last_[kKeys]{};
  std::atomic<std::uint32_t> alive_{kAlive};
};

Arena::Side sideOf(SubscriptionMode mode) {
  return mode == SubscriptionMode::NewValues ? Arena::kUpdates : Arena::kCache;
}

class CheckedSubscriber : public Subscriber {
 public:
  CheckedSubscriber(const std::shared_ptr<Arena>& arena, SubscriptionMode mode, std::size_t key)
      : Subscriber(mode, topicOf(key), ""), checks_(arena, sideOf(mode)), key_(key) {}
  std::uint64_t last() const { return checks_.last(key_); }
  std::size_t key() const { return key_; }

 protected:
  void onValue(const void* data, std::size_t size) override { checks_.value(key_, data, size); }
  void onDeletion() override { checks_.deletion(key_); }

 private:
  Checks checks_;
  const std::size_t key_;
};

class CheckedMultiSubscriber : public MultiSubscriber {
 public:
  explicit CheckedMultiSubscriber(const std::shared_ptr<Arena>& arena)
      : MultiSubscriber("k"), checks_(arena, Arena::kUpdates) {}
  std::uint64_t last(std::size_t key) const { return checks_.last(key); }

 protected:
  void onValue(const std::string& topic, const std::string& /*tag*/, const void* data,
               std::size_t size) override {
    checks_.value(keyOf(topic), data, size);
  }
  void onDeletion(const std::string& topic, const std::string& /*tag*/) override {
    checks_.deletion(keyOf(topic));
  }

 private:
  static std::size_t keyOf(const std::string& topic) {
    const std::size_t key = std::stoul(topic.substr(1));
    require(key < kKeys, "a value has a key that nobody publishes");
    return key;
  }
  Checks checks_;
};

class Probe : public Subscriber {
 public:
  using Subscriber::Subscriber;
  bool called() const { return called_; }

 protected:
  void onValue(const void* /*data*/, std::size_t /*size*/) override { called_ = true; }

 private:
  std::atomic<bool> called_{false};
};

class CountingObserver : public MessageBrokerObserver {
 public:
  void onSubscribe(const std::string&, const std::string&) override { ++notices; }
  void onUnsubscribe(const std::string&, const std::string&) override { ++notices; }
  void onPublish(const std::string&, const std::string&, bool, bool, bool) override {
    ++notices;
    ++taken;
  }
  void onUnpublish(const std::string&, const std::string&, bool, bool, bool) override {
    ++notices;
    ++taken;
  }
  std::atomic<std::uint64_t> notices{0};
  std::atomic<std::uint64_t> taken{0};
};

// One broker over one kind of connection, dispatchers at it, and storms over both.
//
// ZeroMQ ends the process when a socket is closed in the middle of a message while its connection
// breaks. So nothing is closed at both ends at once: publishing threads end when the broker has
// taken all they sent, dispatchers go while the broker stays, and the broker goes last of all.
class Round {
 public:
  Round(std::uint64_t number, const std::string& kind)
      : number_(number),
        kind_(kind),
        pull_(endpoint()),
        updates_(endpoint()),
        cache_(endpoint()),
        broker_({pull_}, {updates_}, {cache_}),
        observer_(std::make_shared<CountingObserver>()) {
    broker_.attach(observer_);
    broker_.start();
    for (std::size_t i = 0; i < kDispatchers; ++i) {
      arenas_.push_back(std::make_shared<Arena>(updates_, cache_, 1 + i));
      arenas_.back()->dispatcher.start();
    }
    // The first dispatcher is never stopped: what its subscribers have sets the pace.
    for (std::size_t key = 0; key < kKeys; ++key) {
      steady_.push_back(
          std::make_shared<CheckedSubscriber>(arenas_[0], SubscriptionMode::AllValues, key));
      arenas_[0]->dispatcher.registerSubscriber(steady_.back());
    }
  }

  void run(Clock::duration length) {
    // On a thread of its own, whose connection ends when the broker has taken everything.
    std::thread([this] {
      awaitSubscriptions(arenas_[0]->dispatcher);
      awaitBroker();
    }).join();
    std::vector<std::thread> publishing;
    std::vector<std::thread> storms;
    for (std::size_t i = 0; i < kPublishers; ++i) publishing.emplace_back([=] { publish(i); });
    for (std::size_t i = 0; i < kRegistrars; ++i) storms.emplace_back([=] { registerStorm(i); });
    storms.emplace_back([=] { dispatcherStorm(); });
    storms.emplace_back([=] { brokerStorm(); });
    for (std::uint64_t i = 0; i < 2; ++i) storms.emplace_back([=] { observerStorm(i); });
    storms.emplace_back([=] { visitorStorm(); });
    storms.emplace_back([=] { smallBrokerStorm(); });
    std::this_thread::sleep_for(length);
    stormy_ = false;
    for (std::thread& storm : storms) storm.join();
    addStaying();
    flowing_ = false;
    for (std::thread& publisher : publishing) publisher.join();
    settle();
  }

 private:
  std::string endpoint() const {
    if (kind_ == "tcp") return freeTcp();
    return kind_ == "ipc" ? uniqueIpc() : uniqueInproc();
  }

  void sendNext(const Publisher& publisher, std::size_t key) {
    Value value;
    value.key = key;
    value.sequence = ++sequences_[key];
    ++sent_;
    publisher.publish(&value, sizeof value);
  }

  // The keys of one thread: each has one publisher, so its values have an order.
  void publish(std::size_t thread) {
    Random random = randomFor(number_, 100 + thread);
    std::vector<std::unique_ptr<Publisher>> publishers;
    for (std::size_t i = 0; i < kKeysEach; ++i) {
      publishers.push_back(std::make_unique<Publisher>(std::vector<std::string>{pull_},
                                                       topicOf(keyOf(thread, i)), ""));
    }
    while (flowing_) {
      const std::size_t i = pick(random, kKeysEach);
      const std::size_t key = keyOf(thread, i);
      sendNext(*publishers[i], key);
      if (pick(random, 50) == 0) {
        ++sent_;
        publishers[i]->unpublish();
      }
      require(
          eventually([&] { return steady_[key]->last() + kMaxAhead > sequences_[key]; }, kStuck),
          "values do not arrive any more");
    }
    awaitBroker();
  }
  static std::size_t keyOf(std::size_t thread, std::size_t i) { return thread * kKeysEach + i; }
  void awaitBroker() {
    require(eventually([&] { return observer_->taken >= sent_; }, kStuck),
            "the broker does not take what was sent");
  }

  // Registers, unregisters and destroys, from many threads at each dispatcher.
  void registerStorm(std::size_t thread) {
    Random random = randomFor(number_, 200 + thread);
    std::vector<std::shared_ptr<CheckedSubscriber>> mine;
    std::vector<std::shared_ptr<CheckedMultiSubscriber>> mineOfMany;
    const std::size_t place = thread % kDispatchers;
    MessageDispatcher& dispatcher = arenas_[place]->dispatcher;
    while (stormy_) {
      switch (pick(random, 8)) {
        case 0:
        case 1: {
          const auto mode = static_cast<SubscriptionMode>(pick(random, 3));
          mine.push_back(
              std::make_shared<CheckedSubscriber>(arenas_[place], mode, pick(random, kKeys)));
          dispatcher.registerSubscriber(mine.back());
          break;
        }
        case 2:
          if (mineOfMany.size() > 3) break;
          mineOfMany.push_back(std::make_shared<CheckedMultiSubscriber>(arenas_[place]));
          dispatcher.registerSubscriber(mineOfMany.back());
          break;
        case 3:  // once more
          if (!mine.empty()) dispatcher.registerSubscriber(mine[pick(random, mine.size())]);
          break;
        case 4:
          if (!mine.empty()) dispatcher.unregisterSubscriber(mine[pick(random, mine.size())]);
          break;
        case 5:  // taken back and gone at once
          if (mine.empty()) break;
          dispatcher.unregisterSubscriber(mine.back());
          mine.pop_back();
          break;
        case 6:  // gone without a word
          if (!mine.empty())
            mine.erase(mine.begin() + static_cast<std::ptrdiff_t>(pick(random, mine.size())));
          if (!mineOfMany.empty()) mineOfMany.pop_back();
          break;
        default:
          std::this_thread::sleep_for(std::chrono::microseconds(pick(random, 3000)));
      }
      if (mine.size() > 40) mine.erase(mine.begin(), mine.begin() + 20);
    }
  }

  // Once the storms are over, since some of them make a dispatcher forget.
  void addStaying() {
    Random random = randomFor(number_, 5);
    for (const auto& arena : arenas_) {
      for (const SubscriptionMode mode :
           {SubscriptionMode::AllValues, SubscriptionMode::NewValues}) {
        for (int i = 0; i < 10; ++i) {
          staying_.push_back(std::make_shared<CheckedSubscriber>(arena, mode, pick(random, kKeys)));
          arena->dispatcher.registerSubscriber(staying_.back());
        }
      }
      stayingOfMany_.push_back(std::make_shared<CheckedMultiSubscriber>(arena));
      arena->dispatcher.registerSubscriber(stayingOfMany_.back());
    }
  }

  // Starts and stops all dispatchers but the first, sometimes with all they had forgotten.
  void dispatcherStorm() {
    Random random = randomFor(number_, 1);
    while (stormy_) {
      Arena& arena = *arenas_[1 + pick(random, kDispatchers - 1)];
      if (pick(random, 3) == 0) {
        arena.dispatcher.start();
      } else {
        arena.dispatcher.stop(pick(random, 4) == 0);
      }
      std::this_thread::sleep_for(std::chrono::microseconds(pick(random, 5000)));
    }
    for (std::size_t i = 1; i < kDispatchers; ++i) arenas_[i]->dispatcher.start();
  }

  void brokerStorm() {
    Random random = randomFor(number_, 2);
    while (stormy_) {
      broker_.stop();  // the cache stays, so that nobody's last value is lost
      std::this_thread::sleep_for(std::chrono::microseconds(pick(random, 2000)));
      broker_.start();
      std::this_thread::sleep_for(std::chrono::microseconds(pick(random, 30000)));
    }
  }

  void observerStorm(std::uint64_t thread) {
    Random random = randomFor(number_, 10 + thread);
    std::vector<std::shared_ptr<CountingObserver>> observers;
    while (stormy_) {
      if (observers.size() < 10 && pick(random, 2) == 0) {
        observers.push_back(std::make_shared<CountingObserver>());
        broker_.attach(observers.back());
      } else if (!observers.empty()) {
        if (pick(random, 2) == 0) broker_.detach(observers.back());
        observers.pop_back();
      }
      std::this_thread::sleep_for(std::chrono::microseconds(pick(random, 500)));
    }
  }

  // Dispatchers that come, subscribe to everything and go while values flow.
  void visitorStorm() {
    Random random = randomFor(number_, 3);
    while (stormy_) {
      auto arena = std::make_shared<Arena>(updates_, cache_, 1 + pick(random, 4));
      std::vector<std::shared_ptr<CheckedSubscriber>> subscribers;
      const auto many = std::make_shared<CheckedMultiSubscriber>(arena);
      arena->dispatcher.registerSubscriber(many);
      for (std::size_t key = 0; key < kKeys; ++key) {
        const auto mode = static_cast<SubscriptionMode>(pick(random, 3));
        subscribers.push_back(std::make_shared<CheckedSubscriber>(arena, mode, key));
        arena->dispatcher.registerSubscriber(subscribers.back());
      }
      arena->dispatcher.start();
      std::this_thread::sleep_for(std::chrono::microseconds(pick(random, 10000)));
      if (pick(random, 2) == 0) subscribers.clear();  // who goes first?
      if (pick(random, 2) == 0) arena->dispatcher.stop();
      arena->dispatcher.stop();
      destroy(arena);
    }
  }
  // Workers hold an arena only while they call, and none is left: this is the last owner.
  static void destroy(std::shared_ptr<Arena>& arena) {
    require(arena.use_count() == 1, "a stopped dispatcher still calls");
    arena.reset();
  }

  // Brokers that go with values unread. In the process only, see above.
  void smallBrokerStorm() {
    Random random = randomFor(number_, 4);
    while (stormy_) {
      const std::string updates = uniqueInproc();
      const std::string cache = uniqueInproc();
      auto broker = std::make_unique<MessageBroker>(std::vector<std::string>{},
                                                    std::vector<std::string>{updates},
                                                    std::vector<std::string>{cache});
      auto arena = std::make_shared<Arena>(updates, cache, 2);
      const auto all =
          std::make_shared<CheckedSubscriber>(arena, SubscriptionMode::AllValues, std::size_t{0});
      arena->dispatcher.registerSubscriber(all);
      if (pick(random, 2) == 0) broker->start();
      if (pick(random, 2) == 0) arena->dispatcher.start();
      // On a thread that ends, so that its connections do not pile up.
      const bool withdraws = pick(random, 2) == 0;
      const bool brokerGoesFirst = pick(random, 2) == 0;
      std::thread([&] {
        Publisher publisher(*broker, topicOf(0), "");
        publisher.enableUnpublishOnDestruction(withdraws);
        for (std::uint64_t i = 1; i <= 100; ++i) {
          const Value value{0, i};
          publisher.publish(&value, sizeof value);
        }
        if (brokerGoesFirst) broker.reset();
      }).join();
      std::this_thread::sleep_for(std::chrono::microseconds(pick(random, 10000)));
      arena->dispatcher.stop();
      destroy(arena);
    }
  }

  // Until the subscriptions of that dispatcher are the broker's: a probe made last is called.
  void awaitSubscriptions(MessageDispatcher& dispatcher) {
    for (const SubscriptionMode mode : {SubscriptionMode::NewValues, SubscriptionMode::AllValues}) {
      const std::string topic = "probe" + std::to_string(probes_++);
      const auto probe = std::make_shared<Probe>(mode, topic, "");
      dispatcher.registerSubscriber(probe);
      Publisher publisher({pull_}, topic, "");
      publisher.enablePublishIfEqual(true);
      require(eventually(
                  [&] {
                    ++sent_;
                    publisher.publish("?", 1);
                    return probe->called();
                  },
                  kStuck),
              "a subscription does not become effective");
    }
  }

  // Every value is published once more, as the last one, now that nothing else happens.
  void settle() {
    std::thread([this] {
      for (const auto& arena : arenas_) awaitSubscriptions(arena->dispatcher);
      for (std::size_t key = 0; key < kKeys; ++key) {
        sendNext(Publisher({pull_}, topicOf(key), ""), key);
      }
      for (const auto& subscriber : steady_) awaitLast(*subscriber);
      for (const auto& subscriber : staying_) awaitLast(*subscriber);
      for (const auto& subscriber : stayingOfMany_) {
        for (std::size_t key = 0; key < kKeys; ++key) {
          require(eventually([&] { return subscriber->last(key) == sequences_[key]; }, kStuck),
                  "a multi-subscriber does not get a last value");
        }
      }
      awaitBroker();
    }).join();
    for (const auto& arena : arenas_) arena->dispatcher.stop();
    std::uint64_t values = 0;
    for (const auto& sequence : sequences_) values += sequence;
    valuesInAll += values;
    std::printf("%s: %llu values, %llu notices\n", kind_.c_str(),
                static_cast<unsigned long long>(values),
                static_cast<unsigned long long>(observer_->notices.load()));
    std::fflush(stdout);
  }
  void awaitLast(const CheckedSubscriber& subscriber) {
    require(eventually([&] { return subscriber.last() == sequences_[subscriber.key()]; }, kStuck),
            "a subscriber does not get the last value");
  }

  const std::uint64_t number_;
  const std::string kind_;
  const std::string pull_;
  const std::string updates_;
  const std::string cache_;
  MessageBroker broker_;
  const std::shared_ptr<CountingObserver> observer_;
  std::vector<std::shared_ptr<Arena>> arenas_;
  std::vector<std::shared_ptr<CheckedSubscriber>> steady_;

  std::atomic<bool> stormy_{true};
  std::atomic<bool> flowing_{true};
  std::atomic<std::uint64_t> sequences_[kKeys]{};  // the last one sent of each key
  std::atomic<std::uint64_t> sent_{0};
  int probes_ = 0;

  std::vector<std::shared_ptr<CheckedSubscriber>> staying_;
  std::vector<std::shared_ptr<CheckedMultiSubscriber>> stayingOfMany_;
};

int run() {
  const auto length = Torture::instance().length();
  const std::uint64_t seed = Torture::instance().seed();
  const Watchdog watchdog("the storm", length + 2 * kStuck);
  // Each kind of connection once at least, from one that the seed names.
  const char* const kinds[] = {"tcp", "inproc", "ipc"};
  const Clock::duration part = std::min<Clock::duration>(length / 3, std::chrono::seconds(10));
  std::uint64_t number = 0;
  do {
    Round(number, kinds[(seed + number) % 3]).run(part);
    ++number;
  } while (!Torture::instance().timeIsUp() || number < 3);
  row("storm", "publish, subscribe, start, stop and destroy at random",
      grouped(valuesInAll) + " values", "in order, no callback too late, last values everywhere");
  return 0;
}

}  // namespace
}  // namespace tessel::test

int main(int argc, char** argv) {
  tessel::test::Torture::instance().begin(argc, argv, 0, 10);
  return tessel::test::run();
}
