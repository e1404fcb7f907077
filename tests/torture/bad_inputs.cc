// Everything wrong that a peer can send, to every socket that a peer can reach:
//
//   bad_inputs [--seed N] [--count ENDING] [--every N]
//
// Each message of a table (bad_messages.h) goes over TCP to a running broker, dispatcher or client.
// What comes of it is compared with what the message says: mostly nothing, but some are good by
// chance. Then the sender's next message and another peer are served as if nothing had been. Those
// that end an RPC broker's process on purpose are sent to brokers in processes of their own, at
// most ENDING of them for each socket. Of all others every N-th is sent, from one that the seed
// tells.

#include <tessel/tessel.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bad_messages.h"
#include "child_outcome.h"
#include "messages/value_key.h"
#include "rpc/rpc_broker_impl.h"
#include "support/call_outcome.h"
#include "support/endpoints.h"
#include "support/recorders.h"
#include "support/sanitizers.h"
#include "support/watchdog.h"
#include "torture.h"

namespace tessel::test {
namespace {

// A peer's own context: its messages come over TCP as those of another process do.
void* peers() {
  static void* context = zmq_ctx_new();
  return context;
}

class Peer : public RawPeer {
 public:
  explicit Peer(int type, const std::string& name = "") : RawPeer(type, peers()) {
    set(ZMQ_SNDHWM, 0).set(ZMQ_RCVHWM, 0);
    if (!name.empty()) set(ZMQ_ROUTING_ID, name);
  }

  /// What comes before `last`, which must come.
  std::vector<Frames> receiveUntil(const Frames& last) {
    std::vector<Frames> before;
    for (Frames frames = next(); frames != last; frames = next()) before.push_back(frames);
    return before;
  }

 private:
  Frames next() {
    std::optional<Frames> frames = tryReceive(kPatience);
    require(frames.has_value(), "a good message is not answered");
    return *frames;
  }
};

std::string shown(const Frames& frames) {
  std::string text = "{";
  for (const std::string& frame : frames) {
    text += text.size() > 1 ? ", \"" : "\"";
    for (const char each : frame.substr(0, 60)) {
      char hex[8];
      std::snprintf(hex, sizeof hex, each >= ' ' && each < 127 ? "%c" : "\\x%02x",
                    static_cast<unsigned char>(each));
      text += hex;
    }
    text += frame.size() > 60 ? "...\"" : "\"";
  }
  return text + "}";
}

std::vector<Frames> chosen(const std::vector<Frames>& all) {
  const std::uint64_t every = std::max<std::uint64_t>(1, Torture::instance().number("--every", 1));
  std::vector<Frames> some;
  for (std::size_t i = Torture::instance().seed() % every; i < all.size(); i += every) {
    some.push_back(all[i]);
  }
  return some;
}

/// The inputs of one socket: counts them, and compares what came of each.
class Inputs {
 public:
  explicit Inputs(const char* socket) : socket_(socket) {}
  ~Inputs() {
    row("F2", std::string("bad inputs to ") + socket_, grouped(count_) + " inputs",
        "nothing wrong delivered, the next ones served");
  }
  Inputs(const Inputs&) = delete;
  Inputs& operator=(const Inputs&) = delete;

  void begin(const Frames& frames) {
    ++count_;
    input_ = &frames;
  }
  void expect(const std::vector<Frames>& actual, const std::vector<Frames>& expected,
              const char* what) const {
    if (actual == expected) return;
    std::string text = std::string(socket_) + " was sent " + shown(*input_) + "\n" + what + ":";
    for (const Frames& frames : actual) text += "\n  " + shown(frames);
    text += "\nexpected:";
    for (const Frames& frames : expected) text += "\n  " + shown(frames);
    violated(text);
  }
  void expect(const Lines& actual, const Lines& expected, const char* what) const {
    expect(std::vector<Frames>{actual}, std::vector<Frames>{expected}, what);
  }
  static void endOf(const char* socket, std::uint64_t count) {
    row("F2", std::string("inputs that end the process, to ") + socket, grouped(count) + " inputs",
        "ended with its text");
  }

 private:
  const char* const socket_;
  std::uint64_t count_ = 0;
  const Frames* input_ = nullptr;
};

// ---- the message broker

/// A broker over TCP with an observer, and two peers of its updates: one of everything, one that is
/// good.
struct BrokerAtTcp {
  BrokerAtTcp() {
    broker.attach(observer);
    everything.connect(updates).subscribe("");
    broker.start();
    publisher.connect(pull);
    // Until the subscription is there.
    const Frames ready = {"ready:default", "1", word(0)};
    std::optional<Frames> seen;
    while (!seen.has_value()) {
      publisher.send({"", "RS02", "\x03", "ready", "default", "1", word(0)});
      seen = everything.tryReceive(std::chrono::milliseconds(20));
    }
    publish(publisher, "settled", "1");
    everything.receiveUntil({"settled:default", "1", word(0)});
    const auto settled = [this] {
      const Lines lines = observer->journal.lines();
      return !lines.empty() && lines.back() == "publish settled default 1 1 0";
    };
    require(eventually(settled), "a publication is not observed");
    observer->journal.clear();
  }

  static void publish(RawPeer& peer, const std::string& topic, const std::string& value) {
    peer.send({"", "RS02", "\x03", topic, "default", value, word(1)});
  }

  const std::string pull = freeTcp();
  const std::string updates = freeTcp();
  const std::string cache = freeTcp();
  const std::shared_ptr<RecordingBrokerObserver> observer =
      std::make_shared<RecordingBrokerObserver>();
  Peer everything{ZMQ_SUB};
  Peer publisher{ZMQ_PUSH};
  MessageBroker broker{{pull}, {updates}, {cache}};
};

/// What a broker makes of what is pushed to it.
class BrokerModel {
 public:
  /// The notifications of it, and what the observer hears in `lines`.
  std::vector<Frames> serve(const Frames& frames, Lines& lines) {
    const std::optional<Reading> reading = readingOf(frames);
    if (!reading.has_value()) return {};
    const Frames& body = reading->body;
    if (reading->type == 3 && body.size() == 4) return publish(body, lines);
    if (reading->type == 4 && body.size() == 3) return withdraw(body, lines);
    return {};
  }

 private:
  static std::string flags(bool a, bool b, bool c) {
    return std::string(a ? " 1" : " 0") + (b ? " 1" : " 0") + (c ? " 1" : " 0");
  }
  std::vector<Frames> publish(const Frames& body, Lines& lines) {
    const std::string key = body[0] + ":" + body[1];
    const bool cached = (wordOf(body[3]) & 1) != 0;
    const bool stored = cached && (values_.count(key) == 0 || values_[key] != body[2]);
    const bool suppressed = cached && !stored && (wordOf(body[3]) & 2) == 0;
    if (stored) values_[key] = body[2];
    lines.push_back("publish " + body[0] + " " + body[1] + flags(cached, stored, suppressed));
    if (suppressed) return {};
    return {{key, body[2], word(0)}};
  }
  std::vector<Frames> withdraw(const Frames& body, Lines& lines) {
    const std::string key = body[0] + ":" + body[1];
    const bool remove = (wordOf(body[2]) & 1) != 0;
    const bool erased = remove && values_.erase(key) != 0;
    lines.push_back("unpublish " + body[0] + " " + body[1] + flags(remove, erased, false));
    if (remove && !erased) return {};
    return {{key, "", word(2)}};
  }

  std::map<std::string, std::string> values_;
};

void pushToBroker() {
  Inputs inputs("a broker's PULL");
  BrokerAtTcp at;
  BrokerModel model;
  Peer bad(ZMQ_PUSH);
  bad.connect(at.pull);
  int number = 0;
  for (const Frames& frames : chosen(badMessages())) {
    inputs.begin(frames);
    Lines lines;
    const std::vector<Frames> expected = model.serve(frames, lines);
    const std::string value = std::to_string(++number);
    bad.send(frames);
    BrokerAtTcp::publish(bad, "next", value);
    inputs.expect(at.everything.receiveUntil({"next:default", value, word(0)}), expected, "sent");
    BrokerAtTcp::publish(at.publisher, "good", value);
    inputs.expect(at.everything.receiveUntil({"good:default", value, word(0)}), {}, "sent");
    lines.emplace_back("publish next default 1 1 0");
    lines.emplace_back("publish good default 1 1 0");
    inputs.expect(at.observer->journal.lines(lines.size()), lines, "observed");
    at.observer->journal.clear();
  }
}

// ZeroMQ's sender descends its tree of subscriptions by calls within each other, byte by byte, for
// which the stack is too small where the sanitizer wants each call to be a call.
constexpr std::size_t kLongSubscription = kThreadSanitizer ? 20000 : 70000;

// What a subscriber may say: subscriptions, their ends, and what is neither, in one frame or many.
std::vector<Frames> subscriberMessages() {
  Messages messages;
  for (int first = 0; first < 256; ++first) {
    const std::string byte(1, static_cast<char>(first));
    for (const std::string& rest :
         {std::string(), std::string("a"), std::string("x:y"), std::string("x:y:z"),
          std::string(":"), kNul, std::string(300, ':'), std::string(kLongSubscription, 'x')}) {
      messages.add(Frames{byte + rest});
      if (first < 4) messages.add(Frames{byte + rest + std::to_string(first), "", byte + "more"});
    }
  }
  for (const std::size_t count : {1U, 2U, 5U, 300U}) {
    messages.add(Frames(count));
    messages.add(Frames(count, "frame"));
  }
  for (const Frames& good : goodMessages()) {
    messages.add(good);
    messages.add(Frames(good.begin() + 1, good.end()));
  }
  return messages.all();
}

// Each frame whose first byte says so subscribes, or ends a subscription that there is: the peer's
// socket counts those of one key, and sends the end of the last.
Lines linesOf(const Frames& frames, std::map<std::string, int>& subscribed) {
  Lines lines;
  for (const std::string& frame : frames) {
    if (frame.empty()) continue;
    const std::string key = frame.substr(1);
    const TopicAndTag parts = splitKey(key);
    const std::string line = "subscribe " + parts.topic + " " + parts.tag;
    if (frame.front() == 1) {
      ++subscribed[key];
      lines.push_back(line);
    } else if (frame.front() == 0 && subscribed[key] > 0 && --subscribed[key] == 0) {
      lines.push_back("un" + line);
    }
  }
  return lines;
}

void subscribeToCache() {
  Inputs inputs("a broker's XPUB");
  BrokerAtTcp at;
  Peer bad(ZMQ_XSUB);
  bad.connect(at.cache);
  Peer good(ZMQ_SUB);
  good.connect(at.cache);
  std::map<std::string, int> subscribed;
  int number = 0;
  for (const Frames& frames : chosen(subscriberMessages())) {
    inputs.begin(frames);
    const std::string tag = std::to_string(++number);
    Lines lines = linesOf(frames, subscribed);
    lines.push_back("subscribe next " + tag);
    bad.send(frames);
    bad.send({"\x01next:" + tag});
    inputs.expect(at.observer->journal.lines(lines.size()), lines, "observed");
    at.observer->journal.clear();
    at.publisher.send({"", "RS02", "\x03", "good", tag, tag, word(1)});
    at.everything.receiveUntil({"good:" + tag, tag, word(0)});
    at.observer->journal.waitFor(1);  // it has gone to this socket too
    good.subscribe("good:" + tag);
    inputs.expect(good.receiveUntil({"good:" + tag, tag, word(1)}), {}, "sent");
    at.observer->journal.waitFor(2);
    at.observer->journal.clear();
    good.unsubscribe("good:" + tag);
    at.observer->journal.waitFor(1);
    at.observer->journal.clear();
  }
}

void subscribeToUpdates() {
  Inputs inputs("a broker's PUB");
  BrokerAtTcp at;
  Peer bad(ZMQ_XSUB);
  bad.connect(at.updates);
  int number = 0;
  for (const Frames& frames : chosen(subscriberMessages())) {
    inputs.begin(frames);
    const std::string value = std::to_string(++number);
    bad.send(frames);
    BrokerAtTcp::publish(at.publisher, "good", value);
    inputs.expect(at.everything.receiveUntil({"good:default", value, word(0)}), {}, "sent");
  }
  // In the end the bad one is served as well.
  bad.send({"\x01next:"});
  bool served = false;
  for (int value = 0; !served; ++value) {
    require(value < 1000, "a peer that sent nonsense is not served");
    BrokerAtTcp::publish(at.publisher, "next", std::to_string(value));
    for (std::optional<Frames> frames = bad.tryReceive(std::chrono::milliseconds(20));
         frames.has_value() && !served; frames = bad.tryReceive(std::chrono::milliseconds(0))) {
      served = frames->front() == "next:default";
    }
  }
}

// ---- the dispatcher

std::vector<Frames> badNotifications() {
  Messages messages;
  for (const char* key : {"topic:tag", "bare", ":", "a:b:c"}) {
    for (const int flags : {0, 1, 2, 3, 4, 255}) {
      const Frames good = {key, "value", word(static_cast<unsigned>(flags))};
      addDeformedFrames(good, messages);
      for (std::size_t size = 0; size < 17; ++size) {
        for (const char fill : {'\0', '\x01', '\x02', '\x03', '\xFF'}) {
          Frames frames = good;
          frames[2] = std::string(size, fill);
          messages.add(frames);
          if (size > 0) frames[2][0] = static_cast<char>(flags);
          messages.add(frames);
        }
      }
    }
  }
  for (const Frames& good : goodMessages()) messages.add(good);
  return messages.all();
}

struct NotificationModel {
  explicit NotificationModel(const Frames& frames)
      : key(frames[0]),
        value(frames.size() > 1 ? frames[1] : ""),
        flags(frames.size() > 2 ? wordOf(frames[2]) : 0) {}
  bool replayed() const { return (flags & 1) != 0; }
  bool withdrawn() const { return (flags & 2) != 0; }

  std::string key;
  std::string value;
  unsigned long long flags;
};

/// A dispatcher between two bare sockets that stand in for a broker's.
struct DispatcherAtTcp {
  DispatcherAtTcp() {
    for (Peer* peer : {&updates, &cache}) peer->set(ZMQ_XPUB_VERBOSE, 1);
    updates.bind(updatesAt);
    cache.bind(cacheAt);
    dispatcher.start();
  }
  template <typename T>
  void subscribe(RawPeer& socket, const std::shared_ptr<T>& subscriber, const std::string& key) {
    dispatcher.registerSubscriber(subscriber);
    require(socket.receive() == Frames{"\x01" + key}, "a subscription does not come");
  }

  const std::string updatesAt = freeTcp();
  const std::string cacheAt = freeTcp();
  Peer updates{ZMQ_XPUB};
  Peer cache{ZMQ_XPUB};
  MessageDispatcher dispatcher{updatesAt, cacheAt, 1};
};

void notifyUpdates() {
  Inputs inputs("a dispatcher's updates");
  DispatcherAtTcp at;
  const auto everything = std::make_shared<RecordingMultiSubscriber>("");
  at.subscribe(at.updates, everything, "");
  for (const Frames& frames : chosen(badNotifications())) {
    inputs.begin(frames);
    const NotificationModel model(frames);
    const TopicAndTag parts = splitKey(model.key);
    Lines lines;
    if (!model.replayed()) {
      lines.push_back(model.withdrawn()
                          ? "deleted " + parts.topic + " " + parts.tag
                          : "value " + parts.topic + " " + parts.tag + " " + model.value);
    }
    lines.emplace_back("value next one 1");
    at.updates.send(frames);
    at.updates.send({"next:one", "1", word(0)});
    inputs.expect(everything->journal.lines(lines.size()), lines, "delivered");
    everything->journal.clear();
  }
  at.dispatcher.stop();
}

void notifyCache() {
  Inputs inputs("a dispatcher's cache");
  DispatcherAtTcp at;
  for (const Frames& frames : chosen(badNotifications())) {
    inputs.begin(frames);
    const NotificationModel model(frames);
    const TopicAndTag parts = splitKey(model.key);
    if (parts.topic.size() > 1000) continue;  // it is for the other socket
    // One that has had nothing yet, and one that has.
    for (const bool fresh : {true, false}) {
      const auto subscriber =
          std::make_shared<RecordingSubscriber>(SubscriptionMode::AllValues, "topic", "tag");
      at.subscribe(at.cache, subscriber, "topic:tag");
      Lines lines;
      if (!fresh) {
        at.cache.send({"topic:tag", "first", word(0)});
        lines.emplace_back("value first");
      }
      const bool matches = model.key == "topic:tag";
      if (matches && (fresh || !model.replayed())) {
        lines.push_back(model.withdrawn() ? "deleted" : "value " + model.value);
      }
      lines.emplace_back("value next");
      at.cache.send(frames);
      at.cache.send({"topic:tag", "next", word(0)});
      inputs.expect(subscriber->journal.lines(lines.size()), lines, "delivered");
      at.dispatcher.unregisterSubscriber(subscriber);
      require(at.cache.receive() == Frames{kNul + "topic:tag"}, "an unsubscription does not come");
    }
  }
  at.dispatcher.stop();
}

// ---- the RPC brokers

bool endsMaster(const Frames& frames) {
  const std::optional<Reading> reading = readingOf(frames);
  return reading.has_value() && reading->type > 2;
}
bool endsSlave(const Frames& frames) {
  const std::optional<Reading> reading = readingOf(frames);
  return reading.has_value() && reading->type != 0;
}
bool endsInternal(const Frames& frames) {
  const std::optional<Reading> reading = readingOf(frames);
  return reading.has_value() && reading->type != 2;
}

std::shared_ptr<ThreadedRpcDispatcher> oneWorker() {
  return std::make_shared<ThreadedRpcDispatcher>(1);
}

Frames requestOf(const std::string& service, const std::string& instance,
                 const std::string& payload) {
  return enveloped({}, requestFrames(service, instance, "m", payload));
}

/// What an RPC broker answers to a request, in front of which stands `way`.
Frames answerTo(const Reading& request, bool isServed, const Frames& way) {
  const Frames& body = request.body;
  return enveloped(
      way, isServed ? replyFrames(0, body[3] + "(" + body[4] + ")", body[0])
                    : replyFrames(2, "service not found: " + body[1] + " - " + body[2], body[0]));
}
bool isForService(const Reading& request) {
  return request.body[1] == "service" && request.body[2] == "instance";
}

/// A master over TCP, the peer that sends it what is bad, and one that is good.
class MasterAtTcp {
 public:
  MasterAtTcp() {
    broker_.registerService(echoing("service", "instance"));
    broker_.attach(observer_);
    broker_.start();
    bad_.connect(endpoint_);
    good_.connect(endpoint_);
    expectServed(bad_, "0");
    expectServed(good_, "0");
    observer_->journal.clear();
  }

  void serve(const Frames& frames, const std::string& number) {
    inputs_.begin(frames);
    sentTo_.clear();
    Lines lines;
    if (const std::optional<Reading> reading = readingOf(frames)) foretell(*reading, lines);
    bad_.send(frames);
    inputs_.expect(expectServed(bad_, number), sentTo_["bad"], "sent to the sender");
    inputs_.expect(expectServed(good_, number), sentTo_["route"], "sent to another");
    Lines registry;
    for (const std::string& line : observer_->journal.lines()) {
      if (line.find("registered ") < 3) registry.push_back(line);
    }
    inputs_.expect(registry, lines, "observed");
    observer_->journal.clear();
  }

 private:
  std::vector<Frames> expectServed(Peer& peer, const std::string& number) {
    peer.send(requestOf("service", "instance", number));
    return peer.receiveUntil(enveloped({}, replyFrames(0, "m(" + number + ")")));
  }
  // By name, to those that are connected; to others it is lost.
  void route(Frames frames) {
    const std::string to = frames.front();
    frames.erase(frames.begin());
    if (to == "bad" || to == "route") sentTo_[to].push_back(frames);
  }
  void foretell(const Reading& reading, Lines& lines) {
    const Frames& body = reading.body;
    const Frames envelope = joined(Frames{"bad"}, reading.envelope);
    if (reading.type == 0 && body.size() == 5) {
      const auto slave = slaves_.find({body[1], body[2]});
      if (isForService(reading) || slave == slaves_.end()) {
        route(answerTo(reading, isForService(reading), envelope));
      } else {
        route(joined(Frames{slave->second}, enveloped(envelope, reading.undelimited())));
      }
    } else if (reading.type == 1 && body.size() == 3) {
      route(enveloped(reading.envelope, reading.undelimited()));
    } else if (reading.type == 2 && body.size() == 3) {
      keep(body, envelope.back(), lines);
    }
  }
  void keep(const Frames& body, const std::string& sender, Lines& lines) {
    const std::string line = "registered " + body[1] + " " + body[2] + " remote " + sender;
    if (firstByteOf(body[0]) != 0) {
      slaves_[{body[1], body[2]}] = sender;
      lines.push_back(line);
    } else if (slaves_.erase({body[1], body[2]}) != 0) {
      lines.push_back("un" + line);
    }
  }

  Inputs inputs_{"a master's ROUTER"};
  const std::string endpoint_ = freeTcp();
  const std::shared_ptr<RecordingRpcObserver> observer_ = std::make_shared<RecordingRpcObserver>();
  RpcBroker broker_{true, {endpoint_}, oneWorker()};
  Peer bad_{ZMQ_DEALER, "bad"};
  Peer good_{ZMQ_DEALER, "route"};
  std::map<std::pair<std::string, std::string>, std::string> slaves_;
  std::map<std::string, std::vector<Frames>> sentTo_;
};

void sendToMaster() {
  MasterAtTcp master;
  int number = 0;
  for (const Frames& frames : chosen(badMessages())) {
    if (!endsMaster(frames)) master.serve(frames, std::to_string(++number));
  }
}

/// A slave with a service, at a bare socket that stands in for its master.
struct SlaveAtTcp {
  SlaveAtTcp() {
    master.bind(endpoint);
    slave.registerService(echoing("service", "instance"));
    slave.start();
    identity = master.receive().front();
  }
  /// What comes before the answers to two calls: of the broker's own thread, and of the worker.
  std::vector<Frames> messagesBefore(const std::string& number) {
    Frames notFound = enveloped({}, replyFrames(2, "service not found: next - " + number));
    Frames found = enveloped({}, replyFrames(0, "m(" + number + ")"));
    for (const Frames& request :
         {requestOf("next", number, ""), requestOf("service", "instance", number)}) {
      master.send(joined(Frames{identity}, request));
    }
    std::vector<Frames> before;
    for (int left = 2; left > 0;) {
      std::optional<Frames> message = master.tryReceive(kPatience);
      require(message.has_value(), "a slave does not answer");
      message->erase(message->begin());  // the socket that it came by
      if (*message == notFound || *message == found) {
        --left;
      } else {
        before.push_back(*message);
      }
    }
    return before;
  }

  const std::string endpoint = freeTcp();
  Peer master{ZMQ_ROUTER};
  RpcBroker slave{false, {endpoint}, oneWorker()};
  std::string identity;
};

void sendToSlave() {
  Inputs inputs("a slave's DEALER");
  SlaveAtTcp at;
  int number = 0;
  for (const Frames& frames : chosen(badMessages())) {
    if (endsSlave(frames)) continue;
    inputs.begin(frames);
    std::vector<Frames> expected;
    const std::optional<Reading> reading = readingOf(frames);
    if (reading.has_value() && reading->body.size() == 5) {
      expected.push_back(answerTo(*reading, isForService(*reading), reading->envelope));
    }
    at.master.send(joined(Frames{at.identity}, frames));
    inputs.expect(at.messagesBefore(std::to_string(++number)), expected, "answered");
  }
}

// The endpoint that the next slave of the process takes registrations at.
std::string nextInternalEndpoint() {
  const RpcBrokerImpl probe(true, {}, oneWorker());
  const std::string number = probe.clientEndpoint().substr(22);
  return "inproc://rpc_broker_internal_" + std::to_string(std::stoi(number) + 1);
}

void sendToInternal() {
  Inputs inputs("a slave's PULL");
  const std::string internal = nextInternalEndpoint();
  SlaveAtTcp at;
  RawPeer bad(ZMQ_PUSH);
  bad.connect(internal);
  int number = 0;
  for (const Frames& frames : chosen(badMessages())) {
    if (endsInternal(frames)) continue;
    inputs.begin(frames);
    std::vector<Frames> expected;
    const std::optional<Reading> reading = readingOf(frames);
    if (reading.has_value() && reading->body.size() == 3) {
      expected.push_back(
          joined(Frames{at.identity}, enveloped(reading->envelope, reading->undelimited())));
    }
    const std::string name = std::to_string(++number);
    bad.send(frames);
    bad.send(enveloped({}, registrationFrames(true, "next", name)));
    inputs.expect(at.master.receiveUntil(joined(
                      Frames{at.identity}, enveloped({}, registrationFrames(true, "next", name)))),
                  expected, "forwarded");
  }
}

// ---- those that end a broker's process

using Ending = int (*)(const Frames&);

int waitForTheEnd() {
  std::this_thread::sleep_for(kPatience);
  return 3;
}
int endMaster(const Frames& frames) {
  const std::string endpoint = uniqueInproc();
  RpcBroker broker(true, {endpoint}, oneWorker());
  broker.start();
  RawPeer(ZMQ_DEALER).connect(endpoint).send(frames);
  return waitForTheEnd();
}
int endSlave(const Frames& frames) {
  const std::string endpoint = uniqueInproc();
  RawPeer master(ZMQ_ROUTER);
  master.bind(endpoint);
  RpcBroker slave(false, {endpoint}, oneWorker());
  slave.registerService(echoing("s", "i"));
  slave.start();
  master.send(joined(Frames{master.receive().front()}, frames));
  return waitForTheEnd();
}
int endInternal(const Frames& frames) {
  RpcBroker slave(false, {uniqueInproc()}, oneWorker());
  slave.start();
  RawPeer(ZMQ_PUSH).connect("inproc://rpc_broker_internal_0").send(frames);
  return waitForTheEnd();
}

// Before anything else: what the processes inherit must not have used ZeroMQ yet.
void endProcesses(const char* socket, Ending end, bool (*ends)(const Frames&)) {
  std::vector<Frames> all;
  for (const Frames& frames : badMessages()) {
    if (ends(frames)) all.push_back(frames);
  }
  const std::size_t most = Torture::instance().count();
  const std::size_t step = std::max<std::size_t>(1, (all.size() + most - 1) / most);
  std::uint64_t count = 0;
  for (std::size_t i = 0; i < all.size(); i += step, ++count) {
    const ChildOutcome outcome = inChild([&] { return end(all[i]); });
    if (!outcome.abortedWith("this should not happen")) {
      violated(std::string(socket) + " does not end as it should of " + shown(all[i]) +
               ": status " + std::to_string(outcome.status) + ", " + outcome.text);
    }
  }
  Inputs::endOf(socket, count);
}

// ---- the RPC client

// A REQ socket drops a message that does not begin with its delimiter, and its connection with it.
bool reachesClient(const Frames& frames) { return frames.size() > 1 && frames.front().empty(); }

std::string outcomeOfReply(const Frames& frames) {
  const std::string timeout = "timeout RPC timeout";
  if (!reachesClient(frames)) return timeout;
  const auto reading = readingBehindDelimiter(Frames(frames.begin() + 1, frames.end()));
  if (!reading.has_value() || reading->type != 1 || reading->body.size() != 3) return timeout;
  const std::string& payload = reading->body[2];
  switch (firstByteOf(reading->body[1])) {
    case 0:
      return "result " + payload;
    case 1:
      return "service " + payload;
    case 2:
      return "broker " + payload;
    case 3:
      return "custom " + payload;
    default:
      return "broker unknown response type";
  }
}

// Exceptions carry their text up to its first NUL byte.
std::string asText(const std::string& outcome) {
  const bool isBytes =
      outcome.compare(0, 7, "result ") == 0 || outcome.compare(0, 7, "custom ") == 0;
  return isBytes ? outcome : outcome.substr(0, outcome.find('\0'));
}

void replyToClient() {
  Inputs inputs("a client's REQ");
  const std::string endpoint = freeTcp();
  Peer server(ZMQ_ROUTER);
  server.bind(endpoint);
  Messages messages;
  messages.add(chosen(badMessages()));
  for (int status = 0; status < 256; ++status) {
    messages.add({"", "RS02", "\x01", "r", std::string(1, static_cast<char>(status)), "payload"});
  }
  std::thread serving([&] {
    for (const Frames& frames : messages.all()) {
      for (const Frames& reply : {frames, enveloped({}, replyFrames(0, "good"))}) {
        server.send(joined(Frames{server.receive().front()}, reply));
      }
    }
  });
  RpcClient client(endpoint, kPatience);
  for (const Frames& frames : messages.all()) {
    inputs.begin(frames);
    // What reaches the client is answered at once, however long it would wait.
    client.setReceiveTimeout(reachesClient(frames) ? std::chrono::milliseconds(kPatience)
                                                   : std::chrono::milliseconds(30));
    const auto begun = Clock::now();
    inputs.expect(Lines{outcomeOf(client, "s", "i")}, Lines{asText(outcomeOfReply(frames))},
                  "ended");
    require(Clock::now() - begun < kPatience / 2, "a client waits for what it has");
    client.setReceiveTimeout(kPatience);
    inputs.expect(Lines{outcomeOf(client, "s", "i")}, Lines{"result good"}, "the next one ended");
  }
  serving.join();
}

}  // namespace
}  // namespace tessel::test

int main(int argc, char** argv) {
  using namespace tessel::test;
  Torture::instance().begin(argc, argv, 100000, 0);
  endProcesses("a master's ROUTER", endMaster, endsMaster);
  endProcesses("a slave's DEALER", endSlave, endsSlave);
  endProcesses("a slave's PULL", endInternal, endsInternal);
  const Watchdog watchdog("a peer of bad inputs", std::chrono::seconds(400));
  pushToBroker();
  subscribeToCache();
  subscribeToUpdates();
  notifyUpdates();
  notifyCache();
  sendToMaster();
  sendToSlave();
  sendToInternal();
  replyToClient();
  return 0;
}
