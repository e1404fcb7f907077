#ifndef TESSEL_SRC_PUBSUB_SUBSCRIPTION_TABLE_H
#define TESSEL_SRC_PUBSUB_SUBSCRIPTION_TABLE_H

#include <cstddef>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "pubsub/subscription.h"
#include "transport/zmq_socket.h"

namespace tessel {

/// One SUB socket of a dispatcher with the subscriptions that it serves. While the dispatcher runs,
/// each entry has one ZeroMQ subscription of its own, also among equal keys: ZeroMQ counts them,
/// and the broker answers each with the cached value.
///
/// Entries are found by index, not by walking: what a value costs does not depend on how many
/// subscriptions it is not for.
class SubscriptionTable {
 public:
  using Entry = std::shared_ptr<SubscriptionBase>;
  using Group = std::vector<Entry>;
  /// Entries by what they are looked up with, in groups of equal ones.
  using Index = std::unordered_map<std::string, Group>;
  struct Forgotten {
    Index exact;
    Index prefixes;
  };

  /// Not connected yet, so that its owner can set options.
  SubscriptionTable();

  ZmqSocket& socket() { return socket_; }
  std::size_t size() const;
  bool empty() const { return exact_.empty() && prefixes_.empty(); }

  /// Subscribes and stores; one subscriber may have several entries.
  void add(Entry entry);

  // Each of these hands over what it removed; the caller decides when that is released.

  /// Removes and unsubscribes the first entry of the same key and subscriber, if there is one.
  Group removeOne(const SubscriptionBase& like);
  /// Removes and unsubscribes the entries whose subscribers have gone.
  Group removeExpired();
  /// Forgets the entries whose subscribers have gone, unsubscribed before, and subscribes the rest.
  Group resubscribeAll();
  /// Unsubscribes everything, and keeps the entries of living subscribers to subscribe them again.
  Group unsubscribeAll();
  /// Forgets every entry; all must be unsubscribed.
  Forgotten clear();
  /// Calls `visit(entry)` for each entry that the key is for, whether or not its subscriber has
  /// gone; removes and unsubscribes those for which it returns false.
  template <typename Visit>
  Group visitMatches(const std::string& key, const Visit& visit);

 private:
  void subscribe(const SubscriptionBase& entry);
  void unsubscribe(const SubscriptionBase& entry);
  Index& indexOf(const SubscriptionBase& entry) { return entry.isPrefix() ? prefixes_ : exact_; }
  // Moves the entries for which `remove(entry)` is true to `removed`, from one group and from all;
  // a group goes with its last entry, and what comes next is returned.
  template <typename Remove>
  Index::iterator filterGroup(Index& index, Index::iterator found, const Remove& remove,
                              Group& removed);
  template <typename Remove>
  void filterGroup(Index& index, const std::string& indexKey, const Remove& remove, Group& removed);
  template <typename Remove>
  Group filterAll(const Remove& remove);
  void forgetPrefixLength(std::size_t length);

  ZmqSocket socket_;
  Index exact_;
  Index prefixes_;
  // How many groups of prefixes there are of each length: no other beginnings of a key need to be
  // looked up.
  std::map<std::size_t, std::size_t> prefixLengths_;
  std::string beginning_;  // of the key looked up; kept for its memory
};

template <typename Remove>
SubscriptionTable::Index::iterator SubscriptionTable::filterGroup(Index& index,
                                                                  Index::iterator found,
                                                                  const Remove& remove,
                                                                  Group& removed) {
  Group& group = found->second;
  auto stays = group.begin();
  for (Entry& entry : group) {
    if (remove(entry)) {
      removed.push_back(std::move(entry));
    } else {
      if (&*stays != &entry) *stays = std::move(entry);
      ++stays;
    }
  }
  group.erase(stays, group.end());
  if (!group.empty()) return std::next(found);
  if (&index == &prefixes_) forgetPrefixLength(found->first.size());
  return index.erase(found);
}

template <typename Remove>
void SubscriptionTable::filterGroup(Index& index, const std::string& indexKey, const Remove& remove,
                                    Group& removed) {
  const auto found = index.find(indexKey);
  if (found != index.end()) filterGroup(index, found, remove, removed);
}

template <typename Visit>
SubscriptionTable::Group SubscriptionTable::visitMatches(const std::string& key,
                                                         const Visit& visit) {
  Group removed;
  const auto visitAndDrop = [&](const Entry& entry) {
    if (visit(entry)) return false;
    unsubscribe(*entry);
    return true;
  };
  // Prefixes with a NUL byte are found by the text up to it, so their length is still to be
  // checked.
  const auto visitPrefixAndDrop = [&](const Entry& entry) {
    return entry->isFor(key) && visitAndDrop(entry);
  };
  filterGroup(exact_, key, visitAndDrop, removed);
  for (auto length = prefixLengths_.begin(); length != prefixLengths_.end();) {
    if (length->first > key.size()) break;
    beginning_.assign(key, 0, length->first);
    ++length;  // before the group may go, and its length with it
    filterGroup(prefixes_, beginning_, visitPrefixAndDrop, removed);
  }
  return removed;
}

}  // namespace tessel

#endif
