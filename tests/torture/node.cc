// One part of a system of several processes, under load, for programs that kill it, cut it off or
// let it run for hours.
//
//   node publish PULL INCARNATION THREADS KEYS PER_SECOND    values of k0, k1... counted up
//   node dispatch UPDATES CACHE KEYS SUBSCRIBERS SLOW RESTART
//        SUBSCRIBERS of all modes on the keys, and one of each mode and key that stays; one takes
//        SLOW milliseconds for each value; the dispatcher is stopped and started every RESTART
//        seconds, if not 0
//   node call ENDPOINT TIMEOUT THREADS SERVICE...
//
// Prints "ready", then answers each line of its input with one of figures, in the order of Node in
// node_process.h, until its input ends.

#include <tessel/tessel.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "torture.h"

namespace tessel::test {
namespace {

using std::chrono::milliseconds;

struct Value {
  std::uint64_t incarnation = 0;  // of the publishing process
  std::uint64_t key = 0;
  std::uint64_t sequence = 0;  // 1, 2, 3... of its key and incarnation
  std::int64_t sent = 0;       // of the clock that all processes share, nanoseconds
};

std::int64_t now() { return Clock::now().time_since_epoch().count(); }

void answer(const std::vector<std::int64_t>& figures) {
  for (const std::int64_t figure : figures) std::printf("%lld ", static_cast<long long>(figure));
  std::printf("\n");
  std::fflush(stdout);
}
template <typename Figures>
void answerUntilInputEnds(const Figures& figures) {
  std::puts("ready");
  std::fflush(stdout);
  for (int next = std::getchar(); next != EOF; next = std::getchar()) {
    if (next == '\n') answer(figures());
  }
}

using Words = std::vector<std::string>;
std::uint64_t numberIn(const Words& words, std::size_t place) {
  return std::strtoull(words.at(place).c_str(), nullptr, 10);
}

int publish(const Words& words) {
  const std::uint64_t incarnation = numberIn(words, 2);
  const std::uint64_t threads = numberIn(words, 3);
  const std::uint64_t keys = numberIn(words, 4);
  const std::chrono::nanoseconds pause(1'000'000'000 * threads / numberIn(words, 5));
  std::atomic<std::int64_t> sent{0};
  for (std::uint64_t thread = 0; thread < threads; ++thread) {
    // Ends with the process: a publisher may wait for ever for a broker that has gone.
    std::thread([&, thread] {
      std::vector<std::unique_ptr<Publisher>> publishers;
      for (std::uint64_t key = thread; key < keys; key += threads) {
        publishers.push_back(
            std::make_unique<Publisher>(Words{words[1]}, "k" + std::to_string(key), ""));
      }
      for (std::uint64_t turn = 0;; ++turn) {
        const std::uint64_t i = turn % publishers.size();
        const Value value{incarnation, thread + i * threads, turn / publishers.size() + 1, now()};
        publishers[i]->publish(&value, sizeof value);
        ++sent;
        std::this_thread::sleep_for(pause);
      }
    }).detach();
  }
  answerUntilInputEnds([&] { return std::vector<std::int64_t>{sent}; });
  std::fflush(nullptr);
  std::_Exit(0);
}

// What the callbacks of one dispatcher find.
class Findings {
 public:
  void enter(const Value& value) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (running_ > 0 && (value.incarnation != current_.incarnation || value.key != current_.key ||
                         value.sequence != current_.sequence)) {
      ++overlapping;
    }
    current_ = value;
    ++running_;
    const std::int64_t time = now();
    if (lastValue_ != 0) longestSilence = std::max<std::int64_t>(longestSilence, time - lastValue_);
    longestWay = std::max<std::int64_t>(longestWay, time - value.sent);
    lastValue_ = time;
    lastIncarnation = static_cast<std::int64_t>(value.incarnation);
  }
  void leave() {
    const std::lock_guard<std::mutex> lock(mutex_);
    --running_;
  }

  std::atomic<std::int64_t> values{0}, repeated{0}, disordered{0}, overlapping{0};
  std::atomic<std::int64_t> longestSilence{0}, longestWay{0}, lastIncarnation{0};

 private:
  std::mutex mutex_;
  int running_ = 0;
  Value current_;
  std::int64_t lastValue_ = 0;
};

class Checking : public Subscriber {
 public:
  Checking(Findings& findings, SubscriptionMode mode, std::uint64_t key, milliseconds slow)
      : Subscriber(mode, "k" + std::to_string(key), ""), findings_(findings), slow_(slow) {}

 protected:
  // Never called twice at the same time, being registered once.
  void onValue(const void* data, std::size_t size) override {
    Value value;
    if (size != sizeof value) violated("a value has another size");
    std::memcpy(&value, data, sizeof value);
    findings_.enter(value);
    ++findings_.values;
    // Of an earlier publisher some may still come while those of the next do.
    if (value.incarnation == last_.incarnation) {
      if (value.sequence == last_.sequence) ++findings_.repeated;
      if (value.sequence < last_.sequence) ++findings_.disordered;
    }
    if (value.incarnation >= last_.incarnation) last_ = value;
    std::this_thread::sleep_for(slow_);
    findings_.leave();
  }

 private:
  Findings& findings_;
  const milliseconds slow_;
  Value last_;
};

int dispatch(const Words& words) {
  const std::uint64_t keys = numberIn(words, 3);
  const std::uint64_t subscribers = numberIn(words, 4);
  const milliseconds slow(numberIn(words, 5));
  const std::chrono::seconds restart(numberIn(words, 6));
  Findings findings;
  MessageDispatcher dispatcher(words[1], words[2]);
  std::vector<std::shared_ptr<Checking>> staying;
  for (std::uint64_t i = 0; i < subscribers; ++i) {
    const auto mode = i % 2 == 0 ? SubscriptionMode::AllValues : SubscriptionMode::NewValues;
    staying.push_back(std::make_shared<Checking>(findings, mode, i / 2 % keys,
                                                 i == subscribers / 2 ? slow : milliseconds(0)));
    dispatcher.registerSubscriber(staying.back());
  }
  dispatcher.start();
  std::atomic<bool> over{false};
  std::thread storm([&] {
    auto restarted = Clock::now();
    for (std::uint64_t turn = 0; !over; ++turn) {
      // One that comes and goes, and with it an answer from the cache.
      const auto passing = std::make_shared<Checking>(
          findings, turn % 2 == 0 ? SubscriptionMode::Once : SubscriptionMode::AllValues,
          turn % keys, milliseconds(0));
      dispatcher.registerSubscriber(passing);
      std::this_thread::sleep_for(milliseconds(20));
      dispatcher.unregisterSubscriber(passing);
      if (restart.count() == 0 || Clock::now() - restarted < restart) continue;
      dispatcher.stop();
      dispatcher.start();
      restarted = Clock::now();
    }
  });
  answerUntilInputEnds([&] {
    return std::vector<std::int64_t>{findings.values,
                                     findings.repeated,
                                     findings.disordered,
                                     findings.overlapping,
                                     findings.longestSilence.exchange(0) / 1'000'000,
                                     findings.longestWay.exchange(0) / 1'000'000,
                                     findings.lastIncarnation};
  });
  over = true;
  storm.join();
  dispatcher.stop();
  return 0;
}

struct Tally {
  std::atomic<std::int64_t> answered{0}, timedOut{0}, notFound{0}, wrong{0}, latest{0};
};

void callOnce(RpcClient& client, const std::string& service, const std::string& data,
              Tally& tally) {
  const auto begun = Clock::now();
  try {
    std::unique_ptr<std::uint8_t[]> out;
    std::size_t size = 0;
    client.CallMethod(service, "i", "m", data.data(), data.size(), out, size);
    const std::string got(reinterpret_cast<const char*>(out.get()), size);
    ++(got == service + "/m/" + data ? tally.answered : tally.wrong);
  } catch (const rpc_timeout&) {
    ++tally.timedOut;
  } catch (const rpc_broker_error&) {
    ++tally.notFound;
    std::this_thread::sleep_for(milliseconds(1));
  } catch (const std::exception&) {
    ++tally.wrong;
  }
  const auto late = Clock::now() - begun - client.receiveTimeout();
  std::int64_t latest = tally.latest;
  while (latest < late.count() && !tally.latest.compare_exchange_weak(latest, late.count())) {
  }
}

int call(const Words& words) {
  RpcClient client(words.at(1), milliseconds(numberIn(words, 2)));
  Tally tally;
  std::atomic<bool> over{false};
  std::vector<std::thread> threads;
  for (std::uint64_t i = 0; i < numberIn(words, 3); ++i) {
    threads.emplace_back([&, service = words.at(4 + i % (words.size() - 4)), i] {
      for (std::uint64_t turn = 0; !over; ++turn) {
        callOnce(client, service, std::to_string(i) + "." + std::to_string(turn), tally);
        std::this_thread::sleep_for(milliseconds(2));
      }
    });
  }
  answerUntilInputEnds([&] {
    return std::vector<std::int64_t>{tally.answered, tally.timedOut, tally.notFound, tally.wrong,
                                     tally.latest.exchange(0) / 1'000'000};
  });
  over = true;
  for (std::thread& thread : threads) thread.join();
  return 0;
}

int run(const Words& words) {
  if (words.at(0) == "publish") return publish(words);
  if (words.at(0) == "dispatch") return dispatch(words);
  if (words.at(0) == "call") return call(words);
  return 2;
}

}  // namespace
}  // namespace tessel::test

int main(int argc, char** argv) {
  return tessel::test::run(tessel::test::Words(argv + 1, argv + argc));
}
