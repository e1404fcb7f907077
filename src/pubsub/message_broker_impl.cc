#include "pubsub/message_broker_impl.h"

#include <zmq.h>

#include <exception>
#include <string_view>
#include <utility>

#include "messages/message_publish.h"
#include "messages/message_unpublish.h"
#include "messages/value_key.h"
#include "pubsub/high_water_marks.h"
#include "transport/deadlock.h"

namespace tessel {
namespace {

// A poll costs several system calls, so it is left out while messages wait. It also is what tells
// the PUB socket, which is never read, of subscribers that come and go.
constexpr int kMaxPassesWithoutPoll = 256;

constexpr std::size_t kStopItem = 0;

constexpr char kSubscribe = 1;
constexpr char kUnsubscribe = 0;

// Names the calling thread for as long as it lives.
class NamedThread {
 public:
  explicit NamedThread(std::atomic<std::thread::id>& name) : name_(name) {
    name_.store(std::this_thread::get_id());
  }
  ~NamedThread() { name_ = std::thread::id(); }
  NamedThread(const NamedThread&) = delete;
  NamedThread& operator=(const NamedThread&) = delete;

 private:
  std::atomic<std::thread::id>& name_;
};

}  // namespace

MessageBrokerImpl::MessageBrokerImpl(const std::vector<std::string>& pullTransports,
                                     const std::vector<std::string>& updatesTransports,
                                     const std::vector<std::string>& cacheTransports)
    : inprocEndpoint_(number_.endpoint()),
      pullSocket_(ZMQ_PULL),
      pubSocket_(ZMQ_PUB),
      xpubSocket_(ZMQ_XPUB),
      poll_{stopSignal_.pollHandle(), pullSocket_.handle(), xpubSocket_.handle(),
            pubSocket_.handle()} {
  // Repeated subscriptions too, so that each new subscriber gets the cached value.
  xpubSocket_.setOption(ZMQ_XPUB_VERBOSE, 1);
  xpubSocket_.setOption(ZMQ_SNDHWM, kReplayHighWaterMark);
  // What comes in on these are subscriptions; a burst of them must not meet a limit.
  xpubSocket_.setOption(ZMQ_RCVHWM, kNoHighWaterMark);
  pubSocket_.setOption(ZMQ_RCVHWM, kNoHighWaterMark);
  pullSocket_.bind(inprocEndpoint_);
  for (const std::string& transport : pullTransports) pullSocket_.bind(transport);
  for (const std::string& transport : updatesTransports) pubSocket_.bind(transport);
  for (const std::string& transport : cacheTransports) xpubSocket_.bind(transport);
  number_.settle();
}

MessageBrokerImpl::~MessageBrokerImpl() {
  // Below this on the stack is the stop() that clears, with locks of the broker.
  if (clearingThreadId_ == std::this_thread::get_id()) std::terminate();
  stop(false, false);
}

void MessageBrokerImpl::start() {
  // From an observer: it runs, and who holds the lock may be waiting for this thread to end.
  if (threadId_ == std::this_thread::get_id()) return;
  if (clearingThreadId_ == std::this_thread::get_id()) return;
  const Lock lock(threadMutex_);
  if (thread_.joinable()) return;
  stopRequested_ = false;
  thread_ = std::thread([this] { run(); });
}

void MessageBrokerImpl::stop(bool clearCache, bool clearObservers) {
  if (threadId_ == std::this_thread::get_id()) {
    // Without the lock: another thread may hold it, waiting for this one to end.
    stopRequested_ = true;
    throwDeadlock();
  }
  // From an observer that hears of the clearing, or the destructor of one that lost its last owner
  // then: this thread holds the lock, and the broker has stopped.
  if (clearingThreadId_ == std::this_thread::get_id()) return;
  ObserverList<MessageBrokerObserver>::Entries detached;  // released after the lock
  const Lock lock(threadMutex_);
  if (!thread_.joinable()) return;
  stopRequested_ = true;
  stopSignal_.signal();
  thread_.join();
  stopSignal_.consume();  // here, since the loop may have ended by the flag without it
  std::exception_ptr thrown;
  if (clearCache) thrown = forgetCachedValues();
  if (clearObservers) detached = observers_.takeAll();
  if (thrown != nullptr) std::rethrow_exception(thrown);
}

void MessageBrokerImpl::attach(const std::shared_ptr<MessageBrokerObserver>& observer) {
  observers_.attach(observer);
}

void MessageBrokerImpl::detach(const std::shared_ptr<MessageBrokerObserver>& observer) {
  observers_.detach(observer);
}

void MessageBrokerImpl::run() {
  const NamedThread running(threadId_);
  stopSignalMayBeUnread_ = true;  // the last stop() has received from it
  while (serveOnce()) {
  }
}

bool MessageBrokerImpl::serveOnce() {
  if (stopRequested_) return false;
  if (idle_ || ++passesSincePoll_ >= kMaxPassesWithoutPoll) {
    passesSincePoll_ = 0;
    if (idle_ && !stopSignalMayBeUnread_) {
      // The PUB socket, from which nobody receives, counts as empty: it never has anything to read,
      // and subscribers who come and go there raise its handle as ever.
      poll_.waitFoundEmpty();
    } else {
      poll_.wait();
    }
    stopSignalMayBeUnread_ = false;
    if (stopRequested_ || poll_.readable(kStopItem)) return false;
  }
  idle_ = false;  // until all sockets were looked at: not when the pass ends early
  const Inbound inbound = serveInbound();
  if (inbound == Inbound::kUnknown) return true;
  const bool subscription = serveSubscription();
  idle_ = inbound == Inbound::kNothing && !subscription;
  return true;
}

MessageBrokerImpl::Inbound MessageBrokerImpl::serveInbound() {
  MessageHeader header;
  switch (readMessageHeader(pullSocket_, header, ZMQ_DONTWAIT)) {
    case HeaderRead::kNothing:
      return Inbound::kNothing;
    case HeaderRead::kMalformed:
      return Inbound::kUnknown;
    case HeaderRead::kRead:
      break;
  }
  switch (header.type) {
    case kMessagePublish:
      servePublication(std::move(header));
      return Inbound::kServed;
    case kMessageUnpublish:
      serveWithdrawal(std::move(header));
      return Inbound::kServed;
    default:
      pullSocket_.discardPending();
      return Inbound::kUnknown;
  }
}

void MessageBrokerImpl::servePublication(MessageHeader&& header) {
  MessagePublish message(std::move(header));
  if (!message.receive(pullSocket_)) return;
  const bool cached = message.hasOption(kKeepInCache);
  assignKey(key_, message.topic(), message.tag());
  ZmqFrame value = message.valueFrame();
  const bool stored = cached && cache_.store(key_, value);
  const bool repeat = cached && !stored;
  const bool suppressed = repeat && !message.hasOption(kPublishIfEqual);
  if (!suppressed) broadcast(ValueNotification(key_, std::move(value), 0));
  observers_.notify([&](MessageBrokerObserver& observer) {
    observer.onPublish(message.topic(), message.tag(), cached, stored, suppressed);
  });
}

void MessageBrokerImpl::serveWithdrawal(MessageHeader&& header) {
  MessageUnpublish message(std::move(header));
  if (!message.receive(pullSocket_)) return;
  const bool remove = message.hasOption(kRemoveFromCache);
  assignKey(key_, message.topic(), message.tag());
  const bool erased = remove && cache_.erase(key_);
  // Subscribers hear of it unless it was to leave the cache and was not there.
  if (!remove || erased) broadcast(ValueNotification(key_, ZmqFrame(), kWithdrawn));
  observers_.notify([&](MessageBrokerObserver& observer) {
    observer.onUnpublish(message.topic(), message.tag(), remove, erased, false);
  });
}

void MessageBrokerImpl::broadcast(ValueNotification&& notification) {
  ValueNotification again = notification.share();
  notification.send(pubSocket_);
  again.send(xpubSocket_);
}

bool MessageBrokerImpl::serveSubscription() {
  ZmqFrame frame;
  if (!xpubSocket_.receive(frame, ZMQ_DONTWAIT)) return false;
  if (frame.size() == 0) return true;  // a peer's own message, as are those of other first bytes
  const auto* text = static_cast<const char*>(frame.data());
  key_.assign(text + 1, frame.size() - 1);
  if (*text == kSubscribe) {
    greetSubscriber();
  } else if (*text == kUnsubscribe) {
    observers_.notify([this](MessageBrokerObserver& observer) {
      const TopicAndTag key = splitKey(key_);
      observer.onUnsubscribe(key.topic, key.tag);
    });
  }
  return true;
}

// Every subscriber of the key gets the value once more; the flag tells those who have it.
void MessageBrokerImpl::greetSubscriber() {
  observers_.notify([this](MessageBrokerObserver& observer) {
    const TopicAndTag key = splitKey(key_);
    observer.onSubscribe(key.topic, key.tag);
  });
  const KeptValue* value = cache_.find(key_);
  if (value == nullptr) return;
  ValueNotification(key_, value->toFrame(), kReplayed).send(xpubSocket_);
}

// One that throws keeps neither the others from hearing of every key nor the broker from forgetting
// it: a stop() after this one would do nothing, so there is no second chance.
std::exception_ptr MessageBrokerImpl::forgetCachedValues() {
  const NamedThread clearing(clearingThreadId_);
  std::exception_ptr thrown;
  const auto keepFirst = [&thrown](const auto& call) {
    try {
      call();
    } catch (...) {
      if (thrown == nullptr) thrown = std::current_exception();
    }
  };
  cache_.forEachKey([&](std::string_view key) {
    keepFirst([&] {  // there may be no memory
      key_.assign(key);
      const TopicAndTag parts = splitKey(key_);
      observers_.notify([&](MessageBrokerObserver& observer) {
        keepFirst([&] { observer.onUnpublish(parts.topic, parts.tag, true, true, false); });
      });
    });
  });
  cache_.clear();
  return thrown;
}

}  // namespace tessel
