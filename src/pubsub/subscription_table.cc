#include "pubsub/subscription_table.h"

#include <zmq.h>

#include <utility>

namespace tessel {
namespace {

// What an entry is looked up with. Of a prefix that holds a NUL byte only what comes up to it is
// compared; two that differ behind it are then found together.
std::string indexKey(const SubscriptionBase& entry) {
  const std::size_t nul = entry.isPrefix() ? entry.key().find('\0') : std::string::npos;
  return nul == std::string::npos ? entry.key() : entry.key().substr(0, nul + 1);
}

}  // namespace

SubscriptionTable::SubscriptionTable() : socket_(ZMQ_SUB) {}

std::size_t SubscriptionTable::size() const {
  std::size_t entries = 0;
  for (const Index* index : {&exact_, &prefixes_}) {
    for (const auto& group : *index) entries += group.second.size();
  }
  return entries;
}

void SubscriptionTable::subscribe(const SubscriptionBase& entry) {
  socket_.setOption(ZMQ_SUBSCRIBE, entry.key());
}

void SubscriptionTable::unsubscribe(const SubscriptionBase& entry) {
  socket_.setOption(ZMQ_UNSUBSCRIBE, entry.key());
}

void SubscriptionTable::add(Entry entry) {
  // What has come for those who have gone would be taken for new by who subscribes to it now.
  if (empty()) socket_.discardWaiting();
  subscribe(*entry);
  const auto found = indexOf(*entry).try_emplace(indexKey(*entry)).first;
  Group& group = found->second;
  if (entry->isPrefix() && group.empty()) ++prefixLengths_[found->first.size()];
  group.push_back(std::move(entry));
}

SubscriptionTable::Group SubscriptionTable::removeOne(const SubscriptionBase& like) {
  Group removed;
  const auto isIt = [&](const Entry& entry) {
    if (!removed.empty() || !entry->isSameSubscriber(like) || entry->key() != like.key()) {
      return false;
    }
    unsubscribe(*entry);
    return true;
  };
  filterGroup(indexOf(like), indexKey(like), isIt, removed);
  return removed;
}

SubscriptionTable::Group SubscriptionTable::removeExpired() {
  return filterAll([this](const Entry& entry) {
    if (!entry->isExpired()) return false;
    unsubscribe(*entry);
    return true;
  });
}

SubscriptionTable::Group SubscriptionTable::resubscribeAll() {
  return filterAll([this](const Entry& entry) {
    if (entry->isExpired()) return true;
    subscribe(*entry);
    return false;
  });
}

SubscriptionTable::Group SubscriptionTable::unsubscribeAll() {
  return filterAll([this](const Entry& entry) {
    unsubscribe(*entry);
    return entry->isExpired();
  });
}

SubscriptionTable::Forgotten SubscriptionTable::clear() {
  prefixLengths_.clear();
  return {std::exchange(exact_, Index()), std::exchange(prefixes_, Index())};
}

template <typename Remove>
SubscriptionTable::Group SubscriptionTable::filterAll(const Remove& remove) {
  Group removed;
  for (Index* index : {&exact_, &prefixes_}) {
    for (auto found = index->begin(); found != index->end();) {
      found = filterGroup(*index, found, remove, removed);
    }
  }
  return removed;
}

void SubscriptionTable::forgetPrefixLength(std::size_t length) {
  const auto count = prefixLengths_.find(length);
  if (--count->second == 0) prefixLengths_.erase(count);
}

}  // namespace tessel
