// The n-th call of everything that can fail does:
//
//   nth_failures [--seed N] [--count FAULTS] [--seconds N]
//
// A scenario uses the whole library. In a process of its own for each fault it runs once with the
// fault and once more; mostly after a run to warm up, or else what the library makes on first use
// fails, too. The fault either cannot be noticed, or the application gets
// the described exception, or, on a thread of the library, it ends the process with its text. In
// the first two cases nothing is left behind and the scenario works again.

#include <tessel/tessel.h>
#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <typeinfo>
#include <utility>
#include <vector>

#include "child_outcome.h"
#include "faults.h"
#include "support/broker_peers.h"
#include "support/deadline.h"
#include "support/endpoints.h"
#include "support/raw_peer.h"
#include "support/resources.h"
#include "torture.h"
#include "transport/zmq_socket.h"

namespace tessel::test {
namespace {

using std::chrono::milliseconds;

struct Stalled : std::exception {
  explicit Stalled(const char* what) : what_(what) {}
  const char* what() const noexcept override { return what_; }
  const char* what_;
};

void await(const char* what, const std::function<bool()>& condition) {
  const Spared spared;
  if (!eventually(condition)) throw Stalled(what);
}

// ---- the application

struct Counts {
  std::atomic<int> values{0};
  std::atomic<int> deletions{0};
  std::atomic<int> published{0};
};

class CountingSubscriber : public Subscriber {
 public:
  CountingSubscriber(SubscriptionMode mode, Counts& counts)
      : Subscriber(mode, "topic", "tag"), counts_(counts) {}
  void onValue(const void* /*data*/, std::size_t /*size*/) override { ++counts_.values; }
  void onDeletion() override { ++counts_.deletions; }

 private:
  Counts& counts_;
};

class CountingMultiSubscriber : public MultiSubscriber {
 public:
  explicit CountingMultiSubscriber(Counts& counts) : MultiSubscriber("topic"), counts_(counts) {}
  void onValue(const std::string& /*topic*/, const std::string& /*tag*/, const void* /*data*/,
               std::size_t /*size*/) override {
    ++counts_.values;
  }

 private:
  Counts& counts_;
};

class CountingBrokerObserver : public MessageBrokerObserver {
 public:
  explicit CountingBrokerObserver(Counts& counts) : counts_(counts) {}
  void onSubscribe(const std::string& /*topic*/, const std::string& /*tag*/) override {}
  void onUnsubscribe(const std::string& /*topic*/, const std::string& /*tag*/) override {}
  void onPublish(const std::string& /*topic*/, const std::string& /*tag*/, bool /*cached*/,
                 bool /*stored*/, bool /*suppressed*/) override {
    ++counts_.published;
  }
  void onUnpublish(const std::string& /*topic*/, const std::string& /*tag*/, bool /*remove*/,
                   bool /*erased*/, bool /*suppressed*/) override {}

 private:
  Counts& counts_;
};

class SilentRpcObserver : public RpcBrokerObserver {
  void onServiceRegistered(const std::string& /*service*/, const std::string& /*instance*/,
                           bool /*local*/, const std::vector<std::uint8_t>& /*slave*/) override {}
  void onServiceUnregistered(const std::string& /*service*/, const std::string& /*instance*/,
                             bool /*local*/, const std::vector<std::uint8_t>& /*slave*/) override {}
  void onRequest(const std::string& /*service*/, const std::string& /*instance*/,
                 const std::string& /*method*/, const void* /*data*/,
                 std::size_t /*size*/) override {}
  void onReply(const std::string& /*service*/, const std::string& /*instance*/,
               const std::string& /*method*/, int /*status*/, const void* /*data*/,
               std::size_t /*size*/) override {}
};

// Answers with 5000 bytes, or with an error if asked for one.
class SomeService : public Service {
 public:
  explicit SomeService(const std::string& name) : Service(name, "instance") {}
  void callMethod(const std::string& method, const void* /*data*/, std::size_t /*size*/,
                  std::unique_ptr<std::uint8_t[]>& out, std::size_t& outSize) override {
    if (method == "custom") throw rpc_custom_error("own", 3);
    if (method == "bytes") throw rpc_custom_error(std::vector<std::uint8_t>(5000));
    if (method == "error") throw std::runtime_error("an error of the service");
    outSize = method == "small" ? 10 : 5000;
    out.reset(new std::uint8_t[outSize]());
  }
};

// ---- the scenario

std::size_t call(RpcClient& client, const char* service, const char* method) {
  std::unique_ptr<std::uint8_t[]> out;
  std::size_t size = 0;
  client.CallMethod(service, "instance", method, "payload", 7, out, size);
  return size;
}

void expect(bool holds, const char* what) {
  if (!holds) throw Stalled(what);
}

// Exceptions of a thread of the application.
void onThread(const std::function<void()>& what) {
  std::exception_ptr thrown;
  std::thread thread([&] {
    thisIsAnApplicationThread();
    try {
      what();
    } catch (...) {
      thrown = std::current_exception();
    }
  });
  thread.join();
  if (thrown != nullptr) std::rethrow_exception(thrown);
}

void publishAndSubscribe() {
  Counts counts;
  const std::string updates = uniqueInproc();
  const std::string cache = uniqueInproc();
  MessageBroker broker({"tcp://127.0.0.1:*"}, {updates}, {cache});
  const auto observer = std::make_shared<CountingBrokerObserver>(counts);
  broker.attach(observer);
  broker.start();
  MessageDispatcher dispatcher(updates, cache, 2);
  const auto all = std::make_shared<CountingSubscriber>(SubscriptionMode::AllValues, counts);
  const auto once = std::make_shared<CountingSubscriber>(SubscriptionMode::Once, counts);
  const auto live = std::make_shared<CountingMultiSubscriber>(counts);
  dispatcher.start();
  dispatcher.registerSubscriber(all);
  dispatcher.registerSubscriber(once);
  dispatcher.registerSubscriber(live);
  {
    Publisher publisher(broker, "topic", "tag");
    publisher.publish("value", 5);
    await("the value", [&] { return counts.values >= 2; });
    publisher.enablePublishIfEqual(true);
    onThread([&] { publisher.publish("value", 5); });
    await("the repeated value", [&] { return counts.values >= 3; });
    publisher.unpublish();
    await("the withdrawal", [&] { return counts.deletions >= 1; });
  }
  dispatcher.unregisterSubscriber(live);
  dispatcher.stop();
  dispatcher.start();
  const int before = counts.values;
  Publisher again(broker, "topic", "tag");
  again.enablePublishIfEqual(true);
  const std::string value(5000, 'x');
  // What is kept until the dispatcher has subscribed again is not for one that has had a value.
  for (int tries = 0; counts.values == before; ++tries) {
    if (tries == 10000) throw Stalled("the value after a stop");
    again.publish(value.data(), value.size());
    std::this_thread::sleep_for(milliseconds(1));
  }
  dispatcher.stop(true);
  broker.stop(true, true);
}

// A slave's service is there some time after its start.
void callOnceAnnounced(RpcClient& client, const char* service) {
  for (int tries = 0; tries < 10000; ++tries) {
    try {
      expect(call(client, service, "small") == 10, "a small reply");
      return;
    } catch (const rpc_broker_error& error) {
      if (typeid(error) != typeid(rpc_broker_error)) throw;
    }
    std::this_thread::sleep_for(milliseconds(1));
  }
  throw Stalled("a slave's service does not come");
}

void callForError(RpcClient& client, const char* service, const char* method, std::size_t size) {
  try {
    call(client, service, method);
    throw Stalled("no custom error comes");
  } catch (const rpc_custom_error& error) {
    expect(error.size() == size, "a custom error");
  }
}

void callRemotely(RpcClient& client, const char* service) {
  callOnceAnnounced(client, service);
  expect(call(client, service, "large") == 5000, "a large reply");
  callForError(client, service, "custom", 3);
  callForError(client, service, "bytes", 5000);
  try {
    call(client, service, "error");
    throw Stalled("no error of the service comes");
  } catch (const rpc_service_error& error) {
    if (error.what() != std::string("an error of the service")) throw;
  }
}

void expectNoReply(const std::string& endpoint) {
  RpcClient nobody(endpoint, milliseconds(1));
  try {
    call(nobody, "masters", "small");
  } catch (const rpc_timeout& /*error*/) {
    return;
  }
  throw Stalled("nobody answers");
}

void callServices() {
  const std::string endpoint = uniqueInproc();
  const auto master = std::make_shared<RpcBroker>(true, std::vector<std::string>{endpoint},
                                                  std::make_shared<ThreadedRpcDispatcher>(2));
  RpcBroker slave(false, {endpoint}, std::make_shared<ThreadedRpcDispatcher>(1));
  const auto observer = std::make_shared<SilentRpcObserver>();
  master->attach(observer);
  master->registerService(std::make_shared<SomeService>("masters"));
  const auto slaves = std::make_shared<SomeService>("slaves");
  slave.registerService(slaves);
  master->start();
  slave.start();
  slave.registerService(std::make_shared<SomeService>("later"));
  RpcClient local(master, std::chrono::seconds(20));
  expect(call(local, "masters", "large") == 5000, "a local reply");
  RpcClient remote(endpoint, std::chrono::seconds(20));
  callRemotely(remote, "masters");
  onThread([&] { callRemotely(remote, "slaves"); });
  callRemotely(local, "later");
  slave.unregisterService(slaves);
  slave.stop();
  slave.start();
  slave.stop(true, true);
  onThread([] {
    expectNoReply("tcp://127.0.0.1:1");
    expectNoReply(uniqueInproc());
  });
  master->stop(true, true);
}

// A peer that is not of the library: nothing of it fails.
class SparedPeer {
 public:
  explicit SparedPeer(int type) {
    const Spared spared;
    peer_.emplace(type);
  }
  ~SparedPeer() {
    const Spared spared;
    peer_.reset();
  }
  SparedPeer(const SparedPeer&) = delete;
  SparedPeer& operator=(const SparedPeer&) = delete;

  RawPeer* operator->() { return &*peer_; }

 private:
  std::optional<RawPeer> peer_;
};

// Holds at most `kHolds` messages of a publisher's, and reads them after a while.
class SlowReader {
 public:
  static constexpr int kHolds = 1001;  // the publisher's limit, and one

  explicit SlowReader(const std::string& endpoint) {
    const Spared spared;
    peer_->set(ZMQ_RCVHWM, 1).bind(endpoint);
  }
  ~SlowReader() {
    ended_ = true;
    if (thread_.joinable()) thread_.join();
  }
  SlowReader(const SlowReader&) = delete;
  SlowReader& operator=(const SlowReader&) = delete;

  void begin() {
    const Spared spared;
    thread_ = std::thread([this] {
      const Spared reading;
      std::this_thread::sleep_for(milliseconds(3));
      while (!ended_) peer_->tryReceive(milliseconds(1));
    });
  }

 private:
  SparedPeer peer_{ZMQ_PULL};
  std::atomic<bool> ended_{false};
  std::thread thread_;
};

void publishIntoFullQueue() {
  const std::string endpoint = uniqueInproc();
  SlowReader reader(endpoint);
  Publisher publisher(std::vector<std::string>{endpoint}, "topic", "tag");
  publisher.publish("value", 5);
  {
    const Spared spared;
    for (int i = 1; i < SlowReader::kHolds; ++i) publisher.publish("value", 5);
  }
  reader.begin();
  publisher.publish("value", 5);
}

// Takes what is left for a broker that could not be made.
class LastReader {
 public:
  explicit LastReader(const std::string& endpoint) : endpoint_(endpoint) {}
  ~LastReader() {
    const Spared spared;
    ZmqSocket(ZMQ_PULL).bind(endpoint_);
  }
  LastReader(const LastReader&) = delete;
  LastReader& operator=(const LastReader&) = delete;

 private:
  const std::string endpoint_;
};

// A publisher whose thread has gone before the broker comes, and one that withdraws at its end;
// among them a message that is longer than it should be, and large values.
void publishToLateBroker() {
  Counts counts;
  const std::string endpoint = uniqueInproc();
  const LastReader last(endpoint);
  const std::string large(10000, 'x');
  onThread([&] {
    const Publisher publisher(std::vector<std::string>{endpoint}, "topic", "tag");
    publisher.publish(large.data(), large.size());
  });
  const std::string cache = uniqueInproc();
  auto broker =
      std::make_unique<MessageBroker>(std::vector<std::string>{endpoint},
                                      std::vector<std::string>{}, std::vector<std::string>{cache});
  broker->attach(std::make_shared<CountingBrokerObserver>(counts));
  const auto observer = std::make_shared<CountingBrokerObserver>(counts);
  broker->attach(observer);
  broker->start();
  await("what was left for the broker", [&] { return counts.published >= 1; });
  {
    SparedPeer peer(ZMQ_PUSH);
    const Spared spared;
    peer->connect(endpoint);
    Frames tooLong = publication("topic", "tag", "value", 0);
    tooLong.emplace_back();
    peer->send(tooLong);
    peer->send(publication("topic", "other", "value", 0));
    await("the message behind", [&] { return counts.published >= 2; });
  }
  // The subscriber gets the large value from the cache.
  MessageDispatcher dispatcher(uniqueInproc(), cache, 1);
  const auto all = std::make_shared<CountingSubscriber>(SubscriptionMode::AllValues, counts);
  dispatcher.registerSubscriber(all);
  dispatcher.start();
  await("the kept value", [&] { return counts.values >= 1; });
  auto publisher = std::make_unique<Publisher>(std::vector<std::string>{endpoint}, "topic", "tag");
  publisher->enableUnpublishOnDestruction(true);
  {
    const EndsTheProcess ends;
    publisher.reset();
  }
  await("the last withdrawal", [&] { return counts.deletions >= 1; });
  dispatcher.stop(true);
  const EndsTheProcess ends;
  broker.reset();
}

// On a thread that ends, since a thread keeps a socket that ZeroMQ could not connect.
void scenario() {
  onThread([] {
    publishAndSubscribe();
    callServices();
    publishIntoFullQueue();
    publishToLateBroker();
  });
}

// ---- one fault

const std::vector<std::pair<FaultKind, std::vector<int>>> kErrors = {
    {kContext, {EMFILE}},       {kSocket, {ENOMEM, EMFILE}},   {kClose, {ENOTSOCK}},
    {kSetOption, {ENOMEM}},     {kGetOption, {EINVAL}},        {kBind, {EACCES, EADDRINUSE, EINTR}},
    {kUnbind, {ENOENT, EINTR}}, {kConnect, {EINVAL, EINTR}},   {kPoll, {EFAULT, EINTR}},
    {kInitSize, {ENOMEM}},      {kInitData, {ENOMEM}},         {kCopy, {EFAULT}},
    {kSend, {ENOTSOCK, EINTR}}, {kReceive, {ENOTSOCK, EINTR}}, {kAllocation, {ENOMEM}},
    {kThread, {EAGAIN}}};

// The exception is the one that belongs to the fault. What a service or an observer of calls meets
// comes as the service's error, also on the caller's own thread.
bool belongs(const std::exception& thrown, const Fault& fault) {
  if (typeid(thrown) == typeid(rpc_service_error)) return thrown.what() == textOf(fault);
  if (fault.kind == kAllocation) return dynamic_cast<const std::bad_alloc*>(&thrown) != nullptr;
  if (fault.kind == kThread) {
    const auto* error = dynamic_cast<const std::system_error*>(&thrown);
    return error != nullptr && error->code() == std::errc::resource_unavailable_try_again;
  }
  return typeid(thrown) == typeid(std::runtime_error) && thrown.what() == textOf(fault);
}

int complain(const char* what, const std::string& more = "") {
  std::fprintf(stderr, "%s%s\n", what, more.c_str());
  return 1;
}

// In a process of its own; 0 if all is well.
int meet(const Fault& fault, bool onFirstUse) {
  thisIsAnApplicationThread();
  const long parents = blocksOut();
  if (!onFirstUse) scenario();
  const int descriptors =
      onFirstUse ? sharedCounts().usualDescriptors.load() : settledDescriptors(15);
  const long blocks = onFirstUse ? parents + sharedCounts().usualBlocks : blocksOut();
  arm(fault);
  try {
    scenario();
  } catch (const std::exception& thrown) {
    disarm();
    if (!belongs(thrown, fault)) {
      return complain("not its exception: ",
                      std::string(typeid(thrown).name()) + ", " + thrown.what());
    }
  }
  disarm();
  try {
    scenario();
  } catch (const std::exception& thrown) {
    return complain("the next use fails: ", thrown.what());
  }
  if (!eventually([&] { return blocksOut() <= blocks; }, milliseconds(3000))) {
    return complain("blocks are left: ", std::to_string(blocksOut() - blocks));
  }
  if (!eventually([&] { return openDescriptors() <= descriptors; }, milliseconds(3000))) {
    return complain("descriptors are left: ", std::to_string(openDescriptors() - descriptors));
  }
  return 0;
}

// ---- all of them

std::vector<Fault> allFaults() {
  const ChildOutcome counted = inChild([] {
    thisIsAnApplicationThread();
    const long parents = blocksOut();
    scenario();
    arm(Fault());
    scenario();
    disarm();
    sharedCounts().usualDescriptors = settledDescriptors(15);
    sharedCounts().usualBlocks = blocksOut() - parents;
    return 0;
  });
  if (!counted.exited(0)) violated("the scenario fails by itself: " + counted.text);
  std::vector<Fault> faults;
  for (const auto& [kind, errors] : kErrors) {
    for (const int error : errors) {
      for (long n = 0; n < sharedCounts().calls[kind]; ++n) faults.push_back({kind, error, n});
    }
  }
  return faults;
}

// A fault for a call of ZeroMQ that has not failed yet, if there is one. Threads meet differently
// in each run, so that some are not made every time.
std::optional<Fault> faultForNewSite(std::map<void*, std::size_t>& tries) {
  constexpr std::size_t kTries = 100;
  for (const SharedCounts::Site& site : sharedCounts().sites) {
    void* const address = site.address;
    if (address == nullptr) break;
    if (site.failed) continue;
    if (tries[address] == kTries) violated("cannot be made to fail: " + whereIs(address));
    const std::vector<int>& errors = kErrors[static_cast<std::size_t>(site.kind)].second;
    return Fault{site.kind, errors[tries[address]++ % errors.size()], -1, address};
  }
  return std::nullopt;
}

void check(const Fault& fault, const ChildOutcome& outcome, std::uint64_t& ended) {
  if (outcome.exited(0)) return;
  const bool described = sharedCounts().fired && !sharedCounts().onApplicationThread;
  if (!described || !outcome.abortedWith(textOf(fault))) {
    violated(nameOf(fault) + (described ? " on the library's thread" : " on the caller's thread") +
             ": status " + std::to_string(outcome.status) + ", " + outcome.text + whereFired());
  }
  ++ended;
}

int run() {
  sharedCounts();  // before the first child
  std::uint64_t met = 0;
  std::uint64_t ended = 0;
  const std::vector<Fault> all = allFaults();
  const Fault context{kContext, EMFILE, 0};  // made on first use only
  check(context, inChild([&] { return meet(context, true); }), ended);
  std::printf("%zu faults in one run of the scenario\n", all.size());
  std::fflush(stdout);  // or the children might, too
  Random random = randomFor(0);
  std::vector<Fault> left;
  std::map<void*, std::size_t> tries;
  const Torture& torture = Torture::instance();
  while (met < torture.count() && !torture.timeIsUp()) {
    std::optional<Fault> fault = faultForNewSite(tries);
    if (!fault.has_value()) {
      if (left.empty()) {
        left = all;
        std::shuffle(left.begin(), left.end(), random);
      }
      fault = left.back();
      left.pop_back();
    }
    const bool onFirstUse = pick(random, 3) == 0;
    check(*fault, inChild([&] { return meet(*fault, onFirstUse); }), ended);
    if (sharedCounts().fired) ++met;
  }
  std::size_t sites = 0;
  std::size_t failed = 0;
  for (const SharedCounts::Site& site : sharedCounts().sites) {
    if (site.address != nullptr) ++sites;
    if (site.failed) ++failed;
  }
  row("F4", "the n-th call fails, of " + grouped(all.size()),
      grouped(met) + " faults, at " + grouped(failed) + " of " + grouped(sites) +
          " calls of ZeroMQ",
      grouped(ended) + " ended the process where that is documented, nothing left behind");
  return 0;
}

}  // namespace
}  // namespace tessel::test

int main(int argc, char** argv) {
  tessel::test::Torture::instance().begin(argc, argv, 6000, 3600);
  return tessel::test::run();
}
