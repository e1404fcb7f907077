#include "tessel/publisher.h"

#include <cstdint>
#include <stdexcept>
#include <utility>

#include "messages/message_publish.h"
#include "messages/message_unpublish.h"
#include "messages/value_key.h"
#include "tessel/message_broker.h"
#include "transport/broker_number.h"
#include "transport/mutex.h"
#include "transport/thread_socket_cache.h"

namespace tessel {
namespace {

// Where publishers without a broker of their own send to. Never destroyed: publishers may be made
// while the process exits.
class DefaultBrokers {
 public:
  static DefaultBrokers& instance() {
    static DefaultBrokers& brokers = *new DefaultBrokers;
    return brokers;
  }
  std::vector<std::string> get() TESSEL_EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    return transports_;
  }
  void set(const std::vector<std::string>& transports) TESSEL_EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    transports_ = transports;
  }

 private:
  Mutex mutex_;
  // The in-process endpoint of the first broker made in the process.
  std::vector<std::string> transports_ TESSEL_GUARDED_BY(mutex_){"inproc://publish_service0"};
};

constexpr std::uint64_t setBit(std::uint64_t word, std::uint64_t bit, bool on) {
  return on ? word | bit : word & ~bit;
}

}  // namespace

class PublisherImpl {
 public:
  PublisherImpl(std::vector<std::string> sendTo, const std::string& publishedTopic,
                const std::string& publishedTag)
      : topic(publishedTopic),
        tag(publishedTag.empty() ? kDefaultTag : publishedTag),
        transports(std::move(sendTo)) {
    if (topic.find(':') != std::string::npos) {
      throw std::invalid_argument("Message topic must not contain colons!");
    }
    if (tag.find(':') != std::string::npos) {
      throw std::invalid_argument("Message tag must not contain colons!");
    }
  }

  void publish(const void* data, std::size_t size) const {
    for (const std::string& transport : transports) {
      MessagePublish message(topic, tag, data, size, options);
      message.send(socketFor(transport));
    }
  }

  void unpublish() const {
    for (const std::string& transport : transports) {
      withdrawal().send(socketFor(transport));
    }
  }

  // A broker of this process that has gone, with a queue full of what it never read, must not hold
  // up a destructor: its endpoint is free for ever if it is a numbered one, for which nothing is
  // sent at all, and perhaps otherwise.
  void unpublishUnlessAbandoned() const {
    for (const std::string& transport : transports) {
      if (BrokerNumber::isRetired(transport)) continue;
      withdrawal().sendUnlessAbandoned(socketFor(transport));
    }
  }

  const std::string topic;
  const std::string tag;
  std::uint64_t options = kKeepInCache;  // the same bits as on the wire
  bool onDestruction = false;            // one flag behind two pairs of setters and getters
  const std::vector<std::string> transports;

 private:
  static ZmqSocket& socketFor(const std::string& transport) {
    return ThreadSockets::ofThisThread().publishers.socketFor(transport);
  }
  MessageUnpublish withdrawal() const {
    return MessageUnpublish(topic, tag, options & kRemoveFromCache);
  }
};

Publisher::Publisher(const std::string& topic, const std::string& tag)
    : impl_(std::make_unique<PublisherImpl>(DefaultBrokers::instance().get(), topic, tag)) {}

Publisher::Publisher(const std::vector<std::string>& transports, const std::string& topic,
                     const std::string& tag)
    : impl_(std::make_unique<PublisherImpl>(transports, topic, tag)) {}

Publisher::Publisher(const MessageBroker& broker, const std::string& topic, const std::string& tag)
    : impl_(std::make_unique<PublisherImpl>(
          std::vector<std::string>{broker.getInprocPullTransport()}, topic, tag)) {}

Publisher::~Publisher() {
  if (impl_->onDestruction) impl_->unpublishUnlessAbandoned();
}

void Publisher::publish(const void* data, std::size_t size) const { impl_->publish(data, size); }

void Publisher::unpublish() const { impl_->unpublish(); }

void Publisher::removeFromCache() { impl_->unpublish(); }

void Publisher::enableCache(bool enable) {
  impl_->options = setBit(impl_->options, kKeepInCache, enable);
}

bool Publisher::isCacheEnabled() const { return (impl_->options & kKeepInCache) != 0; }

void Publisher::enablePublishIfEqual(bool enable) {
  impl_->options = setBit(impl_->options, kPublishIfEqual, enable);
}

bool Publisher::isPublishIfEqualEnabled() const { return (impl_->options & kPublishIfEqual) != 0; }

void Publisher::enableClearCacheOnDestruction(bool enable) { impl_->onDestruction = enable; }

bool Publisher::isClearCacheOnDestructionEnabled() const { return impl_->onDestruction; }

void Publisher::enableUnpublishOnDestruction(bool enable) { impl_->onDestruction = enable; }

bool Publisher::isUnpublishOnDestructionEnabled() const { return impl_->onDestruction; }

const std::string& Publisher::getTopic() const { return impl_->topic; }

const std::string& Publisher::getTag() const { return impl_->tag; }

void Publisher::setDefaultBroker(const std::vector<std::string>& transports) {
  DefaultBrokers::instance().set(transports);
}

void Publisher::setDefaultBroker(const MessageBroker& broker) {
  setDefaultBroker(std::vector<std::string>{broker.getInprocPullTransport()});
}

}  // namespace tessel
